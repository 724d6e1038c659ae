// `tessarin updates check|auto`: whether a newer release is listed in the release feed, and the
// setting "Automatically check for updates" that the window follows at start.
#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "engine/desktop/UpdateCheck.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::cli {

namespace {

void emit(const nlohmann::json& event) {
    std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
              << std::endl;
}

}  // namespace

int runUpdates(const UpdatesRequest& request) {
    const bool json = request.json;
    if (request.verb == "auto") {
        try {
            engine::SettingsStore settings = engine::SettingsStore::standard();
            if (request.automatic) {
                settings.setBool(engine::kAutomaticUpdateChecksKey, *request.automatic == "on");
            }
            const bool on = settings.boolValue(engine::kAutomaticUpdateChecksKey).value_or(false);
            json ? emit({{"event", "done"}, {"automaticChecks", on}})
                 : void(std::cout << "Automatically check for updates: " << (on ? "on" : "off")
                                  << "\n");
            return kExitSuccess;
        } catch (const std::exception& error) {
            std::cerr << "tessarin: " << error.what() << "\n";
            return kExitFailure;
        }
    }
    Interruption interruption;
    const std::function<bool()> cancelled = [&interruption] { return interruption.interrupted(); };
    if (json) {
        emit({{"event", "start"}, {"action", "updates"}});
    }
    try {
        const engine::UpdateCheckResult result =
            engine::checkForUpdates(TESSARIN_VERSION, engine::updateFeedEndpoint(), cancelled);
        const std::string text = engine::updateResultText(result);
        if (json) {
            nlohmann::json done{{"event", "done"},
                                {"current", result.currentVersion},
                                {"text", text},
                                {"available", result.newer.has_value()}};
            if (result.newer) {
                done["version"] = result.newer->version;
                done["url"] = result.newer->url ? nlohmann::json(*result.newer->url) : nullptr;
                done["description"] = result.newer->description;
            }
            emit(done);
        } else {
            std::cout << text << "\n";
            if (result.newer && result.newer->url) {
                std::cout << *result.newer->url << "\n";
            }
        }
        return kExitSuccess;
    } catch (const engine::UpdateCheckError& error) {
        if (interruption.interrupted()) {
            json ? emit({{"event", "cancelled"}}) : void(std::cerr << "Cancelled.\n");
            return kExitCancelled;
        }
        json ? emit({{"event", "failed"}, {"step", "updates"}, {"text", error.what()}})
             : void(std::cerr << "tessarin: " << error.what() << "\n");
        return kExitFailure;
    }
}

}  // namespace tessarin::cli
