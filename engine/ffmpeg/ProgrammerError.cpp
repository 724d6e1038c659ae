#include "engine/ffmpeg/ProgrammerError.hpp"

#include <cstdio>
#include <cstdlib>

namespace tessarin::engine::ffmpeg_internal {

void programmerError(std::string_view message) {
    std::fprintf(stderr, "tessarin: programmer error: %.*s\n", static_cast<int>(message.size()),
                 message.data());
    std::fflush(stderr);
    std::abort();
}

}  // namespace tessarin::engine::ffmpeg_internal
