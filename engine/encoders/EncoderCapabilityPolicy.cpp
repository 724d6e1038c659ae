#include "engine/encoders/EncoderCapabilityPolicy.hpp"

#include <algorithm>
#include <iterator>

namespace tessarin::engine {

bool isHEVCFamily(VideoCodec codec) {
    return codec == VideoCodec::h265 || codec == VideoCodec::hevcVT;
}

bool isSoftwareHEVC(VideoCodec codec) {
    return codec == VideoCodec::h265;
}

bool isBaseline(VideoCodec codec) {
    return !isHEVCFamily(codec);
}

bool isBaseline(const OutputFormat& format) {
    const std::optional<VideoCodec> codec = format.videoCodec();
    return !codec || isBaseline(*codec);
}

bool EncoderCapabilityPolicy::allows(VideoCodec codec) const {
    return isBaseline(codec) || softwareHEVC != SoftwareHEVCSource::unavailable;
}

bool EncoderCapabilityPolicy::allows(const OutputFormat& format) const {
    const std::optional<VideoCodec> codec = format.videoCodec();
    return !codec || allows(*codec);
}

std::vector<Preset> filter(std::span<const Preset> presets, const EncoderCapabilityPolicy& policy) {
    std::vector<Preset> kept;
    std::copy_if(presets.begin(), presets.end(), std::back_inserter(kept),
                 [&](const Preset& preset) { return policy.allows(preset.options.format); });
    return kept;
}

}  // namespace tessarin::engine
