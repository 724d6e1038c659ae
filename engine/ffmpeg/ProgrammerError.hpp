// Stops the process on a misuse that the layers above are required to prevent.
#pragma once

#include <string_view>

namespace tessarin::engine::ffmpeg_internal {

// Prints "tessarin: programmer error: " and the message to standard error, then aborts.
[[noreturn]] void programmerError(std::string_view message);

}  // namespace tessarin::engine::ffmpeg_internal
