// Stored presets as arbitrary JSON: decoding repairs rather than refuses, what the resolver hands
// on always validates, and writing a loaded collection then loading it again gives the same
// presets with nothing left to repair.

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>

#include "engine/model/Preset.hpp"
#include "fuzz/FuzzSupport.hpp"
#include "presets/CustomPreset.hpp"
#include "presets/PresetParameters.hpp"
#include "presets/PresetResolver.hpp"

namespace {

using nlohmann::json;
using tessarin::engine::Preset;
using tessarin::engine::Scale;
using tessarin::fuzz::require;
using namespace tessarin::presets;

const std::set<std::string> kParameterKeys = {"quality",    "fps",         "scaleMode",
                                              "scaleValue", "speedPreset", "dither",
                                              "lossyMode",  "lossyLevel",  "optimizeGif"};
const std::set<std::string> kRecordKeys = {"id", "name", "format", "parameters"};

bool notesOnly(const std::set<std::string>& noted, const std::set<std::string>& allowed) {
    return std::includes(allowed.begin(), allowed.end(), noted.begin(), noted.end());
}

void checkEngineOptions(const PresetParameters& parameters, PresetFormat format) {
    const tessarin::engine::ConversionOptions options = parameters.engineOptions(format);
    require(options.format == outputFormat(format), "the options carry the preset's format");
    if (options.scale.kind == Scale::Kind::fitWidth ||
        options.scale.kind == Scale::Kind::fitHeight) {
        require(options.scale.value >= 2, "a target size is at least 2");
        require(format == PresetFormat::gif || options.scale.value % 2 == 0,
                "a video target size is even");
    }
    if (format == PresetFormat::gif) {
        require(options.fps.has_value(), "a GIF always has a frame rate");
    } else {
        require(options.crf && qualityRange(format).contains(*options.crf),
                "a video quality lies in its format's range");
    }
}

void checkParameters(const json& value) {
    DecodeRepairLog log;
    PresetParameters parameters;
    try {
        parameters = PresetParameters::fromJSON(value, &log);
    } catch (const PresetDecodeError&) {
        require(!value.is_object(), "only a value that is not an object is refused");
        return;
    }
    require(value.is_object(), "a value that is not an object is refused");
    const std::set<std::string> noted = log.recordedFields();
    require(notesOnly(noted, kParameterKeys), "repairs are noted under parameter keys");

    for (const PresetFormat format : kAllPresetFormats) {
        const PresetParameters::Sanitized sanitized = parameters.sanitized(format, noted);
        require(sanitized.parameters.validationErrors(format).empty(),
                "a sanitised record validates");
        require(sanitized.repaired == (!noted.empty() || sanitized.parameters != parameters),
                "repaired says whether anything was noted or changed");
        const PresetParameters::Sanitized again = sanitized.parameters.sanitized(format, {});
        require(!again.repaired && again.parameters == sanitized.parameters,
                "sanitising a sanitised record changes nothing");
        checkEngineOptions(sanitized.parameters, format);
    }

    DecodeRepairLog rereadLog;
    const PresetParameters reread =
        PresetParameters::fromJSON(json::parse(parameters.toJSON().dump()), &rereadLog);
    require(reread == parameters, "parameters round-trip through their stored form");
    require(rereadLog.recordedFields().empty(), "a written record reads without repairs");
}

// What a record reads as after it was written: a supported record is stored with the current
// schema, and a made-up id, once in the blob, no longer needs writing back.
CustomPreset asStored(CustomPreset custom) {
    if (!custom.isReadOnly()) {
        custom.schemaVersion = CustomPreset::kCurrentSchemaVersion;
    }
    custom.needsIDWriteBack = false;
    return custom;
}

void checkCustom(const json& value) {
    DecodeRepairLog log;
    CustomPreset custom;
    try {
        custom = CustomPreset::fromJSON(value, &log);
    } catch (const PresetDecodeError&) {
        require(!value.is_object(), "only a record that is not an object is refused");
        return;
    }
    require(value.is_object(), "a record that is not an object is refused");
    const std::set<std::string> noted = log.recordedFields();
    std::set<std::string> allowed = kParameterKeys;
    allowed.insert(kRecordKeys.begin(), kRecordKeys.end());
    require(notesOnly(noted, allowed), "repairs are noted under record and parameter keys");
    if (custom.isReadOnly()) {
        require(custom.unsupportedBlob.has_value(), "a newer record is kept whole");
        require(noted.empty(), "nothing of a newer record counts as repaired");
        require(custom.parameters.validationErrors(custom.format).empty(),
                "a newer record converts from sanitised values");
    }

    DecodeRepairLog rereadLog;
    const CustomPreset reread =
        CustomPreset::fromJSON(json::parse(custom.toJSON().dump()), &rereadLog);
    require(reread == asStored(custom), "a custom preset round-trips through its stored form");
    require(rereadLog.recordedFields().empty(), "a written custom preset reads without repairs");
}

void checkResolver(const PresetResolver& resolver) {
    const std::span<const Preset> builtins = Preset::builtins();
    for (const Preset& builtin : builtins) {
        const auto found = resolver.overrides.find(builtin.id);
        if (found != resolver.overrides.end()) {
            const PresetFormat format = presetFormat(builtin.options.format);
            require(found->second.validationErrors(format).empty(), "an override validates");
            checkEngineOptions(found->second, format);
        }
    }
    for (const CustomPreset& custom : resolver.customs) {
        require(custom.parameters.validationErrors(custom.format).empty(),
                "a loaded custom preset validates");
        checkEngineOptions(custom.parameters, custom.format);
    }
    require(resolver.repairedIDs.size() <= resolver.repairedSummaries.size(),
            "every repaired id has its sentence");
    const std::vector<Preset> effective = resolver.effectivePresets(builtins);
    require(effective.size() == builtins.size() + resolver.customs.size(),
            "the built-ins and then every custom preset");
    for (std::size_t i = builtins.size(); i < effective.size(); ++i) {
        require(
            effective[i].filenameSuffix.size() > 1 &&
                effective[i].filenameSuffix.find_first_not_of("-abcdefghijklmnopqrstuvwxyz"
                                                              "0123456789") == std::string::npos,
            "a custom preset's suffix is a dashed slug");
    }

    const PresetResolver reloaded =
        PresetResolver::load(PresetResolver::encodeOverrides(resolver.overrides),
                             PresetResolver::encodeCustoms(resolver.customs), builtins);
    require(reloaded.overrides == resolver.overrides, "overrides round-trip");
    require(reloaded.customs.size() == resolver.customs.size(), "every custom preset is saved");
    for (std::size_t i = 0; i < reloaded.customs.size(); ++i) {
        require(reloaded.customs[i] == asStored(resolver.customs[i]), "custom presets round-trip");
    }
    require(reloaded.repairedSummaries.empty() && reloaded.repairedIDs.empty(),
            "saved repairs load without sentences");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::optional<json> parsed = tessarin::fuzz::parseStrictJson(text);
    if (!parsed) {
        const PresetResolver resolver = PresetResolver::load(text, text);
        require(resolver.overrides.empty() && resolver.customs.empty() &&
                    resolver.repairedSummaries.empty(),
                "text that is not JSON loads as empty collections");
        return 0;
    }

    const json& value = *parsed;
    checkParameters(value);
    checkCustom(value);

    // The same value as a stored override collection and, wrapped when needed, as the customs.
    const std::string customsText = value.is_array() ? text : "[" + text + "]";
    const PresetResolver resolver = PresetResolver::load(text, customsText);
    const json customs = json::parse(customsText);
    require(resolver.customs.size() ==
                static_cast<std::size_t>(std::count_if(
                    customs.begin(), customs.end(), [](const json& e) { return e.is_object(); })),
            "every object of the array is kept, repaired where needed");
    require(resolver.overrides.size() <= (value.is_object() ? value.size() : 0),
            "no override without a stored member");
    checkResolver(resolver);
    return 0;
}
