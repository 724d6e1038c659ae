// Shared by the recording tests: a private recording root and destination in a temporary folder,
// fragmented-MP4 segments made by ffmpeg the way capture writes them, and takes put in place.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "engine/recording/RecordingFiles.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::test {

// A two-second H.264 + AAC segment, 160x120 at 30 fps with a keyframe each second, written as
// fragmented MP4 of one-second fragments. Cached per build tree.
[[nodiscard]] std::filesystem::path fragmentedSegment();

// A recording root ("…/tessarin/Tessarin Recording Recovery") and a destination folder, both
// inside one temporary folder.
struct RecordingPlace {
    TempDir temp;
    std::filesystem::path root = temp / "data/tessarin/Tessarin Recording Recovery";
    std::filesystem::path destination = temp / "Videos";

    RecordingPlace();
};

// A take made by RecordingFiles::create with `segments` copies of fragmentedSegment() written
// through nextSegmentURL(); its lease is let go, as after a crash.
[[nodiscard]] engine::RecordingFiles makeTake(const RecordingPlace& place, int segments,
                                              const std::string& filename = "take.mp4");

// The entries of `folder`, sorted, with their sizes ("name:size"), for "nothing changed" checks.
[[nodiscard]] std::string folderSnapshot(const std::filesystem::path& folder);

// Video seconds that ffprobe reads from `file`: first video packet to the end of the last.
[[nodiscard]] double videoSeconds(const std::filesystem::path& file);

}  // namespace tessarin::test
