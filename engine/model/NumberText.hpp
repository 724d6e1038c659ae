// Reading numbers from tool output and user text in the C locale, never the user's.
#pragma once

#include <optional>
#include <string_view>

namespace tessarin::engine {

// The whole text as a C-locale double (sign, exponent and hexadecimal forms as strtod reads
// them), or nothing. Empty text and leading white space are refused, although strtod would skip
// the blank. "inf" and "nan" parse; use parseFiniteDouble to refuse them.
[[nodiscard]] std::optional<double> parseDouble(std::string_view text);

// parseDouble, and nothing unless the value is finite.
[[nodiscard]] std::optional<double> parseFiniteDouble(std::string_view text);

}  // namespace tessarin::engine
