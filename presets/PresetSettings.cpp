#include "presets/PresetSettings.hpp"

#include <nlohmann/json.hpp>

namespace tessarin::presets {

PresetResolver loadPresetResolver(const engine::SettingsStore* defaults,
                                  std::span<const engine::Preset> builtins) {
    if (defaults == nullptr) {
        return PresetResolver::load(std::nullopt, std::nullopt, builtins);
    }
    return PresetResolver::load(defaults->dataValue(kPresetOverridesKey),
                                defaults->dataValue(kCustomPresetsKey), builtins);
}

void saveOverrides(engine::SettingsStore& defaults,
                   const std::map<std::string, PresetParameters>& overrides) {
    defaults.setData(kPresetOverridesKey, PresetResolver::encodeOverrides(overrides));
}

void saveCustoms(engine::SettingsStore& defaults, const std::vector<CustomPreset>& customs) {
    defaults.setData(kCustomPresetsKey, PresetResolver::encodeCustoms(customs));
}

void savePresets(engine::SettingsStore& defaults,
                 const std::map<std::string, PresetParameters>& overrides,
                 const std::vector<CustomPreset>& customs) {
    // Encoded before the write starts, so that a failure to encode touches nothing.
    const std::string overridesText = PresetResolver::encodeOverrides(overrides);
    const std::string customsText = PresetResolver::encodeCustoms(customs);
    defaults.update([&](nlohmann::json& object) {
        object[std::string(kPresetOverridesKey)] = nlohmann::json::parse(overridesText);
        object[std::string(kCustomPresetsKey)] = nlohmann::json::parse(customsText);
    });
}

}  // namespace tessarin::presets
