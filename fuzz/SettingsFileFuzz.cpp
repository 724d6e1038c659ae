// Arbitrary bytes as the settings file: the store reads a JSON object within the limits and
// nothing else, every typed getter answers only for its own type, a corrupt file survives the
// next write under a ".corrupt-" name, and what a store writes is what a fresh store reads back.
// The presets kept in the file go through loadPresetResolver and savePresets the same way.

#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "engine/log/Log.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "fuzz/FuzzSupport.hpp"
#include "presets/PresetSettings.hpp"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using tessarin::engine::kMaxSettingsDepth;
using tessarin::engine::SettingsStore;
using tessarin::fuzz::isValidUtf8;
using tessarin::fuzz::require;
using tessarin::presets::PresetResolver;

fs::path scratchFolder;

// Nesting of arrays and objects: a scalar is 0, "[]" is 1.
int depthOf(const json& value) {
    int deepest = 0;
    if (value.is_structured()) {
        for (const json& element : value) {
            deepest = std::max(deepest, depthOf(element));
        }
        return deepest + 1;
    }
    return 0;
}

// What the store must read from `text`: the object, or nothing when the file counts as corrupt.
std::optional<json> expectedObject(std::string_view text) {
    std::optional<json> value = tessarin::fuzz::parseStrictJson(text);
    if (!value || !value->is_object() || depthOf(*value) > kMaxSettingsDepth) {
        return std::nullopt;
    }
    return value;
}

std::optional<int64_t> integerOf(const json& value) {
    if (value.is_number_unsigned()) {
        return value.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                   ? std::nullopt
                   : std::optional<int64_t>(static_cast<int64_t>(value.get<uint64_t>()));
    }
    return value.is_number_integer() ? std::optional(value.get<int64_t>()) : std::nullopt;
}

std::optional<std::vector<std::string>> stringListOf(const json& value) {
    if (!value.is_array()) {
        return std::nullopt;
    }
    std::vector<std::string> list;
    for (const json& element : value) {
        if (!element.is_string()) {
            return std::nullopt;
        }
        list.push_back(element.get<std::string>());
    }
    return list;
}

// Every getter answers for `key` exactly as the stored JSON value allows.
void checkGetters(const SettingsStore& store, const std::string& key, const json* value) {
    require(store.contains(key) == (value != nullptr), "contains says whether the key is stored");
    if (value == nullptr) {
        require(!store.boolValue(key) && !store.integerValue(key) && !store.doubleValue(key) &&
                    !store.stringValue(key) && !store.stringListValue(key) && !store.dataValue(key),
                "an absent key gives nothing");
        return;
    }
    require(store.boolValue(key) ==
                (value->is_boolean() ? std::optional(value->get<bool>()) : std::nullopt),
            "boolValue only for a boolean");
    require(store.integerValue(key) == integerOf(*value),
            "integerValue only for an integral number within int64");
    const std::optional<double> number = store.doubleValue(key);
    require(number.has_value() == value->is_number(), "doubleValue for any number");
    if (number) {
        require(*number == value->get<double>(), "doubleValue gives the number");
    }
    require(store.stringValue(key) ==
                (value->is_string() ? std::optional(value->get<std::string>()) : std::nullopt),
            "stringValue only for a string");
    require(store.stringListValue(key) == stringListOf(*value),
            "stringListValue only for an array of strings");
    require(store.dataValue(key) == value->dump(), "dataValue is the compact JSON text");
}

// The store holds exactly `expected`, value by value and type by type.
void checkHolds(const SettingsStore& store, const json& expected) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : expected.items()) {
        keys.push_back(key);
        checkGetters(store, key, &value);
    }
    require(store.keys() == keys, "keys are the stored keys, sorted");
    checkGetters(store, "\x01 never stored", nullptr);
}

// Runs one write and mirrors it in `expected` when it is accepted; `refused` says whether the
// contract has it throw std::invalid_argument.
template <typename Write, typename Mirror>
void write(SettingsStore& store, json& expected, bool refused, Write doWrite, Mirror mirror) {
    try {
        doWrite();
    } catch (const std::invalid_argument&) {
        require(refused, "only a refused value throws std::invalid_argument");
        checkHolds(store, expected);
        return;
    }
    require(!refused, "a refused value throws std::invalid_argument");
    mirror();
    checkHolds(store, expected);
}

std::string corruptCopy(const fs::path& folder) {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        if (entry.path().filename().string().starts_with("settings.json.corrupt-")) {
            std::ifstream in(entry.path(), std::ios::binary);
            return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        }
    }
    require(false, "a corrupt file is kept aside at the first write");
    return {};
}

void checkPresetsValidate(const PresetResolver& resolver) {
    for (const tessarin::engine::Preset& builtin : tessarin::engine::Preset::builtins()) {
        if (const auto found = resolver.overrides.find(builtin.id);
            found != resolver.overrides.end()) {
            require(found->second
                        .validationErrors(tessarin::presets::presetFormat(builtin.options.format))
                        .empty(),
                    "a stored override validates after loading");
        }
    }
    for (const tessarin::presets::CustomPreset& custom : resolver.customs) {
        require(custom.parameters.validationErrors(custom.format).empty(),
                "a stored custom preset validates after loading");
    }
}

template <typename T>
T bytesAt(std::string_view text, std::size_t from) {
    T value{};
    if (from < text.size()) {
        std::memcpy(&value, text.data() + from, std::min(sizeof value, text.size() - from));
    }
    return value;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && base[0] == '/' ? base : "/tmp") +
                          "/tessarin-settings-fuzz-XXXXXX";
    require(::mkdtemp(pattern.data()) != nullptr, "a scratch folder can be made");
    scratchFolder = pattern;
    std::atexit([] {
        std::error_code ignored;
        fs::remove_all(scratchFolder, ignored);
    });
    tessarin::engine::setJournalSinkEnabled(false);
    tessarin::engine::setLogFileForTesting(scratchFolder / "tessarin.log", 64 * 1024);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const fs::path folder = scratchFolder / "config";
    const fs::path file = folder / "settings.json";
    fs::remove_all(folder);
    fs::create_directories(folder);
    {
        std::ofstream out(file, std::ios::binary);
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
        require(static_cast<bool>(out.flush()), "the input can be written");
    }

    const std::optional<json> original = expectedObject(text);
    json expected = original.value_or(json::object());
    SettingsStore store(file);
    checkHolds(store, expected);

    const PresetResolver presets = tessarin::presets::loadPresetResolver(&store);
    checkPresetsValidate(presets);

    const std::string_view piece = text.substr(0, 24);
    write(
        store, expected, !isValidUtf8(piece), [&] { store.setString("fuzz.string", piece); },
        [&] { expected["fuzz.string"] = std::string(piece); });
    const auto number = bytesAt<double>(text, size > 8 ? size - 8 : 0);
    write(
        store, expected, !std::isfinite(number), [&] { store.setDouble("fuzz.double", number); },
        [&] { expected["fuzz.double"] = number; });
    const auto integer = bytesAt<int64_t>(text, size / 2);
    write(
        store, expected, false, [&] { store.setInteger("fuzz.integer", integer); },
        [&] { expected["fuzz.integer"] = integer; });
    if (!original) {
        require(corruptCopy(folder) == text, "a corrupt file is kept aside byte for byte");
    }

    // A stored number written again as the other kind of number.
    if (original && !original->empty()) {
        const std::string key = original->begin().key();
        if (const std::optional<double> stored = store.doubleValue(key)) {
            constexpr double kInt64Limit = 9223372036854775808.0;
            if (store.integerValue(key) || std::trunc(*stored) != *stored ||
                !(std::fabs(*stored) < kInt64Limit)) {
                write(
                    store, expected, false, [&] { store.setDouble(key, *stored); },
                    [&] { expected[key] = *stored; });
            } else {
                const auto whole = static_cast<int64_t>(*stored);
                write(
                    store, expected, false, [&] { store.setInteger(key, whole); },
                    [&] { expected[key] = whole; });
            }
        }
    }

    const std::optional<json> asData = [&]() -> std::optional<json> {
        std::optional<json> value = tessarin::fuzz::parseStrictJson(text);
        if (!value || depthOf(*value) > kMaxSettingsDepth) {
            return std::nullopt;
        }
        return value;
    }();
    write(
        store, expected, !asData, [&] { store.setData("fuzz.data", text); },
        [&] { expected["fuzz.data"] = *asData; });

    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size() && lines.size() < 4;) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        lines.emplace_back(text.substr(at, end - at));
        at = end + 1;
    }
    const bool allUtf8 = std::all_of(lines.begin(), lines.end(),
                                     [](const std::string& s) { return isValidUtf8(s); });
    write(
        store, expected, !allUtf8, [&] { store.setStringList("fuzz.list", lines); },
        [&] { expected["fuzz.list"] = lines; });

    if (original && !original->empty()) {
        const std::string key = original->rbegin().key();
        write(
            store, expected, false, [&] { store.remove(key); }, [&] { expected.erase(key); });
    }

    write(
        store, expected, false,
        [&] { tessarin::presets::savePresets(store, presets.overrides, presets.customs); },
        [&] {
            expected[std::string(tessarin::presets::kPresetOverridesKey)] =
                json::parse(PresetResolver::encodeOverrides(presets.overrides));
            expected[std::string(tessarin::presets::kCustomPresetsKey)] =
                json::parse(PresetResolver::encodeCustoms(presets.customs));
        });

    // A fresh store reads the file as the writing store left it.
    const SettingsStore reopened(file);
    checkHolds(reopened, expected);
    const PresetResolver reloaded = tessarin::presets::loadPresetResolver(&reopened);
    require(reloaded.overrides == presets.overrides, "saved overrides load back");
    require(reloaded.customs.size() == presets.customs.size(), "saved custom presets load back");
    require(reloaded.repairedSummaries.empty(), "saved presets load without repairs");
    return 0;
}
