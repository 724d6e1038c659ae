// A small picture of a video for its queue row: one frame near the start, scaled to a width,
// as PNG bytes from one bounded ffmpeg run.
//
//   ProcessRunner runner;
//   std::optional<std::string> png = Thumbnail::render(source, tools, 1.0, 128, runner);
//
// Blocking; for a background thread.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

class Thumbnail {
public:
    static constexpr double kTimeoutSeconds = 10;
    static constexpr std::size_t kOutputLimit = 1'048'576;

    // ffmpeg's arguments: the first keyframe at or after `at` seconds (only keyframes are
    // decoded, so a 4K source costs one picture), scaled to `width` pixels wide.
    [[nodiscard]] static std::vector<std::string> arguments(const std::filesystem::path& source,
                                                            double at, int width);

    // The PNG, or nothing when the source has no picture there, the run failed, timed out or
    // was cancelled on `runner` (fresh; any thread may cancel it). Never throws but bad_alloc.
    [[nodiscard]] static std::optional<std::string> render(const std::filesystem::path& source,
                                                           const Tools& tools, double at, int width,
                                                           ProcessRunner& runner);
};

}  // namespace tessarin::engine
