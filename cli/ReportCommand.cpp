// `tessarin report`: the support report on standard output, for pasting into a support request.
#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "engine/desktop/DesktopPaths.hpp"
#include "engine/desktop/SupportReport.hpp"
#include "engine/log/Log.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::cli {

int runReport(bool json) {
    try {
        engine::SettingsStore settings = engine::SettingsStore::standard();
        engine::SupportReportInputs inputs;
        inputs.version = TESSARIN_VERSION;
        inputs.program = engine::runningProgramFolder() / "tessarin";
        inputs.helperFolder = engine::Tools::bundledHelperDirectory();
        inputs.dataHome = engine::dataHome();
        inputs.settings = &settings;
        inputs.logFile = engine::currentLogFilePath();
        const std::string report = engine::buildSupportReport(inputs);
        if (json) {
            std::cout << nlohmann::json{{"event", "done"}, {"report", report}}.dump(
                             -1, ' ', false, nlohmann::json::error_handler_t::replace)
                      << std::endl;
        } else {
            std::cout << report;
        }
        return kExitSuccess;
    } catch (const std::exception& error) {
        std::cerr << "tessarin: " << error.what() << "\n";
        return kExitFailure;
    }
}

}  // namespace tessarin::cli
