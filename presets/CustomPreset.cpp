#include "presets/CustomPreset.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "engine/clips/Uuid.hpp"
#include "presets/internal/JSONRead.hpp"

namespace tessarin::presets {

namespace {

constexpr int64_t kFirstUnsupportedSchema = 2;

}  // namespace

std::string makeCustomPresetID() {
    std::string text = engine::Uuid::random().text();
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return "custom-" + text;
}

bool CustomPreset::isReadOnly() const {
    return !schemaVersion || *schemaVersion >= kFirstUnsupportedSchema;
}

nlohmann::json CustomPreset::toJSON() const {
    if (unsupportedBlob) {
        return unsupportedBlob->toJSON();
    }
    return {
        {"schemaVersion", kCurrentSchemaVersion},
        {"id", id},
        {"name", name},
        {"format", rawValue(format)},
        {"parameters", parameters.toJSON()},
    };
}

CustomPreset CustomPreset::fromJSON(const nlohmann::json& json, DecodeRepairLog* log) {
    if (!json.is_object()) {
        throw PresetDecodeError(
            fmt::format("a custom preset must be a JSON object, not {}", json.type_name()));
    }
    CustomPreset custom;

    bool supported = true;
    if (const auto version = json.find("schemaVersion"); version != json.end()) {
        custom.schemaVersion = internal::readInteger(*version);
        supported = custom.schemaVersion && *custom.schemaVersion < kFirstUnsupportedSchema;
    }
    if (!supported) {
        custom.unsupportedBlob = JSONFragment::fromJSON(json);
        // Nothing read from a newer record counts as a repair: the blob is what gets stored.
        log = nullptr;
    }

    if (const auto id = json.find("id"); id != json.end() && id->is_string()) {
        custom.id = id->get<std::string>();
    } else {
        custom.id = makeCustomPresetID();
        noteRepair(log, "id");
        if (custom.unsupportedBlob) {
            if (JSONFragment::Object* blob = custom.unsupportedBlob->object()) {
                (*blob)["id"] = JSONFragment{custom.id};
                custom.needsIDWriteBack = true;
            }
        }
    }

    if (const auto name = json.find("name"); name != json.end() && name->is_string()) {
        custom.name = name->get<std::string>();
    } else {
        custom.name = "Preset";
        noteRepair(log, "name");
    }

    std::optional<PresetFormat> format;
    if (const auto stored = json.find("format"); stored != json.end() && stored->is_string()) {
        format = presetFormatFromRawValue(stored->get_ref<const std::string&>());
    }
    if (!format) {
        noteRepair(log, "format");
    }
    custom.format = format.value_or(PresetFormat::h264);

    const auto parameters = json.find("parameters");
    if (supported) {
        if (parameters != json.end() && parameters->is_object()) {
            custom.parameters = PresetParameters::fromJSON(*parameters, log);
        } else {
            custom.parameters = defaultParameters(custom.format);
            noteRepair(log, "parameters");
        }
    } else {
        // A newer record may still be used for conversions, so its values must be sound here.
        const PresetParameters read = parameters != json.end() && parameters->is_object()
                                          ? PresetParameters::fromJSON(*parameters)
                                          : defaultParameters(custom.format);
        custom.parameters = read.sanitized(custom.format, {}).parameters;
    }
    return custom;
}

}  // namespace tessarin::presets
