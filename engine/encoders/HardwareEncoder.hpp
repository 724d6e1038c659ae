// A hardware video encoder this machine can use for the two hardware codecs (`h264VT`,
// `hevcVT`), and the ffmpeg arguments that select it.
//
// Quality. Presets carry a hardware quality from 1 to 100, higher is better. Every encoder
// here takes a constant-quality level from 1 to 51, lower is better (NVENC `-cq`, VAAPI
// `-qp`, QSV `-global_quality`, which selects ICQ). The mapping is linear over the whole
// range: level = 51 - round((quality - 1) * 50 / 99), so 1 -> 51, 50 -> 26, 100 -> 1.
// Values outside 1-100 are clamped first. Level 0 is never produced: NVENC reads it as "auto".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/model/VideoCodec.hpp"

namespace tessarin::engine {

enum class HardwareEncoderKind { nvenc, vaapi, qsv };

// The order in which they are tried.
inline constexpr HardwareEncoderKind kHardwareEncoderKinds[] = {
    HardwareEncoderKind::nvenc, HardwareEncoderKind::vaapi, HardwareEncoderKind::qsv};

inline constexpr const char* kDefaultVAAPIDevice = "/dev/dri/renderD128";

// "NVENC", "VAAPI", "QSV".
[[nodiscard]] std::string_view displayName(HardwareEncoderKind kind);

// The 1-51 level (lower is better) for a 1-100 quality (higher is better).
[[nodiscard]] int hardwareQualityLevel(int quality);

struct HardwareEncoder {
    std::string name;  // ffmpeg's encoder, e.g. "hevc_vaapi"
    HardwareEncoderKind kind = HardwareEncoderKind::nvenc;
    VideoCodec codec = VideoCodec::h264VT;  // h264VT or hevcVT
    // Appended to the end of the video filter chain; for VAAPI the frames are uploaded to
    // the device there. An encode without other filters still needs it.
    std::optional<std::string> filterSuffix;
    std::string device;  // the VAAPI render node; empty for the others

    // The encoder for `codec` (h264VT or hevcVT) of this kind. `vaapiDevice` is used only by
    // VAAPI. Any other codec is a programmer error.
    [[nodiscard]] static HardwareEncoder make(HardwareEncoderKind kind, VideoCodec codec,
                                              std::string vaapiDevice = kDefaultVAAPIDevice);

    // The arguments that stand where a software encoder's "-c:v ..." block stands: codec,
    // rate control at `quality` (1-100), pixel format, and "-tag:v hvc1" for HEVC. VAAPI's
    // "-vaapi_device" is a global option, which ffmpeg accepts at any position.
    [[nodiscard]] std::vector<std::string> arguments(int quality) const;

    bool operator==(const HardwareEncoder&) const = default;
};

}  // namespace tessarin::engine
