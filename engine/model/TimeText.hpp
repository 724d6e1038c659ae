// The one reading of a time string in the program, the trim check built on it, and the
// short duration text used in messages.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "engine/model/JobFailure.hpp"

namespace tessarin::engine {

// "90", "1:30", "0:01:30.0" -> 90. Splits on ':' dropping empty pieces (1 to 3 pieces); each
// piece is a whole C-locale decimal number, finite and not negative. Nothing on any malformed text.
[[nodiscard]] std::optional<double> parseTimeSeconds(std::string_view text);

// A failure with step "trim" when the range selects nothing, or nothing when it may run.
// Texts that don't parse take no part in the comparison that needs them.
[[nodiscard]] std::optional<JobFailure> validateTrim(const std::optional<std::string>& start,
                                                     const std::optional<std::string>& end,
                                                     std::optional<double> duration);

// "12s" for whole values that fit a 64-bit integer, otherwise "%.1fs" ("12.5s").
[[nodiscard]] std::string formatSeconds(double seconds);

}  // namespace tessarin::engine
