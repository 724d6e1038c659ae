#include "presets/PresetParameters.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "presets/internal/JSONRead.hpp"

namespace tessarin::presets {

namespace {

using ScaleMode = PresetParameters::ScaleMode;
using LossyMode = PresetParameters::LossyMode;

constexpr int kMinFps = 1;
constexpr int kMaxFps = 60;
constexpr int kGifDefaultFps = 10;
constexpr int kMinScaleValue = 2;
constexpr int kMinLossyLevel = 0;
constexpr int kMaxLossyLevel = 200;
constexpr int kDefaultScaleValue = 720;
constexpr int kDefaultLossyLevel = 20;

constexpr std::array<std::string_view, 9> kScaleModeNames = {
    "original", "half", "third", "p360", "p480", "p720", "p1080", "fitWidth", "fitHeight",
};
constexpr std::array<std::string_view, 3> kLossyModeNames = {"off", "defaultLevel", "level"};

template <std::size_t N>
bool listed(const std::array<std::string_view, N>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool usesScaleValue(ScaleMode mode) {
    return mode == ScaleMode::fitWidth || mode == ScaleMode::fitHeight;
}

std::optional<int> defaultFps(PresetFormat format) {
    return format == PresetFormat::gif ? std::optional(kGifDefaultFps) : std::nullopt;
}

// A present, non-null member, or nullptr: both absence and null take the fallback silently.
const nlohmann::json* member(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) {
        return nullptr;
    }
    return &*found;
}

void readInt(const nlohmann::json& object, const char* key, int& field, DecodeRepairLog* log) {
    if (const nlohmann::json* value = member(object, key)) {
        if (const std::optional<int> number = internal::readInt(*value)) {
            field = *number;
        } else {
            noteRepair(log, key);
        }
    }
}

void readString(const nlohmann::json& object, const char* key, std::string& field,
                DecodeRepairLog* log) {
    if (const nlohmann::json* value = member(object, key)) {
        if (value->is_string()) {
            field = value->get<std::string>();
        } else {
            noteRepair(log, key);
        }
    }
}

template <typename Enum, typename Parse>
void readEnum(const nlohmann::json& object, const char* key, Enum& field, Parse parse,
              DecodeRepairLog* log) {
    if (const nlohmann::json* value = member(object, key)) {
        std::optional<Enum> parsed;
        if (value->is_string()) {
            parsed = parse(value->get_ref<const std::string&>());
        }
        if (parsed) {
            field = *parsed;
        } else {
            noteRepair(log, key);
        }
    }
}

}  // namespace

std::string_view rawValue(ScaleMode mode) {
    return kScaleModeNames[static_cast<std::size_t>(mode)];
}

std::optional<ScaleMode> scaleModeFromRawValue(std::string_view raw) {
    for (std::size_t i = 0; i < kScaleModeNames.size(); ++i) {
        if (kScaleModeNames[i] == raw) {
            return static_cast<ScaleMode>(i);
        }
    }
    return std::nullopt;
}

std::string_view rawValue(LossyMode mode) {
    return kLossyModeNames[static_cast<std::size_t>(mode)];
}

std::optional<LossyMode> lossyModeFromRawValue(std::string_view raw) {
    for (std::size_t i = 0; i < kLossyModeNames.size(); ++i) {
        if (kLossyModeNames[i] == raw) {
            return static_cast<LossyMode>(i);
        }
    }
    return std::nullopt;
}

PresetParameters defaultParameters(PresetFormat format) {
    PresetParameters parameters;
    parameters.quality = defaultQuality(format);
    parameters.fps = defaultFps(format);
    parameters.scaleMode = ScaleMode::original;
    parameters.scaleValue = kDefaultScaleValue;
    parameters.speedPreset = "medium";
    parameters.dither = "sierra2_4a";
    parameters.lossyMode = LossyMode::off;
    parameters.lossyLevel = kDefaultLossyLevel;
    parameters.optimizeGif = true;
    return parameters;
}

PresetParameters parameters(const engine::Preset& preset, PresetFormat format) {
    const engine::ConversionOptions& options = preset.options;
    PresetParameters result = defaultParameters(format);
    result.quality = options.crf.value_or(defaultQuality(format));
    result.fps = options.fps;
    switch (options.scale.kind) {
        case engine::Scale::Kind::fitWidth:
            result.scaleMode = ScaleMode::fitWidth;
            result.scaleValue = options.scale.value;
            break;
        case engine::Scale::Kind::fitHeight:
            result.scaleMode = ScaleMode::fitHeight;
            result.scaleValue = options.scale.value;
            break;
        case engine::Scale::Kind::original:
            result.scaleMode = ScaleMode::original;
            break;
        case engine::Scale::Kind::half:
            result.scaleMode = ScaleMode::half;
            break;
        case engine::Scale::Kind::third:
            result.scaleMode = ScaleMode::third;
            break;
    }
    result.speedPreset = options.preset;
    result.dither = options.dither;
    result.optimizeGif = options.optimizeGif;
    switch (options.lossy.kind) {
        case engine::GifLossy::Kind::level:
            result.lossyMode = LossyMode::level;
            result.lossyLevel = options.lossy.level;
            break;
        case engine::GifLossy::Kind::off:
            result.lossyMode = LossyMode::off;
            break;
        case engine::GifLossy::Kind::defaultLevel:
            result.lossyMode = LossyMode::defaultLevel;
            break;
    }
    return result;
}

std::vector<std::string> PresetParameters::validationErrors(PresetFormat format) const {
    std::vector<std::string> errors;
    const QualityRange range = qualityRange(format);
    if (!range.contains(quality)) {
        errors.push_back(fmt::format("Quality {} is outside {}–{} for {}.", quality, range.low,
                                     range.high, label(format)));
    }
    if (fps && (*fps < kMinFps || *fps > kMaxFps)) {
        errors.push_back(fmt::format("Frame rate {} fps is outside {}–{} for {}.", *fps, kMinFps,
                                     kMaxFps, label(format)));
    }
    if (speedPresetApplies(format) && !listed(kSpeedPresets, speedPreset)) {
        errors.push_back(
            fmt::format("Speed preset \"{}\" is not a recognized x264/x265 preset.", speedPreset));
    }
    if (format == PresetFormat::gif && !listed(kDithers, dither)) {
        errors.push_back(
            fmt::format("Dither \"{}\" is not a recognized paletteuse algorithm.", dither));
    }
    if (lossyMode == LossyMode::level &&
        (lossyLevel < kMinLossyLevel || lossyLevel > kMaxLossyLevel)) {
        errors.push_back(fmt::format("Lossy level {} is outside {}–{}.", lossyLevel, kMinLossyLevel,
                                     kMaxLossyLevel));
    }
    if (usesScaleValue(scaleMode) && scaleValue < kMinScaleValue) {
        errors.push_back(fmt::format("Scale target {} px is below the {} px minimum.", scaleValue,
                                     kMinScaleValue));
    }
    return errors;
}

PresetParameters::Sanitized PresetParameters::sanitized(PresetFormat format,
                                                        const std::set<std::string>& noted) const {
    Sanitized result{*this, !noted.empty()};
    PresetParameters& p = result.parameters;

    const QualityRange range = qualityRange(format);
    if (noted.contains("quality")) {
        p.quality = defaultQuality(format);
    } else if (!range.contains(p.quality)) {
        p.quality = range.clamp(p.quality);
        result.repaired = true;
    }
    if (noted.contains("fps")) {
        p.fps = defaultFps(format);
    } else if (p.fps && (*p.fps < kMinFps || *p.fps > kMaxFps)) {
        p.fps = std::clamp(*p.fps, kMinFps, kMaxFps);
        result.repaired = true;
    }
    if (speedPresetApplies(format) && !listed(kSpeedPresets, p.speedPreset)) {
        p.speedPreset = "medium";
        result.repaired = true;
    }
    if (format == PresetFormat::gif && !listed(kDithers, p.dither)) {
        p.dither = "sierra2_4a";
        result.repaired = true;
    }
    if (p.lossyMode == LossyMode::level) {
        const int clamped = std::clamp(p.lossyLevel, kMinLossyLevel, kMaxLossyLevel);
        if (clamped != p.lossyLevel) {
            p.lossyLevel = clamped;
            result.repaired = true;
        }
    }
    if (usesScaleValue(p.scaleMode) && p.scaleValue < kMinScaleValue) {
        p.scaleValue = kMinScaleValue;
        result.repaired = true;
    }
    return result;
}

engine::ConversionOptions PresetParameters::engineOptions(PresetFormat format) const {
    const bool isGif = format == PresetFormat::gif;
    const auto pixels = [&] {
        const int atLeastTwo = std::max(scaleValue, kMinScaleValue);
        return isGif ? atLeastTwo : atLeastTwo & ~1;
    };

    engine::ConversionOptions options;
    options.format = outputFormat(format);
    switch (scaleMode) {
        case ScaleMode::original:
            options.scale = engine::Scale::original();
            break;
        case ScaleMode::half:
            options.scale = engine::Scale::half();
            break;
        case ScaleMode::third:
            options.scale = engine::Scale::third();
            break;
        case ScaleMode::p360:
            options.scale = engine::Scale::fitHeight(360);
            break;
        case ScaleMode::p480:
            options.scale = engine::Scale::fitHeight(480);
            break;
        case ScaleMode::p720:
            options.scale = engine::Scale::fitHeight(720);
            break;
        case ScaleMode::p1080:
            options.scale = engine::Scale::fitHeight(1080);
            break;
        case ScaleMode::fitWidth:
            options.scale = engine::Scale::fitWidth(pixels());
            break;
        case ScaleMode::fitHeight:
            options.scale = engine::Scale::fitHeight(pixels());
            break;
    }
    options.fps = isGif ? std::optional(fps.value_or(kGifDefaultFps)) : fps;
    options.crf = isGif ? std::nullopt : std::optional(qualityRange(format).clamp(quality));
    options.preset = speedPreset;
    options.dither = dither;
    options.optimizeGif = optimizeGif;
    options.trim = engine::Trim{};
    switch (lossyMode) {
        case LossyMode::off:
            options.lossy = engine::GifLossy::off();
            break;
        case LossyMode::defaultLevel:
            options.lossy = engine::GifLossy::defaultLossiness();
            break;
        case LossyMode::level:
            options.lossy = engine::GifLossy::atLevel(lossyLevel);
            break;
    }
    return options;
}

nlohmann::json PresetParameters::toJSON() const {
    nlohmann::json json = {
        {"quality", quality},       {"scaleMode", rawValue(scaleMode)},
        {"scaleValue", scaleValue}, {"speedPreset", speedPreset},
        {"dither", dither},         {"lossyMode", rawValue(lossyMode)},
        {"lossyLevel", lossyLevel}, {"optimizeGif", optimizeGif},
    };
    if (fps) {
        json["fps"] = *fps;
    }
    return json;
}

PresetParameters PresetParameters::fromJSON(const nlohmann::json& json, DecodeRepairLog* log) {
    if (!json.is_object()) {
        throw PresetDecodeError(
            fmt::format("preset parameters must be a JSON object, not {}", json.type_name()));
    }
    PresetParameters p;
    readInt(json, "quality", p.quality, log);
    if (const nlohmann::json* value = member(json, "fps")) {
        if (const std::optional<int> number = internal::readInt(*value)) {
            p.fps = *number;
        } else {
            noteRepair(log, "fps");
        }
    }
    readEnum(json, "scaleMode", p.scaleMode, scaleModeFromRawValue, log);
    readInt(json, "scaleValue", p.scaleValue, log);
    readString(json, "speedPreset", p.speedPreset, log);
    readString(json, "dither", p.dither, log);
    readEnum(json, "lossyMode", p.lossyMode, lossyModeFromRawValue, log);
    readInt(json, "lossyLevel", p.lossyLevel, log);
    if (const nlohmann::json* value = member(json, "optimizeGif")) {
        if (value->is_boolean()) {
            p.optimizeGif = value->get<bool>();
        } else {
            noteRepair(log, "optimizeGif");
        }
    }
    return p;
}

}  // namespace tessarin::presets
