// Why a preset can't be offered on this machine, if it can't: the encoder policy refuses its
// codec, or it needs a hardware encoder that the start-up probe did not find.
#pragma once

#include <optional>
#include <string>

#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/encoders/HardwareEncoderProbe.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::engine {

// Nothing when the preset can run; otherwise the sentence shown in its place. Pure.
[[nodiscard]] std::optional<std::string> presetDisabledReason(
    const Preset& preset, const EncoderCapabilityPolicy& policy,
    const HardwareEncoderSupport& hardware);

}  // namespace tessarin::engine
