// What the timed benchmark programs share: the tools, a private folder, quiet tool runs and the
// median of a series.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "engine/process/Tools.hpp"

namespace tessarin::bench {

// CONVERTER_TOOLS_DIR's tools, or the build's helper folder beside the executable; nothing
// (after saying so on standard error) when neither holds them.
[[nodiscard]] std::optional<engine::Tools> locateTools();

// A new private folder under /tmp, or nothing.
[[nodiscard]] std::optional<std::filesystem::path> makeFolder(const std::string& prefix);

// Runs `executable`; false, after printing its error tail, unless it ended with status 0.
bool runQuietly(const std::filesystem::path& executable, const std::vector<std::string>& arguments);

// ffmpeg's arguments for a lavfi test clip of `seconds` at `size`: the moving test pattern and a
// tone, H.264 (ultrafast, `extra` added) with AAC, into `output`.
[[nodiscard]] std::vector<std::string> testClipArguments(
    const std::filesystem::path& output, const std::string& size, int seconds,
    const std::vector<std::string>& extra = {});

[[nodiscard]] double median(std::vector<double> values);

}  // namespace tessarin::bench
