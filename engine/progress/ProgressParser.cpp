#include "engine/progress/ProgressParser.hpp"

#include <locale.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "engine/model/NumberText.hpp"
#include "engine/model/TimeText.hpp"

namespace tessarin::engine {

namespace {

bool isLineBreak(char c) {
    return c == '\n' || c == '\r';
}

std::size_t findLineBreak(std::string_view text, std::size_t from) {
    for (std::size_t i = from; i < text.size(); ++i) {
        if (isLineBreak(text[i])) {
            return i;
        }
    }
    return std::string_view::npos;
}

std::string_view trimSpacesAndTabs(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// A decimal integer with an optional sign that fits 64 bits, and nothing else.
std::optional<std::int64_t> parseInteger(std::string_view text) {
    std::string_view digits = text;
    if (!digits.empty() && digits.front() == '+') {
        digits.remove_prefix(1);
        if (!digits.empty() && digits.front() == '-') {
            return std::nullopt;
        }
    }
    std::int64_t value = 0;
    const char* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value, 10);
    if (digits.empty() || error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

std::optional<double> parseSpeed(std::string_view value) {
    std::string withoutX;
    withoutX.reserve(value.size());
    for (const char c : value) {
        if (c != 'x') {
            withoutX.push_back(c);
        }
    }
    return parseFiniteDouble(trimSpacesAndTabs(withoutX));
}

}  // namespace

std::vector<ProgressSnapshot> ProgressParser::feed(std::string_view chunk) {
    std::vector<ProgressSnapshot> completed;
    std::size_t position = 0;

    // buffer_ is always empty while discarding.
    if (discardingOversizedLine_) {
        const std::size_t lineBreak = findLineBreak(chunk, 0);
        if (lineBreak == std::string_view::npos) {
            return completed;
        }
        position = lineBreak + 1;
        discardingOversizedLine_ = false;
    }

    std::size_t lineBreak = findLineBreak(chunk, position);
    if (lineBreak != std::string_view::npos && !buffer_.empty()) {
        // The first line began in an earlier chunk.
        buffer_.append(chunk.substr(position, lineBreak - position));
        applyLine(buffer_, completed);
        buffer_.clear();
        position = lineBreak + 1;
        lineBreak = findLineBreak(chunk, position);
    }
    while (lineBreak != std::string_view::npos) {
        applyLine(chunk.substr(position, lineBreak - position), completed);
        position = lineBreak + 1;
        lineBreak = findLineBreak(chunk, position);
    }

    const std::string_view rest = chunk.substr(position);
    if (buffer_.size() + rest.size() > kMaxPendingBytes) {
        buffer_.clear();
        discardingOversizedLine_ = true;
    } else {
        buffer_.append(rest);
    }
    return completed;
}

void ProgressParser::applyLine(std::string_view rawLine, std::vector<ProgressSnapshot>& completed) {
    const std::string_view line = trimSpacesAndTabs(rawLine);
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        return;
    }
    const std::string_view key = line.substr(0, equals);
    const std::string_view value = line.substr(equals + 1);

    if (key == "out_time_us" || key == "out_time_ms") {
        const std::optional<double> micros = parseFiniteDouble(value);
        current_.outTimeSeconds =
            micros ? std::optional<double>(*micros / 1'000'000.0) : std::nullopt;
    } else if (key == "out_time") {
        if (const std::optional<double> seconds = parseTimeSeconds(value)) {
            current_.outTimeSeconds = seconds;
        }
    } else if (key == "frame") {
        current_.frame = parseInteger(value);
    } else if (key == "speed") {
        current_.speed = parseSpeed(value);
    } else if (key == "progress") {
        current_.isEnd = value == "end";
        completed.push_back(current_);
    }
}

std::optional<double> ProgressParser::fraction(const ProgressSnapshot& snapshot,
                                               std::optional<double> duration, double lo,
                                               double hi) {
    if (!duration || !std::isfinite(*duration) || *duration <= 0) {
        return std::nullopt;
    }
    if (!snapshot.outTimeSeconds || !std::isfinite(*snapshot.outTimeSeconds)) {
        return std::nullopt;
    }
    double ratio = *snapshot.outTimeSeconds / *duration;
    if (ratio <= 0) {
        ratio = 0;
    } else if (ratio > 1) {
        ratio = 1;
    }
    return lo + (hi - lo) * ratio;
}

}  // namespace tessarin::engine
