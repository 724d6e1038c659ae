// The editable, stored form of one preset: what a user changes when editing a built-in preset or
// defining a custom one, and what is kept as JSON in the settings. Jobs never see it; it becomes
// engine::ConversionOptions first.
//
// Stored data is repaired, never refused as a whole: decoding gives every unreadable field its
// fallback (noting the key in a DecodeRepairLog), and `sanitized` clamps values of the right
// type but out of range. A plain value; every function is pure and safe from any thread.
#pragma once

#include <array>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "engine/model/Preset.hpp"
#include "presets/DecodeRepairLog.hpp"
#include "presets/PresetFormat.hpp"

namespace tessarin::presets {

// Thrown when a value meant to be a stored record is not a JSON object at all.
class PresetDecodeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline constexpr std::array<std::string_view, 9> kSpeedPresets = {
    "ultrafast", "superfast", "veryfast", "faster", "fast", "medium", "slow", "slower", "veryslow",
};
inline constexpr std::array<std::string_view, 4> kDithers = {
    "sierra2_4a",
    "bayer",
    "floyd_steinberg",
    "none",
};

struct PresetParameters {
    // The p... modes are fixed heights; fitWidth and fitHeight use `scaleValue`.
    enum class ScaleMode { original, half, third, p360, p480, p720, p1080, fitWidth, fitHeight };
    enum class LossyMode { off, defaultLevel, level };

    // The member defaults are the decoding fallbacks. The quality fallback is H.264's because a
    // decoder does not know the format; `sanitized` replaces it with the format's own default.
    int quality = 23;
    std::optional<int> fps;  // 1-60; absent: no cap (GIF: 10 at conversion time)
    ScaleMode scaleMode = ScaleMode::original;
    int scaleValue = 720;                // pixels, at least 2; fitWidth and fitHeight only
    std::string speedPreset = "medium";  // one of kSpeedPresets; H.264 and H.265 only
    std::string dither = "sierra2_4a";   // one of kDithers; GIF only
    LossyMode lossyMode = LossyMode::off;
    int lossyLevel = 20;  // 0-200; lossyMode level only
    bool optimizeGif = true;

    bool operator==(const PresetParameters&) const = default;

    struct Sanitized;

    // User-facing sentences, in check order, one per failed check; empty when the record may be
    // saved. Fields that don't apply to `format` are not checked.
    [[nodiscard]] std::vector<std::string> validationErrors(PresetFormat format) const;

    // The repaired record. `noted` holds the fields the decoder replaced; `repaired` is true when
    // `noted` is not empty or a value had to change. Irrelevant fields are left alone so that
    // switching a preset's format back loses nothing.
    [[nodiscard]] Sanitized sanitized(PresetFormat format,
                                      const std::set<std::string>& noted) const;

    // The options a job runs with. Out-of-range quality is clamped; sizes are at least 2 and,
    // for every format but GIF, even.
    [[nodiscard]] engine::ConversionOptions engineOptions(PresetFormat format) const;

    // All keys, `fps` only when present.
    [[nodiscard]] nlohmann::json toJSON() const;

    // Tolerant decoding. A missing key, or null, takes the fallback silently; a present key of
    // the wrong type or with an unknown enumeration value takes the fallback and is recorded in
    // `log` (when given). Throws PresetDecodeError only when `json` is not an object.
    [[nodiscard]] static PresetParameters fromJSON(const nlohmann::json& json,
                                                   DecodeRepairLog* log = nullptr);
};

// What `sanitized` returns: the repaired record and whether anything was repaired.
struct PresetParameters::Sanitized {
    PresetParameters parameters;
    bool repaired = false;
};

// The record a new preset of `format` begins from.
[[nodiscard]] PresetParameters defaultParameters(PresetFormat format);

// The record that describes an engine preset. Fixed heights come back as fitHeight with the
// pixel value, so that the editor shows the target.
[[nodiscard]] PresetParameters parameters(const engine::Preset& preset, PresetFormat format);

[[nodiscard]] std::string_view rawValue(PresetParameters::ScaleMode mode);
[[nodiscard]] std::optional<PresetParameters::ScaleMode> scaleModeFromRawValue(
    std::string_view raw);
[[nodiscard]] std::string_view rawValue(PresetParameters::LossyMode mode);
[[nodiscard]] std::optional<PresetParameters::LossyMode> lossyModeFromRawValue(
    std::string_view raw);

}  // namespace tessarin::presets
