// Where the command-line tool takes ffmpeg, ffprobe and gifsicle from.
#pragma once

#include <optional>

#include "engine/process/Tools.hpp"

namespace tessarin::cli {

// CONVERTER_TOOLS_DIR when it holds all three tools, otherwise the helper folder beside the
// program. On failure prints the search report to stderr and returns nothing.
[[nodiscard]] std::optional<engine::Tools> locateTools();

}  // namespace tessarin::cli
