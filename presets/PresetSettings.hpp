// Where the resolver's two collections live in the settings: the JSON object of overrides under
// kPresetOverridesKey and the JSON array of custom presets under kCustomPresetsKey.
//
// Thin helpers over engine::SettingsStore; they are as thread-safe as the store. Loads never
// throw; saves block on file work.
#pragma once

#include <map>
#include <span>
#include <string>
#include <vector>

#include "engine/model/Preset.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "presets/CustomPreset.hpp"
#include "presets/PresetParameters.hpp"
#include "presets/PresetResolver.hpp"

namespace tessarin::presets {

// The resolver of what `defaults` holds; with no store, or nothing usable stored, both
// collections are empty.
[[nodiscard]] PresetResolver loadPresetResolver(
    const engine::SettingsStore* defaults,
    std::span<const engine::Preset> builtins = engine::Preset::builtins());

// Each replaces its whole stored value. When the value can't be encoded (text that is not
// UTF-8) they throw nlohmann::json::exception or std::invalid_argument and the stored value
// stays as it was; a failed write throws std::system_error, also leaving it as it was.
void saveOverrides(engine::SettingsStore& defaults,
                   const std::map<std::string, PresetParameters>& overrides);
void saveCustoms(engine::SettingsStore& defaults, const std::vector<CustomPreset>& customs);
// Both collections in one write, so that a repaired form replaces the bad one as a whole.
void savePresets(engine::SettingsStore& defaults,
                 const std::map<std::string, PresetParameters>& overrides,
                 const std::vector<CustomPreset>& customs);

}  // namespace tessarin::presets
