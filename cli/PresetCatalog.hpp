// The presets the command line offers: the built-ins with the user's overrides, then the
// custom presets, read from the settings file that the desktop application also uses.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/model/Preset.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "presets/PresetResolver.hpp"

namespace tessarin::cli {

struct CatalogEntry {
    engine::Preset preset;
    bool edited = false;  // a built-in with an override
    bool custom = false;
    bool readOnly = false;  // a custom of a newer version: shown and used, never edited here
};

class PresetCatalog {
public:
    // Reads $XDG_CONFIG_HOME/tessarin/settings.json; a missing or unreadable file gives the
    // built-ins alone.
    PresetCatalog();

    // The catalog, or nothing after printing why the settings could not be read.
    [[nodiscard]] static std::optional<PresetCatalog> open();

    [[nodiscard]] const std::vector<CatalogEntry>& entries() const { return entries_; }
    [[nodiscard]] const CatalogEntry* find(const std::string& id) const;
    // One sentence per preset that had to be repaired while reading.
    [[nodiscard]] const std::vector<std::string>& repairs() const {
        return resolver_.repairedSummaries;
    }
    [[nodiscard]] presets::PresetResolver& resolver() { return resolver_; }
    [[nodiscard]] engine::SettingsStore& store() { return store_; }

private:
    engine::SettingsStore store_;
    presets::PresetResolver resolver_;
    std::vector<CatalogEntry> entries_;
};

}  // namespace tessarin::cli
