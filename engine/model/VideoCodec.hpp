// The video encoders a preset can name, keyed by ffmpeg's encoder name.
#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace tessarin::engine {

enum class VideoCodec { h264, h265, av1, vp9, h264VT, hevcVT };

inline constexpr std::array<VideoCodec, 6> kAllVideoCodecs = {
    VideoCodec::h264, VideoCodec::h265,   VideoCodec::av1,
    VideoCodec::vp9,  VideoCodec::h264VT, VideoCodec::hevcVT,
};

// The ffmpeg encoder name ("libx264"...). The two hardware cases keep their historical raw
// values; which Linux encoder actually runs for them is decided by the encoder gate.
[[nodiscard]] std::string_view rawValue(VideoCodec codec);

// The codec whose raw value this is, or nothing for an unknown name.
[[nodiscard]] std::optional<VideoCodec> videoCodecFromRawValue(std::string_view raw);

// Quality used when a preset carries no explicit value: a constant rate factor for the
// software encoders, the hardware encoders' 1-100 quality for the two hardware cases.
[[nodiscard]] int defaultQuality(VideoCodec codec);

[[nodiscard]] bool isHardware(VideoCodec codec);

}  // namespace tessarin::engine
