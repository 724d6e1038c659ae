// What a frame export settles before its passes, and the folders it owns while it runs. Private
// to the frame extraction job's files.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "engine/clips/FastCut.hpp"
#include "engine/frames/FrameExtractionJob.hpp"
#include "engine/probe/MediaInfo.hpp"

namespace tessarin::engine {

struct FrameExtractionJob::Plan {
    std::filesystem::path destination;
    std::filesystem::path input;  // the link to the source in the working folder
    FastCut::SourceStamp stamp;
    MediaInfo info;
    double length = 0;
    double start = 0;
    double end = 0;
    double window = 0;
    bool trimmed = false;
    int64_t maxFrames = 0;
    bool av1 = false;
};

// Removed, with everything in them, on every way out of the job.
struct FrameExtractionJob::Workspace {
    std::optional<std::filesystem::path> workFolder;
    std::optional<std::filesystem::path> staging;

    Workspace() = default;
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;
    ~Workspace() {
        std::error_code ignored;
        if (staging) {
            std::filesystem::remove_all(*staging, ignored);
        }
        if (workFolder) {
            std::filesystem::remove_all(*workFolder, ignored);
        }
    }
};

namespace frames_internal {

// `text` with the work folder's link to the source replaced by the source's own name: the tools
// only ever see the link, the user knows the file.
[[nodiscard]] std::string withSourceName(std::string text, const std::filesystem::path& link,
                                         const std::filesystem::path& source);

}  // namespace frames_internal

}  // namespace tessarin::engine
