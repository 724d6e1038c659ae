#include "presets/internal/JSONRead.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tessarin::presets::internal {

std::optional<int64_t> readInteger(const nlohmann::json& value) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned() &&
            value.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            return std::nullopt;
        }
        return value.get<int64_t>();
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        // 2^63 is exactly representable; anything at or above it does not fit.
        constexpr double kLimit = 9223372036854775808.0;
        if (!std::isfinite(number) || std::trunc(number) != number || number >= kLimit ||
            number < -kLimit) {
            return std::nullopt;
        }
        return static_cast<int64_t>(number);
    }
    return std::nullopt;
}

std::optional<int> readInt(const nlohmann::json& value) {
    const std::optional<int64_t> integer = readInteger(value);
    if (!integer) {
        return std::nullopt;
    }
    return static_cast<int>(std::clamp<int64_t>(*integer, std::numeric_limits<int>::min(),
                                                std::numeric_limits<int>::max()));
}

}  // namespace tessarin::presets::internal
