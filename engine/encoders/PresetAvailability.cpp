#include "engine/encoders/PresetAvailability.hpp"

namespace tessarin::engine {

std::optional<std::string> presetDisabledReason(const Preset& preset,
                                                const EncoderCapabilityPolicy& policy,
                                                const HardwareEncoderSupport& hardware) {
    const std::optional<VideoCodec> codec = preset.options.format.videoCodec();
    if (!codec) {
        return std::nullopt;
    }
    if (!policy.allows(*codec)) {
        return kHEVCUnavailableSentence;
    }
    return hardware.disabledReason(*codec);
}

}  // namespace tessarin::engine
