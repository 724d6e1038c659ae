// Which video codecs this build may offer. The HEVC family needs a software or hardware
// H.265 encoder whose use is allowed; everything else (the baseline set) is always offered.
// Plain values and pure functions: safe from any thread, nothing throws.
#pragma once

#include <span>
#include <vector>

#include "engine/model/Preset.hpp"
#include "engine/model/VideoCodec.hpp"

namespace tessarin::engine {

// Where a software H.265 encoder comes from: nowhere, the helper folder's own ffmpeg, or a
// user-chosen toolchain that passed `ExternalSoftwareHEVCValidator`.
enum class SoftwareHEVCSource { unavailable, privateBundled, external };

// `h265` and `hevcVT`.
[[nodiscard]] bool isHEVCFamily(VideoCodec codec);
// `h265` alone: the codec that runs through a software HEVC toolchain.
[[nodiscard]] bool isSoftwareHEVC(VideoCodec codec);
// `h264`, `av1`, `vp9`, `h264VT`: every codec outside the HEVC family.
[[nodiscard]] bool isBaseline(VideoCodec codec);
// GIF is baseline; an MP4 or WebM format is baseline when its codec is.
[[nodiscard]] bool isBaseline(const OutputFormat& format);

struct EncoderCapabilityPolicy {
    SoftwareHEVCSource softwareHEVC = SoftwareHEVCSource::unavailable;

    // Baseline codecs always; the HEVC family whenever some source exists. For `external`
    // the job still revalidates the toolchain before it runs `h265`.
    [[nodiscard]] bool allows(VideoCodec codec) const;
    [[nodiscard]] bool allows(const OutputFormat& format) const;

    bool operator==(const EncoderCapabilityPolicy&) const = default;
};

// The presets whose format the policy allows, in list order.
[[nodiscard]] std::vector<Preset> filter(std::span<const Preset> presets,
                                         const EncoderCapabilityPolicy& policy);

// The job's refusal for a codec the policy does not allow.
inline constexpr const char* kHEVCUnavailableSentence =
    "H.265/HEVC is unavailable in this build. Choose H.264, AV1, VP9, or GIF.";

}  // namespace tessarin::engine
