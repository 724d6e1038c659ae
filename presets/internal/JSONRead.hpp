// How stored preset records read numbers: the one rule shared by every field of the presets
// library. Not for use outside presets/. Pure functions; nothing throws.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>

namespace tessarin::presets::internal {

// An integer: a JSON integer within the signed 64-bit range, or a JSON number with an exact
// integral value in that range (so 7.0 reads as 7). Nothing for 7.5, strings, booleans and the
// rest.
[[nodiscard]] std::optional<int64_t> readInteger(const nlohmann::json& value);

// An integer as above, saturated into the range of int: the record's fields are ints, and a
// saturated value is then clamped by sanitising like any other out-of-range value.
[[nodiscard]] std::optional<int> readInt(const nlohmann::json& value);

}  // namespace tessarin::presets::internal
