#include "cli/PresetCatalog.hpp"

#include <algorithm>
#include <iostream>

#include "presets/PresetSettings.hpp"

namespace tessarin::cli {

PresetCatalog::PresetCatalog()
    : store_(engine::SettingsStore::standard()), resolver_(presets::loadPresetResolver(&store_)) {
    for (const engine::Preset& preset : resolver_.effectivePresets(engine::Preset::builtins())) {
        CatalogEntry entry{preset};
        entry.edited = resolver_.overrides.contains(preset.id);
        const auto custom =
            std::find_if(resolver_.customs.begin(), resolver_.customs.end(),
                         [&](const presets::CustomPreset& item) { return item.id == preset.id; });
        if (custom != resolver_.customs.end()) {
            entry.custom = true;
            entry.readOnly = custom->isReadOnly();
        }
        entries_.push_back(std::move(entry));
    }
}

std::optional<PresetCatalog> PresetCatalog::open() {
    try {
        return PresetCatalog();
    } catch (const std::exception& error) {
        std::cerr << "tessarin: could not read the settings: " << error.what() << "\n";
        return std::nullopt;
    }
}

const CatalogEntry* PresetCatalog::find(const std::string& id) const {
    const auto found =
        std::find_if(entries_.begin(), entries_.end(),
                     [&](const CatalogEntry& entry) { return entry.preset.id == id; });
    return found == entries_.end() ? nullptr : &*found;
}

}  // namespace tessarin::cli
