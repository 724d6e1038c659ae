// The encoder arguments of the two hardware presets, which differ per machine.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/model/VideoCodec.hpp"

namespace tessarin::engine {

// What the command builder puts in place of a hardware encoder: `arguments` name the encoder
// and its quality ("-c:v", "h264_vaapi", "-qp", "24"...), and `filterSuffix`, when present, is
// appended to the end of the video filter chain (plain or after a join), for encoders that take
// frames in device memory ("format=nv12,hwupload"). With a filterSuffix the builder adds no
// "-pix_fmt": the suffix fixes the frame format, and a software pixel format after an upload
// would not negotiate.
struct HardwareEncoderBlock {
    std::vector<std::string> arguments;
    std::optional<std::string> filterSuffix;

    bool operator==(const HardwareEncoderBlock&) const = default;
};

// The NVENC block for `h264VT` (h264_nvenc) or `hevcVT` (hevc_nvenc). `quality` is the presets'
// 1-100 hardware quality, higher meaning better; values outside are clamped. It maps linearly
// onto NVENC's constant-quality target -cq 51..1 (1 -> 51, 100 -> 1, the default 50 -> 26), in
// VBR mode with no bit-rate ceiling ("-b:v" "0"), since NVENC's default 2 Mb/s target would
// otherwise cap the quality. Any other codec is a programmer error and stops the process.
[[nodiscard]] HardwareEncoderBlock defaultHardwareEncoderBlock(VideoCodec codec, int quality);

}  // namespace tessarin::engine
