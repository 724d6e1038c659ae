#include <fmt/format.h>

#include <iostream>

#include "cli/Commands.hpp"
#include "cli/Conversion.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/PresetGate.hpp"
#include "cli/ProgressLine.hpp"
#include "cli/ToolLookup.hpp"

namespace tessarin::cli {

int runConvert(const ConvertRequest& request) {
    Interruption interruption;  // first, so every later thread has the signals blocked

    const engine::Preset* preset = engine::Preset::builtin(request.presetId);
    if (preset == nullptr) {
        std::cerr << "tessarin: unknown preset \"" << request.presetId
                  << "\"; `tessarin presets` lists them.\n";
        return kExitUsage;
    }
    if (request.outputDirectory && !std::filesystem::is_directory(*request.outputDirectory)) {
        std::cerr << "tessarin: the output folder does not exist or is not a folder.\n";
        return kExitUsage;
    }
    const std::optional<engine::Tools> tools = locateTools();
    if (!tools) {
        return kExitToolsMissing;
    }
    const PresetGate gate(*tools);
    if (const auto reason = gate.disabledReason(*preset)) {
        std::cerr << "tessarin: the preset \"" << preset->id << "\" can't run here: " << *reason
                  << "\n";
        return kExitFailure;
    }

    bool anyFailed = false;
    for (const std::filesystem::path& file : request.files) {
        if (interruption.interrupted()) {
            break;
        }
        ProgressLine progress(file.filename().string());
        try {
            const std::filesystem::path published =
                convert(ConversionRequest{*tools, *preset, std::filesystem::absolute(file),
                                          request.outputDirectory, gate.hardwareBlock(*preset)},
                        interruption, [&](double fraction) { progress.update(fraction); });
            progress.finish();
            std::cout << published.string() << std::endl;
        } catch (const engine::JobFailure& failure) {
            progress.finish();
            if (failure.wasCancelled) {
                std::cerr << "tessarin: " << file.string() << ": cancelled; nothing was saved.\n";
                break;
            }
            anyFailed = true;
            std::cerr << "tessarin: " << file.string() << ": failed at " << failure.step;
            if (failure.exitCode) {
                std::cerr << " (exit " << *failure.exitCode << ")";
            }
            std::cerr << ": " << failure.stderrTail << "\n";
        }
    }
    if (interruption.interrupted()) {
        return kExitCancelled;
    }
    return anyFailed ? kExitFailure : kExitSuccess;
}

}  // namespace tessarin::cli
