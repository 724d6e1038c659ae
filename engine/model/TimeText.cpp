#include "engine/model/TimeText.hpp"

#include <fmt/format.h>
#include <locale.h>

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace tessarin::engine {

namespace {

// strtod in the C locale whatever the user's locale is, so "1,5" never means 1.5.
std::optional<double> parseDecimal(const std::string& piece) {
    if (piece.empty() || std::isspace(static_cast<unsigned char>(piece.front()))) {
        return std::nullopt;
    }
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    char* end = nullptr;
    const double value = strtod_l(piece.c_str(), &end, cLocale);
    if (end != piece.c_str() + piece.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

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
        const std::optional<double> value = parseDecimal(piece);
        if (!value || !std::isfinite(*value) || *value < 0) {
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
