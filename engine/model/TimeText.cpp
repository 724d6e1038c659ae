#include "engine/model/TimeText.hpp"

#include <fmt/format.h>

#include <cmath>
#include <vector>

#include "engine/model/NumberText.hpp"

namespace tessarin::engine {

std::optional<double> parseTimeSeconds(std::string_view text) {
    std::vector<std::string> pieces;
    std::size_t begin = 0;
    while (begin <= text.size()) {
        const std::size_t colon = text.find(':', begin);
        const std::size_t end = colon == std::string_view::npos ? text.size() : colon;
        if (end > begin) {
            pieces.emplace_back(text.substr(begin, end - begin));
        }
        if (colon == std::string_view::npos) {
            break;
        }
        begin = colon + 1;
    }
    if (pieces.empty() || pieces.size() > 3) {
        return std::nullopt;
    }
    double total = 0;
    for (const std::string& piece : pieces) {
        // The C locale always, so "1,5" never means 1.5.
        const std::optional<double> value = parseFiniteDouble(piece);
        if (!value || *value < 0) {
            return std::nullopt;
        }
        total = total * 60 + *value;
        if (!std::isfinite(total)) {
            return std::nullopt;
        }
    }
    return total;
}

std::optional<JobFailure> validateTrim(const std::optional<std::string>& start,
                                       const std::optional<std::string>& end,
                                       std::optional<double> duration) {
    const std::optional<double> startSeconds = start ? parseTimeSeconds(*start) : std::nullopt;
    const std::optional<double> endSeconds = end ? parseTimeSeconds(*end) : std::nullopt;

    if (endSeconds) {
        const bool empty = startSeconds ? *startSeconds >= *endSeconds : *endSeconds <= 0;
        if (empty) {
            return JobFailure::sentence("trim", "Trim start (" +
                                                    (start ? *start : std::string("0")) +
                                                    ") is at or after trim end (" + *end +
                                                    ") — the range selects nothing.");
        }
    }
    if (duration && *duration > 0 && startSeconds && *startSeconds >= *duration) {
        return JobFailure::sentence(
            "trim", "Trim start (" + *start + ") is at or past the source duration (" +
                        formatSeconds(*duration) + ") — the range selects no frames.");
    }
    return std::nullopt;
}

std::string formatSeconds(double seconds) {
    // 2^63 is exactly representable; anything at or above it does not fit.
    constexpr double kInt64Limit = 9223372036854775808.0;
    if (std::isfinite(seconds) && std::trunc(seconds) == seconds && seconds >= -kInt64Limit &&
        seconds < kInt64Limit) {
        return fmt::format("{}s", static_cast<int64_t>(seconds));
    }
    return fmt::format("{:.1f}s", seconds);
}

}  // namespace tessarin::engine
