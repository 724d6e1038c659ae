#include "presets/PresetResolver.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "engine/text/UnicodeText.hpp"
#include "presets/DecodeRepairLog.hpp"

namespace tessarin::presets {

namespace {

struct OverrideEntry {
    PresetParameters params;
    std::set<std::string> noted;
};

struct CustomEntry {
    CustomPreset custom;
    std::set<std::string> noted;
    bool customFieldRepaired = false;
};

std::string repairSentence(std::string_view name) {
    return fmt::format("Preset {} had invalid values and was repaired", name);
}

const engine::Preset* findBuiltin(std::span<const engine::Preset> builtins, std::string_view id) {
    const auto found = std::find_if(builtins.begin(), builtins.end(),
                                    [&](const engine::Preset& preset) { return preset.id == id; });
    return found == builtins.end() ? nullptr : &*found;
}

// The stored text parsed, or a discarded value when there is none or it is not JSON. A NUL byte
// would end the parser's input early, so text holding one is not JSON either.
nlohmann::json parseStored(const std::optional<std::string>& text) {
    if (!text || text->find('\0') != std::string::npos) {
        return nlohmann::json(nlohmann::json::value_t::discarded);
    }
    return nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
}

// Each value is serialised again and decoded on its own, so one bad member costs only itself.
std::map<std::string, OverrideEntry> loadOverrides(const std::optional<std::string>& text,
                                                   std::span<const engine::Preset> builtins) {
    std::map<std::string, OverrideEntry> entries;
    const nlohmann::json stored = parseStored(text);
    if (!stored.is_object()) {
        return entries;
    }
    for (const auto& [id, value] : stored.items()) {
        DecodeRepairLog log;
        try {
            const nlohmann::json reread = nlohmann::json::parse(value.dump());
            PresetParameters params = PresetParameters::fromJSON(reread, &log);
            entries.emplace(id, OverrideEntry{std::move(params), log.recordedFields()});
        } catch (const PresetDecodeError&) {
            if (const engine::Preset* builtin = findBuiltin(builtins, id)) {
                entries.emplace(
                    id, OverrideEntry{defaultParameters(presetFormat(builtin->options.format)),
                                      {"(entry)"}});
            }
        }
    }
    return entries;
}

std::vector<CustomEntry> loadCustoms(const std::optional<std::string>& text) {
    std::vector<CustomEntry> entries;
    const nlohmann::json stored = parseStored(text);
    if (!stored.is_array()) {
        return entries;
    }
    for (const nlohmann::json& element : stored) {
        DecodeRepairLog log;
        try {
            const nlohmann::json reread = nlohmann::json::parse(element.dump());
            CustomPreset custom = CustomPreset::fromJSON(reread, &log);
            std::set<std::string> noted = log.recordedFields();
            const bool customFieldRepaired =
                noted.contains("format") || noted.contains("id") || noted.contains("name");
            entries.push_back({std::move(custom), std::move(noted), customFieldRepaired});
        } catch (const PresetDecodeError&) {
            // An element of no shape this program could keep: dropped without a word.
        }
    }
    return entries;
}

}  // namespace

PresetResolver PresetResolver::load(const std::optional<std::string>& overridesJSON,
                                    const std::optional<std::string>& customsJSON,
                                    std::span<const engine::Preset> builtins) {
    PresetResolver resolver;

    // Built-in table order, so that the sentences come in the order the user sees the presets.
    std::map<std::string, OverrideEntry> overrideEntries = loadOverrides(overridesJSON, builtins);
    for (const engine::Preset& builtin : builtins) {
        const auto entry = overrideEntries.find(builtin.id);
        if (entry == overrideEntries.end()) {
            continue;
        }
        const PresetFormat format = presetFormat(builtin.options.format);
        PresetParameters::Sanitized sanitized =
            entry->second.params.sanitized(format, entry->second.noted);
        resolver.overrides.insert_or_assign(builtin.id, std::move(sanitized.parameters));
        if (sanitized.repaired) {
            resolver.repairedSummaries.push_back(repairSentence(builtin.displayName));
            resolver.repairedIDs.insert(builtin.id);
        }
        overrideEntries.erase(entry);
    }
    for (auto& [id, entry] : overrideEntries) {
        resolver.overrides.emplace(id, std::move(entry.params));
    }

    for (CustomEntry& entry : loadCustoms(customsJSON)) {
        CustomPreset& custom = entry.custom;
        PresetParameters::Sanitized sanitized =
            custom.parameters.sanitized(custom.format, entry.noted);
        custom.parameters = std::move(sanitized.parameters);
        if (sanitized.repaired || entry.customFieldRepaired) {
            resolver.repairedSummaries.push_back(repairSentence(custom.name));
            resolver.repairedIDs.insert(custom.id);
        }
        resolver.customs.push_back(std::move(custom));
    }
    return resolver;
}

std::vector<engine::Preset> PresetResolver::effectivePresets(
    std::span<const engine::Preset> builtins) const {
    std::vector<engine::Preset> presets;
    presets.reserve(builtins.size() + customs.size());
    for (const engine::Preset& builtin : builtins) {
        const auto found = overrides.find(builtin.id);
        if (found == overrides.end()) {
            presets.push_back(builtin);
            continue;
        }
        const PresetFormat format = presetFormat(builtin.options.format);
        presets.push_back(engine::Preset{
            builtin.id,
            builtin.displayName,
            found->second.engineOptions(format),
            suffix(builtin, found->second, format),
            builtin.fileExtension,
        });
    }
    for (const CustomPreset& custom : customs) {
        presets.push_back(engine::Preset{
            custom.id,
            custom.name,
            custom.parameters.engineOptions(custom.format),
            "-" + slug(custom.name),
            std::string(fileExtension(custom.format)),
        });
    }
    return presets;
}

std::vector<engine::Preset> PresetResolver::effectivePresets(
    std::span<const engine::Preset> builtins, const engine::EncoderCapabilityPolicy& policy) const {
    return engine::filter(effectivePresets(builtins), policy);
}

std::string PresetResolver::slug(std::string_view name) {
    std::string result;
    for (const char32_t scalar : engine::lowercased(engine::decodeUtf8Lossy(name))) {
        if ((scalar >= U'a' && scalar <= U'z') || (scalar >= U'0' && scalar <= U'9')) {
            result.push_back(static_cast<char>(scalar));
        } else if (!result.empty() && result.back() != '-') {
            result.push_back('-');
        }
    }
    while (!result.empty() && result.back() == '-') {
        result.pop_back();
    }
    return result.empty() ? "custom" : result;
}

std::string PresetResolver::suffix(const engine::Preset& builtin,
                                   const PresetParameters& parameters, PresetFormat format) {
    const std::string& shipped = builtin.filenameSuffix;
    if (format == PresetFormat::gif) {
        return shipped;
    }
    if (parameters.quality == presets::parameters(builtin, format).quality) {
        return shipped;
    }
    const auto digitsStart = std::find_if_not(shipped.rbegin(), shipped.rend(), [](char c) {
                                 return c >= '0' && c <= '9';
                             }).base();
    if (digitsStart == shipped.end()) {
        return shipped;
    }
    return std::string(shipped.begin(), digitsStart) + std::to_string(parameters.quality);
}

std::string PresetResolver::encodeOverrides(
    const std::map<std::string, PresetParameters>& overrides) {
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [id, parameters] : overrides) {
        object[id] = parameters.toJSON();
    }
    return object.dump();
}

std::string PresetResolver::encodeCustoms(const std::vector<CustomPreset>& customs) {
    nlohmann::json array = nlohmann::json::array();
    for (const CustomPreset& custom : customs) {
        array.push_back(custom.toJSON());
    }
    return array.dump();
}

}  // namespace tessarin::presets
