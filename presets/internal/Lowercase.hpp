// Unicode lower-casing for preset names. Not for use outside presets/. Pure; nothing throws but
// std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace tessarin::presets::internal {

// The Unicode scalars of `utf8` after the full lower-case mapping without language rules (the
// Kelvin sign becomes "k", "İ" becomes "i" and a combining dot). Ill-formed UTF-8 sequences
// come out as U+FFFD.
[[nodiscard]] std::u32string lowercasedScalars(std::string_view utf8);

}  // namespace tessarin::presets::internal
