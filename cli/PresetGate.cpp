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

engine::HardwareEncoderSupport PresetGate::hardwareFor(const engine::MediaTask& task) const {
    const engine::Preset* preset = nullptr;
    if (const auto* convert = std::get_if<engine::MediaTask::Convert>(&task.kind)) {
        preset = &convert->preset;
    } else if (const auto* join = std::get_if<engine::MediaTask::Join>(&task.kind)) {
        preset = &join->preset;
    }
    const auto codec = preset ? preset->options.format.videoCodec() : std::nullopt;
    if (!codec || !engine::isHardware(*codec)) {
        return {};
    }
    return hardware();
}

}  // namespace tessarin::cli
