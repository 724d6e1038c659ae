// Which presets this machine's tools can run, and the hardware encoder a hardware preset uses.
#pragma once

#include <optional>
#include <string>

#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/encoders/HardwareEncoderProbe.hpp"
#include "engine/model/MediaTask.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::cli {

// Asks the helper folder's ffmpeg for its encoders only when an H.265 preset is asked about
// (every other codec is always allowed), and runs the hardware test encodes only when a
// hardware preset is. Each at most once. Not thread-safe; one per command.
class PresetGate {
public:
    explicit PresetGate(engine::Tools tools);

    // Nothing when the preset can run here, otherwise the sentence that says why not.
    [[nodiscard]] std::optional<std::string> disabledReason(const engine::Preset& preset) const;

    // The policy for the job's encoder gate of `task`.
    [[nodiscard]] engine::EncoderCapabilityPolicy policyFor(const engine::MediaTask& task) const;

    // The hardware encoders for a task: probed once when the task needs one, empty otherwise.
    [[nodiscard]] engine::HardwareEncoderSupport hardwareFor(const engine::MediaTask& task) const;

private:
    const engine::HardwareEncoderSupport& hardware() const;
    // The policy, complete for `codec`: the encoder list is read for the HEVC family only.
    engine::EncoderCapabilityPolicy policyFor(std::optional<engine::VideoCodec> codec) const;

    engine::Tools tools_;
    mutable std::optional<engine::SoftwareHEVCSource> softwareHEVC_;
    mutable std::optional<engine::HardwareEncoderSupport> hardware_;
};

}  // namespace tessarin::cli
