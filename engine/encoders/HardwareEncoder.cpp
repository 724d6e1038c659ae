#include "engine/encoders/HardwareEncoder.hpp"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>

namespace tessarin::engine {

std::string_view displayName(HardwareEncoderKind kind) {
    switch (kind) {
        case HardwareEncoderKind::nvenc:
            return "NVENC";
        case HardwareEncoderKind::vaapi:
            return "VAAPI";
        case HardwareEncoderKind::qsv:
            return "QSV";
    }
    return {};
}

int hardwareQualityLevel(int quality) {
    const int clamped = std::clamp(quality, 1, 100);
    // round((clamped - 1) * 50 / 99) in integers: add half the divisor before dividing.
    return 51 - ((clamped - 1) * 50 + 49) / 99;
}

HardwareEncoder HardwareEncoder::make(HardwareEncoderKind kind, VideoCodec codec,
                                      std::string vaapiDevice) {
    if (codec != VideoCodec::h264VT && codec != VideoCodec::hevcVT) {
        std::abort();
    }
    const std::string prefix = codec == VideoCodec::h264VT ? "h264_" : "hevc_";
    HardwareEncoder encoder;
    encoder.kind = kind;
    encoder.codec = codec;
    switch (kind) {
        case HardwareEncoderKind::nvenc:
            encoder.name = prefix + "nvenc";
            break;
        case HardwareEncoderKind::vaapi:
            encoder.name = prefix + "vaapi";
            encoder.filterSuffix = "format=nv12,hwupload";
            encoder.device = std::move(vaapiDevice);
            break;
        case HardwareEncoderKind::qsv:
            encoder.name = prefix + "qsv";
            break;
    }
    return encoder;
}

std::vector<std::string> HardwareEncoder::arguments(int quality) const {
    const std::string level = std::to_string(hardwareQualityLevel(quality));
    std::vector<std::string> arguments;
    switch (kind) {
        case HardwareEncoderKind::nvenc:
            // Constant quality in NVENC is VBR with a zero bitrate target and a -cq level.
            arguments = {"-c:v", name,  "-preset", "p4", "-rc",      "vbr",
                         "-cq",  level, "-b:v",    "0",  "-pix_fmt", "yuv420p"};
            break;
        case HardwareEncoderKind::vaapi:
            arguments = {"-vaapi_device", device, "-c:v", name, "-rc_mode", "CQP", "-qp", level};
            break;
        case HardwareEncoderKind::qsv:
            arguments = {"-c:v", name, "-global_quality", level, "-pix_fmt", "nv12"};
            break;
    }
    if (codec == VideoCodec::hevcVT) {
        arguments.insert(arguments.end(), {"-tag:v", "hvc1"});
    }
    return arguments;
}

}  // namespace tessarin::engine
