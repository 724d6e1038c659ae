#include "engine/ffmpeg/HardwareEncoderBlock.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "engine/ffmpeg/ProgrammerError.hpp"

namespace tessarin::engine {

namespace {

// NVENC's -cq runs 1 (best) to 51 (worst); 0 would mean "automatic", so it is never produced.
int nvencConstantQuality(int quality) {
    const int clamped = std::clamp(quality, 1, 100);
    return 51 - static_cast<int>(std::lround((clamped - 1) * 50.0 / 99.0));
}

}  // namespace

HardwareEncoderBlock defaultHardwareEncoderBlock(VideoCodec codec, int quality) {
    std::string encoder;
    switch (codec) {
        case VideoCodec::h264VT:
            encoder = "h264_nvenc";
            break;
        case VideoCodec::hevcVT:
            encoder = "hevc_nvenc";
            break;
        default:
            ffmpeg_internal::programmerError(
                fmt::format("no hardware encoder block for {}", rawValue(codec)));
    }
    return HardwareEncoderBlock{{"-c:v", encoder, "-rc", "vbr", "-cq",
                                 fmt::format("{}", nvencConstantQuality(quality)), "-b:v", "0"},
                                std::nullopt};
}

}  // namespace tessarin::engine
