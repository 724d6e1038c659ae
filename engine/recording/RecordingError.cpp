#include "engine/recording/RecordingError.hpp"

#include <fmt/format.h>

#include <array>
#include <utility>

namespace tessarin::engine {

namespace {

using Case = RecordingError::Case;

struct Row {
    Case kind;
    std::string_view code;
    std::string_view sentence;  // "{}" stands for the name or the part's number
};

constexpr std::array<Row, 15> kRows = {{
    {Case::outputExists, "outputExists",
     "A file named \"{}\" already exists in the recording folder. The recording files have been "
     "kept. Move or rename the existing file before retrying."},
    {Case::unreadablePart, "unreadablePart",
     "Recording part {} could not be opened or verified. All recording parts have been kept. "
     "Choose Reveal recovery files to inspect them."},
    {Case::invalidArea, "invalidArea", "Choose an area at least 16 × 16 points inside one display."},
    {Case::noVideo, "noVideo",
     "The recording has no playable video. Any captured files have been kept for recovery."},
    {Case::incompatibleSegments, "incompatibleSegments",
     "The paused recording segments could not be joined. The original segments have been kept."},
    {Case::missingSegments, "missingSegments",
     "Part of this recording is missing. The remaining files have been kept. Restore the missing "
     "segment files to the recovery folder, then retry saving."},
    {Case::timedOut, "timedOut",
     "The system did not finish the recording operation in time. Any captured files have been "
     "kept."},
    {Case::missingMicrophone, "missingMicrophone",
     "The selected microphone is unavailable. Choose a connected microphone or turn it off."},
    {Case::sourceUnavailable, "sourceUnavailable",
     "The selected source is no longer available. Choose it again before recording."},
    {Case::unsupportedRecordingStorage, "unsupportedRecordingStorage",
     "This drive cannot keep unfinished recordings private. Choose a local Linux-formatted drive "
     "(ext4, btrfs, xfs) with ownership enabled, then try again."},
    {Case::lowDiskSpace, "lowDiskSpace",
     "The recording drive is nearly full. Free up space or choose another recording folder "
     "before recording again."},
    {Case::destinationUnavailable, "destinationUnavailable",
     "The recording folder is unavailable or its drive changed. Reconnect the drive and choose "
     "the recording folder again."},
    {Case::destinationCheckFailed, "destinationCheckFailed",
     "The recording folder could not be checked. Check the drive connection and folder access, "
     "then try again."},
    {Case::recordingInUse, "recordingInUse",
     "This recording is still in use by another Tessarin process. Stop or close that recorder "
     "before retrying."},
    {Case::unsafeRecoveryDiscard, "unsafeRecoveryDiscard",
     "This recovery folder could not be safely moved to Trash. Choose Reveal recovery files and "
     "inspect or discard it in the file manager."},
}};

constexpr bool rowsFollowCases() {
    for (std::size_t index = 0; index < kRows.size(); ++index) {
        if (static_cast<std::size_t>(kRows[index].kind) != index) {
            return false;
        }
    }
    return true;
}
static_assert(rowsFollowCases(), "one row per case, in the order of the cases");

const Row& rowOf(Case kind) {
    return kRows[static_cast<std::size_t>(kind)];
}

}  // namespace

std::string_view recordingErrorCode(Case kind) {
    return rowOf(kind).code;
}

RecordingError::RecordingError(Case kind) : RecordingError(kind, std::string(rowOf(kind).sentence)) {}

RecordingError::RecordingError(Case kind, std::string message)
    : kind(kind), message_(std::move(message)) {}

RecordingError RecordingError::outputExists(std::string name) {
    return {Case::outputExists, fmt::format(fmt::runtime(rowOf(Case::outputExists).sentence), name)};
}

RecordingError RecordingError::unreadablePart(int64_t index) {
    return {Case::unreadablePart,
            fmt::format(fmt::runtime(rowOf(Case::unreadablePart).sentence), index)};
}

std::string_view RecordingError::code() const {
    return rowOf(kind).code;
}

}  // namespace tessarin::engine
