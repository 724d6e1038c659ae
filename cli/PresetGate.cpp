#include "cli/PresetGate.hpp"

#include "engine/encoders/EncoderInventory.hpp"
#include "engine/encoders/PresetAvailability.hpp"

namespace tessarin::cli {

namespace {

const engine::Preset* presetOf(const engine::MediaTask& task) {
    if (const auto* convert = std::get_if<engine::MediaTask::Convert>(&task.kind)) {
        return &convert->preset;
    }
    if (const auto* join = std::get_if<engine::MediaTask::Join>(&task.kind)) {
        return &join->preset;
    }
    return nullptr;
}

std::optional<engine::VideoCodec> codecOf(const engine::MediaTask& task) {
    const engine::Preset* preset = presetOf(task);
    return preset ? preset->options.format.videoCodec() : std::nullopt;
}

}  // namespace

PresetGate::PresetGate(engine::Tools tools) : tools_(std::move(tools)) {}

engine::EncoderCapabilityPolicy PresetGate::policyFor(
    std::optional<engine::VideoCodec> codec) const {
    engine::EncoderCapabilityPolicy policy;
    if (codec && engine::isHEVCFamily(*codec)) {
        if (!softwareHEVC_) {
            softwareHEVC_ = engine::bundledSoftwareHEVCSource(engine::EncoderInventory::shared(),
                                                              tools_.ffmpeg);
        }
        policy.softwareHEVC = *softwareHEVC_;
    }
    return policy;
}

engine::EncoderCapabilityPolicy PresetGate::policyFor(const engine::MediaTask& task) const {
    return policyFor(codecOf(task));
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
    return engine::presetDisabledReason(preset, policyFor(codec),
                                        needsHardware ? hardware() : kNoHardwareAsked);
}

engine::HardwareEncoderSupport PresetGate::hardwareFor(const engine::MediaTask& task) const {
    const auto codec = codecOf(task);
    if (!codec || !engine::isHardware(*codec)) {
        return {};
    }
    return hardware();
}

}  // namespace tessarin::cli
