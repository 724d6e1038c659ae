// `tessarin transcribe models`: the roster of transcription models with what the service's list
// says about each.
#include <fmt/format.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/ProgressLine.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/TranscriptionRoster.hpp"

namespace tessarin::cli {

namespace {

using engine::TranscriptionError;

constexpr const char* kKeyVariable = "OPENROUTER_API_KEY";

void emit(const nlohmann::json& event) {
    std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

// Reports a failure of the service in one sentence; the exit status for it.
int reportFailure(bool json, const std::string& step, const TranscriptionError& error) {
    if (error.code() == TranscriptionError::Code::cancelled) {
        if (json) {
            emit({{"event", "cancelled"}});
        } else {
            std::cerr << "tessarin: cancelled\n";
        }
        return kExitCancelled;
    }
    if (json) {
        emit({{"event", "failed"},
              {"step", step},
              {"code", std::string(engine::codeName(error.code()))},
              {"text", error.text()}});
    } else {
        std::cerr << "tessarin: " << error.text() << "\n";
    }
    return kExitFailure;
}

void warn(bool json, const std::string& code, const std::string& sentence) {
    if (json) {
        emit({{"event", "warning"}, {"text", code}, {"message", sentence}});
    } else {
        std::cerr << "tessarin: warning: " << sentence << "\n";
    }
}

std::string activeText(const engine::ActiveModelResolution& resolution) {
    using Kind = engine::ActiveModelResolution::Kind;
    switch (resolution.kind) {
        case Kind::active: return "Active model: " + resolution.id;
        case Kind::fellBack:
            return fmt::format("Active model: {} (instead of {}, which can't be used now)",
                               resolution.id, resolution.from);
        case Kind::none: break;
    }
    return std::string(engine::ActiveModelResolution::kNoneText);
}

}  // namespace

int runTranscribeModels(const TranscribeModelsRequest& request) {
    Interruption interruption;
    const char* key = std::getenv(kKeyVariable);
    if (key == nullptr || *key == '\0') {
        const std::string sentence = fmt::format(
            "No OpenRouter API key is set. Set {} to your key to list the transcription models.",
            kKeyVariable);
        if (request.json) {
            emit({{"event", "failed"}, {"step", "key"}, {"code", "keyMissing"}, {"text", sentence}});
        } else {
            std::cerr << "tessarin: " << sentence << "\n";
        }
        return kExitUsage;
    }

    auto control = std::make_shared<engine::TranscriptionControl>();
    interruption.watch(control);
    const engine::OpenRouterClient client(
        std::make_shared<engine::CurlOpenRouterTransport>(engine::OpenRouterConfig::endpoint()));
    engine::SettingsStore settings = engine::SettingsStore::standard();
    engine::OpenRouterCatalog catalog(client, settings);

    if (request.json) {
        emit({{"event", "start"}, {"action", "transcribe-models"}});
    }
    std::unique_ptr<ProgressLine> bar;
    if (!request.json) {
        bar = std::make_unique<ProgressLine>("OpenRouter models");
        bar->update(std::nullopt);
    }
    std::optional<engine::CatalogSnapshot> snapshot;
    try {
        (void)client.keyInfo(key, control.get());
        snapshot = catalog.snapshot(request.refresh, control.get());
    } catch (const TranscriptionError& error) {
        if (bar) {
            bar->finish();
        }
        const bool keyRefused = error.code() == TranscriptionError::Code::unauthorized ||
                                error.code() == TranscriptionError::Code::insufficientCredit;
        snapshot = keyRefused || error.code() == TranscriptionError::Code::cancelled
                       ? std::nullopt
                       : catalog.cached();
        if (!snapshot) {
            return reportFailure(request.json, keyRefused ? "key" : "catalog", error);
        }
        warn(request.json, std::string(engine::codeName(error.code())),
             error.text() + " The model list shown is the last one fetched.");
    }
    if (bar) {
        bar->finish();
    }

    const engine::TranscriptionRoster roster(settings);
    const engine::ActiveModelResolution active = roster.resolveActive(snapshot);
    for (const engine::TranscriptionRosterEntry& entry : roster.roster()) {
        const engine::CatalogEntry* listed = snapshot->find(entry.id);
        const std::optional<engine::TranscriptionRoute> route =
            listed != nullptr ? std::optional(engine::route(*listed)) : std::nullopt;
        const std::optional<engine::Pricing> pricing =
            listed != nullptr ? engine::pricingOf(*listed) : std::nullopt;
        const std::string routeName = route ? std::string(engine::rawValue(*route)) : "unlisted";
        const std::string unit = pricing ? std::string(engine::rawValue(pricing->unit)) : "none";
        const bool isActive = active.kind != engine::ActiveModelResolution::Kind::none &&
                              active.id == entry.id;
        std::string name = listed != nullptr && listed->name ? *listed->name : "";
        if (entry.id == engine::kDefaultModel) {
            name = std::string(engine::kDefaultModelName);
        }
        if (request.json) {
            nlohmann::json event{
                {"event", "model"},
                {"id", entry.id},
                {"route", routeName},
                {"priceUnit", unit},
                {"price", listed != nullptr ? nlohmann::json(engine::pricingText(pricing))
                                            : nlohmann::json()},
                {"enabled", entry.enabled},
                {"origin", entry.origin == engine::TranscriptionRosterOrigin::seeded ? "seeded"
                                                                                     : "userAdded"},
                {"active", isActive},
                {"description", engine::routeDescription(route)}};
            if (!name.empty()) {
                event["name"] = name;
            }
            emit(event);
        } else {
            std::string line = fmt::format("{:<36} {:<11} {:<10} {}", entry.id, routeName, unit,
                                           entry.enabled ? "enabled" : "disabled");
            if (isActive) {
                line += " (active)";
            }
            if (listed != nullptr) {
                line += "  " + engine::pricingText(pricing);
            }
            std::cout << line << "\n";
        }
    }
    if (request.json) {
        emit({{"event", "done"},
              {"activeModel", active.kind == engine::ActiveModelResolution::Kind::none
                                  ? nlohmann::json()
                                  : nlohmann::json(active.id)},
              {"catalogFetchedAt", snapshot->fetchedAt}});
    } else {
        std::cerr << activeText(active) << "\n";
    }
    return kExitSuccess;
}

}  // namespace tessarin::cli
