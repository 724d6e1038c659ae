// Turns the stored overrides of built-in presets and the stored custom presets into the engine
// presets the rest of the program uses: the built-ins in shipped order, each with its override
// applied, then the customs in stored order.
//
// Independent of where the data lives: it reads and writes JSON text (the values stored under
// kPresetOverridesKey and kCustomPresetsKey); PresetSettings.hpp connects it to a SettingsStore.
// A plain value made once per load; every function is pure and safe from any thread. Loading
// has no failure path: bad JSON gives empty collections, an undecodable element is dropped, and a
// repaired preset gives one sentence in `repairedSummaries`.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/model/Preset.hpp"
#include "presets/CustomPreset.hpp"
#include "presets/PresetFormat.hpp"
#include "presets/PresetParameters.hpp"

namespace tessarin::presets {

inline constexpr std::string_view kPresetOverridesKey = "presetOverrides";
inline constexpr std::string_view kCustomPresetsKey = "customPresets";

struct PresetResolver {
    // By built-in preset id. Overrides of ids this version doesn't ship are kept unsanitised
    // and have no effect.
    std::map<std::string, PresetParameters> overrides;
    std::vector<CustomPreset> customs;
    // "Preset {name} had invalid values and was repaired", overrides first.
    std::vector<std::string> repairedSummaries;
    std::set<std::string> repairedIDs;

    bool operator==(const PresetResolver&) const = default;

    // Reads the stored texts (a JSON object of id to parameters, and a JSON array of custom
    // records); an absent text reads as empty. `builtins` is the shipped table the overrides
    // refer to. Throws nothing but std::bad_alloc, and std::system_error should the system's
    // random source fail while an id is made up (a record is never dropped for that).
    [[nodiscard]] static PresetResolver load(
        const std::optional<std::string>& overridesJSON,
        const std::optional<std::string>& customsJSON,
        std::span<const engine::Preset> builtins = engine::Preset::builtins());

    // The built-ins with their overrides applied, then the customs (read-only ones included).
    [[nodiscard]] std::vector<engine::Preset> effectivePresets(
        std::span<const engine::Preset> builtins) const;
    // As above, without the presets whose format `policy` does not allow.
    [[nodiscard]] std::vector<engine::Preset> effectivePresets(
        std::span<const engine::Preset> builtins,
        const engine::EncoderCapabilityPolicy& policy) const;

    // The lowercased-and-dashed form of a custom preset's name: "My GIF" gives "my-gif"; a name
    // with no ASCII letter or digit gives "custom".
    [[nodiscard]] static std::string slug(std::string_view name);

    // The file-name suffix of an overridden built-in: its trailing quality number follows the
    // override's quality. GIF suffixes, suffixes without trailing digits and overrides that keep
    // the shipped quality leave the suffix as it is.
    [[nodiscard]] static std::string suffix(const engine::Preset& builtin,
                                            const PresetParameters& parameters,
                                            PresetFormat format);

    // The texts to store for the two collections (compact JSON). Throw nlohmann::json::type_error
    // when a string in them is not UTF-8.
    [[nodiscard]] static std::string encodeOverrides(
        const std::map<std::string, PresetParameters>& overrides);
    [[nodiscard]] static std::string encodeCustoms(const std::vector<CustomPreset>& customs);
};

}  // namespace tessarin::presets
