// Any JSON value, held without loss, so that a stored record this version can't read is written
// back as it came. A plain value: copied freely, safe to share between threads.
//
// Equality is by case and payload: two doubles compare by numeric value, and an integer never
// equals a double (7 and 7.0 differ), unlike nlohmann::json's own comparison.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>
#include <vector>

namespace tessarin::presets {

struct JSONFragment {
    using Array = std::vector<JSONFragment>;
    using Object = std::map<std::string, JSONFragment>;
    // The cases in order: bool, int, double, string, array, object, null.
    using Value = std::variant<bool, int64_t, double, std::string, Array, Object, std::nullptr_t>;

    Value value = nullptr;

    // Reads a parsed value: null, bool, integer (unsigned values above the signed 64-bit range
    // become doubles), double, string, array, object. Never throws but std::bad_alloc.
    [[nodiscard]] static JSONFragment fromJSON(const nlohmann::json& json);
    // The value as nlohmann::json, for encoding. Never throws but std::bad_alloc.
    [[nodiscard]] nlohmann::json toJSON() const;

    [[nodiscard]] bool isObject() const { return std::holds_alternative<Object>(value); }
    // The object's members, or nullptr when this is not an object.
    [[nodiscard]] const Object* object() const { return std::get_if<Object>(&value); }
    [[nodiscard]] Object* object() { return std::get_if<Object>(&value); }

    bool operator==(const JSONFragment&) const = default;
};

}  // namespace tessarin::presets
