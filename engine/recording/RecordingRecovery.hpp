// Unfinished takes found in the recording root at start: listing them with what can be saved,
// recovering one (finalising it with its own manifest), or discarding one to the Trash. A folder
// that is not a take, not private, reached through a link, or still locked by a live recorder is
// passed over (with a log line), never touched.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "engine/recording/RecordingFiles.hpp"

namespace tessarin::engine {

struct UnfinishedTake {
    std::string id;  // the UUID of "Unfinished Recording <UUID>"
    std::filesystem::path directory;
    std::optional<int64_t> startedSeconds;  // Unix time the take's folder was made
    int64_t segments = 0;                   // segment files present
    std::optional<double> recoverableSeconds;  // readable video in them, when measured
    std::filesystem::path destination;         // where recovery publishes
};

// The unfinished takes in `root`, sorted by start (oldest first), then id. With `work` each
// segment's readable length is measured with ffprobe. A missing root gives none. Never throws
// except std::system_error(ECANCELED) from `work`.
[[nodiscard]] std::vector<UnfinishedTake> findUnfinishedTakes(
    const std::filesystem::path& root,
    const std::optional<std::filesystem::path>& fallbackDestinationFolder,
    const RecordingWork* work);

// The take folder in `root` for `take`: an id ("Unfinished Recording " is added) or a folder
// name. Nothing when it names anything else.
[[nodiscard]] std::optional<std::filesystem::path> takeFolder(const std::filesystem::path& root,
                                                              const std::string& take);

struct RecoveredTake {
    std::filesystem::path published;
    int64_t parts = 0;
    std::optional<std::filesystem::path> leftOver;
    std::string summary;  // "Recovered recording from {n} saved parts." or "Recovered unfinished recording."
};

// Takes the lease, loads the manifest and finalises. Throws RecordingError, TakeFolderInvalid
// or std::system_error, as RecordingFiles::load and finalize do.
[[nodiscard]] RecoveredTake recoverTake(
    const std::filesystem::path& directory,
    const std::optional<std::filesystem::path>& fallbackDestinationFolder,
    const RecordingWork& work);

// Takes the lease, checks the folder and moves it to the Trash. Throws RecordingError
// (recordingInUse, unsafeRecoveryDiscard) or TakeFolderInvalid for a folder that is no take.
void discardTake(const std::filesystem::path& directory);

// The message after recovering a take of `parts` segments.
[[nodiscard]] std::string recoverySummary(int64_t parts);

}  // namespace tessarin::engine
