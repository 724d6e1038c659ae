#include "cli/PresetGate.hpp"

#include "engine/encoders/EncoderInventory.hpp"
#include "engine/encoders/PresetAvailability.hpp"

namespace tessarin::cli {

PresetGate::PresetGate(engine::Tools tools) : tools_(std::move(tools)) {
    policy_.softwareHEVC =
        engine::bundledSoftwareHEVCSource(engine::EncoderInventory::shared(), tools_.ffmpeg);
}

const engine::HardwareEncoderSupport& PresetGate::hardware() const {
    if (!hardware_) {
        hardware_ = engine::HardwareEncoderProbe{}.probe(tools_.ffmpeg);
    }
    return *hardware_;
}

std::optional<std::string> PresetGate::disabledReason(const engine::Preset& preset) const {
    const auto codec = preset.options.format.videoCodec();
    // Software presets never need the hardware test encodes.
    static const engine::HardwareEncoderSupport kNoHardwareAsked;
    const bool needsHardware = codec && engine::isHardware(*codec);
    return engine::presetDisabledReason(preset, policy_,
                                        needsHardware ? hardware() : kNoHardwareAsked);
}

std::optional<engine::HardwareEncoderBlock> PresetGate::hardwareBlock(
    const engine::Preset& preset) const {
    const auto codec = preset.options.format.videoCodec();
    if (!codec || !engine::isHardware(*codec)) {
        return std::nullopt;
    }
    const std::optional<engine::HardwareEncoder> encoder = hardware().encoder(*codec);
    if (!encoder) {
        return std::nullopt;
    }
    const int quality = preset.options.crf.value_or(engine::defaultQuality(*codec));
    return engine::HardwareEncoderBlock{encoder->arguments(quality), encoder->filterSuffix};
}

}  // namespace tessarin::cli
