// `tessarin actions status|install|repair|remove`: the file-manager actions ("Convert with
// Tessarin" in Nautilus, Dolphin and Nemo) that run the helper beside this program.
#include <fmt/format.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "engine/desktop/ActionRegistrar.hpp"
#include "engine/desktop/DesktopPaths.hpp"
#include "engine/desktop/StaleActionProcesses.hpp"
#include "engine/intake/HelperActions.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::cli {

namespace {

using engine::ActionFileState;

void emit(const nlohmann::json& event) {
    std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
              << std::endl;
}

void printStatus(const std::vector<engine::ActionStatus>& rows, bool json) {
    for (const engine::ActionStatus& row : rows) {
        for (const engine::ActionFileStatus& file : row.files) {
            if (json) {
                nlohmann::json event{{"event", "action"},
                                     {"name", row.name},
                                     {"displayName", row.displayName},
                                     {"fileManager", engine::fileManagerKey(file.manager)},
                                     {"state", engine::actionFileStateWord(file.state)},
                                     {"text", engine::actionFileStateText(file.state)},
                                     {"file", file.file.string()}};
                if (file.otherHelper) {
                    event["otherHelper"] = file.otherHelper->string();
                }
                emit(event);
                continue;
            }
            std::cout << fmt::format("{:<11} {:<9} {}", row.name,
                                     engine::fileManagerTitle(file.manager),
                                     engine::actionFileStateText(file.state));
            if (file.otherHelper) {
                std::cout << " (" << file.otherHelper->string() << ")";
            }
            std::cout << "\n";
        }
    }
}

}  // namespace

int runActions(const ActionsRequest& request) {
    const bool json = request.json;
    try {
        engine::SettingsStore settings = engine::SettingsStore::standard();
        const std::filesystem::path helper =
            engine::Tools::bundledHelperDirectory() / std::string(engine::kActionHelperName);
        engine::ActionRegistrar registrar({engine::dataHome(), helper}, settings);
        if (json) {
            emit({{"event", "start"}, {"action", request.verb}});
        }
        engine::ActionChangeOutcome outcome;
        if (request.verb == "install") {
            outcome = registrar.install();
        } else if (request.verb == "repair") {
            outcome = registrar.repair();
            engine::endStaleActionProcesses(helper);
        } else if (request.verb == "remove") {
            outcome = registrar.remove();
        }
        for (const std::filesystem::path& file : outcome.foreign) {
            const std::string text = fmt::format(
                "{} was not made by Tessarin; it was left untouched.", file.string());
            json ? emit({{"event", "warning"}, {"text", text}})
                 : void(std::cerr << "tessarin: " << text << "\n");
        }
        for (const std::filesystem::path& file : outcome.failed) {
            const std::string text = fmt::format("Couldn't change {}.", file.string());
            json ? emit({{"event", "failed"}, {"step", "actions"}, {"text", text}})
                 : void(std::cerr << "tessarin: " << text << "\n");
        }
        const std::vector<engine::ActionStatus> rows = registrar.status();
        if (request.verb == "status") {
            printStatus(rows, json);
        }
        const engine::ActionHealth health = engine::actionHealth(rows);
        const int active = health.total - static_cast<int>(health.needsAttention.size());
        if (json) {
            emit({{"event", "done"},
                  {"active", active},
                  {"total", health.total},
                  {"written", outcome.written},
                  {"removed", outcome.removed}});
        } else {
            if (request.verb != "status") {
                std::cerr << fmt::format("Wrote {} and removed {} file(s).\n", outcome.written,
                                         outcome.removed);
            }
            std::cerr << fmt::format("{} of {} file-manager action(s) active.\n", active,
                                     health.total);
            if (request.verb != "status" && (outcome.written > 0 || outcome.removed > 0)) {
                std::cerr << engine::kActionRestartHint << "\n";
            }
        }
        return outcome.failed.empty() ? kExitSuccess : kExitFailure;
    } catch (const std::exception& error) {
        json ? emit({{"event", "failed"}, {"step", "actions"}, {"text", error.what()}})
             : void(std::cerr << "tessarin: " << error.what() << "\n");
        return kExitFailure;
    }
}

}  // namespace tessarin::cli
