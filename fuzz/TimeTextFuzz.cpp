// Time texts as the user and the tools type them: parseTimeSeconds gives a finite, non-negative
// number or nothing, reads its own shortest output back exactly, and validateTrim refuses a range
// exactly when the texts that parse select nothing.

#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/model/TimeText.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::formatSeconds;
using tessarin::engine::JobFailure;
using tessarin::engine::parseTimeSeconds;
using tessarin::engine::validateTrim;
using tessarin::fuzz::require;

std::vector<std::string_view> nonEmptyPieces(std::string_view text) {
    std::vector<std::string_view> pieces;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t colon = std::min(text.find(':', begin), text.size());
        if (colon > begin) {
            pieces.push_back(text.substr(begin, colon - begin));
        }
        if (colon == text.size()) {
            return pieces;
        }
        begin = colon + 1;
    }
}

void checkParse(std::string_view text) {
    const std::optional<double> seconds = parseTimeSeconds(text);
    require(parseTimeSeconds(":" + std::string(text) + ":") == seconds, "empty pieces are dropped");
    if (!seconds) {
        return;
    }
    require(std::isfinite(*seconds) && *seconds >= 0, "a time is finite and not negative");
    const std::vector<std::string_view> pieces = nonEmptyPieces(text);
    require(!pieces.empty() && pieces.size() <= 3, "one to three pieces");
    double total = 0;
    for (const std::string_view piece : pieces) {
        const std::optional<double> value = parseTimeSeconds(piece);
        require(value.has_value(), "every piece of a time is a time by itself");
        total = total * 60 + *value;
    }
    require(total == *seconds, "pieces count as hours, minutes and seconds");
    require(parseTimeSeconds(fmt::format("{}", *seconds)) == seconds,
            "the shortest text of a time reads back exactly");

    const std::string shown = formatSeconds(*seconds);
    require(shown.size() > 1 && shown.back() == 's', "a duration text ends in s");
    const std::optional<double> reread = parseTimeSeconds(shown.substr(0, shown.size() - 1));
    require(reread && std::fabs(*reread - *seconds) <= 0.05 + std::fabs(*seconds) * 1e-15,
            "a duration text reads back within its one decimal");
}

void checkTrim(const std::optional<std::string>& start, const std::optional<std::string>& end,
               std::optional<double> duration) {
    const std::optional<JobFailure> failure = validateTrim(start, end, duration);
    const std::optional<double> s = start ? parseTimeSeconds(*start) : std::nullopt;
    const std::optional<double> e = end ? parseTimeSeconds(*end) : std::nullopt;
    const bool selectsNothing = e && (s ? *s >= *e : *e <= 0);
    const bool startsPastTheEnd = duration && *duration > 0 && s && *s >= *duration;
    require(failure.has_value() == (selectsNothing || startsPastTheEnd),
            "a trim is refused exactly when its parsed bounds select nothing");
    if (failure) {
        require(failure->step == "trim" && !failure->wasCancelled, "a trim failure is a trim step");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    checkParse(text);

    // "START,END" as the command line takes a trim; either side may be missing.
    const std::size_t comma = text.find(',');
    const std::optional<std::string> start(text.substr(0, comma));
    const std::optional<std::string> end = comma == std::string_view::npos
                                               ? std::nullopt
                                               : std::optional<std::string>(text.substr(comma + 1));
    if (end) {
        checkParse(*start);
        checkParse(*end);
    }
    for (const std::optional<double> duration :
         {std::optional<double>(), std::optional(0.0), std::optional(12.5), std::optional(1e300),
          parseTimeSeconds(text)}) {
        checkTrim(start, end, duration);
        checkTrim(std::nullopt, end, duration);
        checkTrim(start, std::nullopt, duration);
    }
    return 0;
}
