// A preset the user defined, as stored in the array under "customPresets".
//
// Records carry a schema version. A record of a newer schema than this program understands is
// kept whole in `unsupportedBlob` and written back exactly as it came (members unknown here
// included); it still converts, from sanitised parameters, but is read-only. A plain value; the
// functions are safe from any thread.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "presets/DecodeRepairLog.hpp"
#include "presets/JSONFragment.hpp"
#include "presets/PresetFormat.hpp"
#include "presets/PresetParameters.hpp"

namespace tessarin::presets {

struct CustomPreset {
    static constexpr int64_t kCurrentSchemaVersion = 1;

    std::string id;  // "custom-" + an upper-case UUID for presets made here
    std::string name;
    PresetFormat format = PresetFormat::h264;
    PresetParameters parameters;
    // Absent when the stored value was not an integer; such a record is unsupported too.
    std::optional<int64_t> schemaVersion = kCurrentSchemaVersion;
    // The whole stored record when its schema is newer than this program's.
    std::optional<JSONFragment> unsupportedBlob;
    // An id was made up for a record held in `unsupportedBlob` (and put into the blob), so the
    // next save must store it to keep it stable.
    bool needsIDWriteBack = false;

    bool operator==(const CustomPreset&) const = default;

    // Records of a schema this version can't edit: version absent, or 2 and higher.
    [[nodiscard]] bool isReadOnly() const;

    // The stored form: the blob as it is when there is one, otherwise `schemaVersion` (always
    // the current one), `id`, `name`, `format` and `parameters`.
    [[nodiscard]] nlohmann::json toJSON() const;

    // Tolerant decoding. An unreadable id becomes a fresh one, an unreadable name "Preset", an
    // unreadable format `h264`, unreadable parameters the format's defaults, each noted in `log`
    // (fields of the parameters are noted under their own keys). A record of an unsupported
    // schema is decoded with nothing noted and its parameters already sanitised. Throws
    // PresetDecodeError only when `json` is not an object.
    [[nodiscard]] static CustomPreset fromJSON(const nlohmann::json& json,
                                               DecodeRepairLog* log = nullptr);
};

// "custom-" followed by a fresh random UUID in upper-case canonical form.
[[nodiscard]] std::string makeCustomPresetID();

}  // namespace tessarin::presets
