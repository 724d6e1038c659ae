#include "engine/model/VideoCodec.hpp"

namespace tessarin::engine {

namespace {

struct CodecRow {
    VideoCodec codec;
    std::string_view raw;
    int quality;
};

constexpr std::array<CodecRow, 6> kCodecRows = {{
    {VideoCodec::h264, "libx264", 23},
    {VideoCodec::h265, "libx265", 28},
    {VideoCodec::av1, "libsvtav1", 32},
    {VideoCodec::vp9, "libvpx-vp9", 33},
    {VideoCodec::h264VT, "h264_videotoolbox", 50},
    {VideoCodec::hevcVT, "hevc_videotoolbox", 50},
}};

const CodecRow& row(VideoCodec codec) {
    return kCodecRows[static_cast<std::size_t>(codec)];
}

}  // namespace

std::string_view rawValue(VideoCodec codec) {
    return row(codec).raw;
}

std::optional<VideoCodec> videoCodecFromRawValue(std::string_view raw) {
    for (const CodecRow& candidate : kCodecRows) {
        if (candidate.raw == raw) {
            return candidate.codec;
        }
    }
    return std::nullopt;
}

int defaultQuality(VideoCodec codec) {
    return row(codec).quality;
}

bool isHardware(VideoCodec codec) {
    return codec == VideoCodec::h264VT || codec == VideoCodec::hevcVT;
}

}  // namespace tessarin::engine
