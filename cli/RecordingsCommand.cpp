// `tessarin recordings list|recover|discard`: the unfinished takes that a crash, a power cut or a
// full disk left in the recording root, shown, saved to their destination, or moved to the Trash.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/Commands.hpp"
#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/JobRunner.hpp"
#include "cli/ToolLookup.hpp"
#include "engine/model/JobFailure.hpp"
#include "engine/recording/RecordingPreferences.hpp"
#include "engine/recording/RecordingRecovery.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;
using engine::JobFailure;

// Where a take without a destination path of its own goes: the window's recording folder.
std::optional<fs::path> preferredDestination() {
    try {
        const engine::SettingsStore settings = engine::SettingsStore::standard();
        nlohmann::json stored = nlohmann::json::object();
        if (const auto text = settings.dataValue(engine::RecordingPreferences::kSettingsKey)) {
            stored = nlohmann::json::parse(*text, nullptr, false);
        }
        return engine::recordingDestination(engine::recordingPreferencesFromJson(stored));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::string startedText(const std::optional<int64_t>& seconds) {
    if (!seconds) {
        return {};
    }
    const auto time = std::chrono::system_clock::time_point(std::chrono::seconds(*seconds));
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(time)));
}

int listTakes(const std::vector<engine::UnfinishedTake>& takes, bool json) {
    if (takes.empty() && !json) {
        std::cerr << "No unfinished recordings.\n";
    }
    for (const engine::UnfinishedTake& take : takes) {
        if (json) {
            nlohmann::json event{{"event", "take"},
                                 {"id", take.id},
                                 {"folder", take.directory.string()},
                                 {"segments", take.segments},
                                 {"destination", take.destination.string()}};
            event["started"] = take.startedSeconds ? nlohmann::json(startedText(take.startedSeconds))
                                                   : nlohmann::json(nullptr);
            event["recoverableSeconds"] =
                take.recoverableSeconds ? nlohmann::json(*take.recoverableSeconds) : nullptr;
            std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                      << std::endl;
            continue;
        }
        std::cout << take.id << "  " << startedText(take.startedSeconds) << "  " << take.segments
                  << (take.segments == 1 ? " segment  " : " segments  ")
                  << fmt::format("{:.1f} s", take.recoverableSeconds.value_or(0)) << "  "
                  << take.destination.string() << "\n";
    }
    return kExitSuccess;
}

// One take's recovery as a unit of work: the errors become the job failures the sink shows.
Published recoverOne(const fs::path& folder, const std::optional<fs::path>& fallback,
                     const engine::RecordingWork& work, EventSink& sink, bool json) {
    try {
        const engine::RecoveredTake recovered = engine::recoverTake(folder, fallback, work);
        if (recovered.leftOver) {
            sink.warning("cleanup",
                         "The recovery folder could not be removed; it is tried again next time.");
        }
        if (!json) {
            std::cerr << recovered.summary << "\n";
        }
        return Published{recovered.published};
    } catch (const engine::RecordingError& error) {
        throw JobFailure::sentence("recover", error.message());
    } catch (const engine::TakeFolderInvalid&) {
        throw JobFailure::sentence("recover", "This folder is not an unfinished recording.");
    } catch (const std::system_error& error) {
        if (error.code().value() == ECANCELED) {
            throw JobFailure::cancelled("recover");
        }
        throw JobFailure("recover", error.code().value(), error.what());
    }
}

}  // namespace

int runRecordings(const RecordingsRequest& request) {
    Interruption interruption;  // first, so every later thread has the signals blocked
    fs::path root;
    try {
        root = engine::RecordingNamespace::recordingRoot();
    } catch (const std::exception& error) {
        std::cerr << "tessarin: " << error.what() << "\n";
        return kExitFailure;
    }
    std::optional<fs::path> takeFolder;
    if (!request.take.empty()) {
        takeFolder = engine::takeFolder(root, request.take);
        if (!takeFolder) {
            std::cerr << "tessarin: " << request.take
                      << " is not a recording id (see `tessarin recordings list`).\n";
            return kExitUsage;
        }
    }
    if (request.action == RecordingsRequest::Action::discard) {
        try {
            engine::discardTake(*takeFolder);
            std::cerr << "Moved " << takeFolder->filename().string() << " to the Trash.\n";
            return kExitSuccess;
        } catch (const engine::RecordingError& error) {
            std::cerr << "tessarin: " << error.message() << "\n";
        } catch (const engine::TakeFolderInvalid&) {
            std::cerr << "tessarin: " << request.take << " is not an unfinished recording.\n";
        } catch (const std::system_error& error) {
            std::cerr << "tessarin: " << request.take << ": " << error.what() << "\n";
        }
        return kExitFailure;
    }

    const std::optional<engine::Tools> tools = locateTools();
    if (!tools) {
        return kExitToolsMissing;
    }
    engine::RecordingWork work;
    work.tools = *tools;
    work.watchRunner = [&interruption](const std::shared_ptr<engine::ProcessRunner>& runner) {
        interruption.watch(runner);
    };
    work.isCancelled = [&interruption] { return interruption.interrupted(); };
    const std::optional<fs::path> fallback = preferredDestination();

    std::vector<engine::UnfinishedTake> takes;
    try {
        takes = engine::findUnfinishedTakes(root, fallback, &work);
    } catch (const std::system_error&) {
        return kExitCancelled;
    }
    if (request.action == RecordingsRequest::Action::list) {
        return listTakes(takes, request.json);
    }

    std::vector<fs::path> folders;
    if (takeFolder) {
        folders.push_back(*takeFolder);
    } else {
        for (const engine::UnfinishedTake& take : takes) {
            folders.push_back(take.directory);
        }
        if (folders.empty() && !request.json) {
            std::cerr << "No unfinished recordings.\n";
        }
    }
    EventSink sink(request.json);
    std::vector<WorkItem> items;
    for (const fs::path& folder : folders) {
        items.push_back({folder, "recover", [&, folder](const WorkCallbacks& callbacks) {
                             Published published = recoverOne(folder, fallback, work, sink,
                                                               request.json);
                             if (callbacks.onProgress) {
                                 callbacks.onProgress(1.0);
                             }
                             return published;
                         }});
    }
    return runWork(items, sink, interruption);
}

}  // namespace tessarin::cli
