// The formats a stored preset can name, and the facts each one carries: the engine format it
// becomes, its file extension, its quality scale and whether the encoder speed preset applies.
// Plain values and pure functions: safe from any thread, nothing throws.
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "engine/model/Preset.hpp"

namespace tessarin::presets {

enum class PresetFormat { gif, h264, h265, av1, vp9, h264VT, hevcVT };

inline constexpr std::array<PresetFormat, 7> kAllPresetFormats = {
    PresetFormat::gif, PresetFormat::h264,   PresetFormat::h265,   PresetFormat::av1,
    PresetFormat::vp9, PresetFormat::h264VT, PresetFormat::hevcVT,
};

// Inclusive bounds of the quality a format accepts.
struct QualityRange {
    int low = 0;
    int high = 0;

    [[nodiscard]] bool contains(int quality) const { return quality >= low && quality <= high; }
    [[nodiscard]] int clamp(int quality) const;
    bool operator==(const QualityRange&) const = default;
};

// The stored name ("h264VT"...), which is also the format's id.
[[nodiscard]] std::string_view rawValue(PresetFormat format);
// The format with this stored name, or nothing for an unknown one.
[[nodiscard]] std::optional<PresetFormat> presetFormatFromRawValue(std::string_view raw);

// The name used in validation sentences ("H.264 hardware").
[[nodiscard]] std::string_view label(PresetFormat format);
[[nodiscard]] engine::OutputFormat outputFormat(PresetFormat format);
// "gif", "mp4" or "webm", without a leading point.
[[nodiscard]] std::string_view fileExtension(PresetFormat format);
// A constant rate factor for the software encoders, the hardware encoders' 1-100 quality for
// the two hardware formats; 0 for GIF, whose quality plays no part in the output.
[[nodiscard]] int defaultQuality(PresetFormat format);
[[nodiscard]] QualityRange qualityRange(PresetFormat format);
// Whether `speedPreset` reaches the encoder (libx264 and libx265 only).
[[nodiscard]] bool speedPresetApplies(PresetFormat format);

// The format of an engine format: mp4(c) gives the format of codec c, any WebM gives `vp9`.
[[nodiscard]] PresetFormat presetFormat(const engine::OutputFormat& format);

}  // namespace tessarin::presets
