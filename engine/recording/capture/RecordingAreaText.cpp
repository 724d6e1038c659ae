#include "engine/recording/capture/RecordingAreaText.hpp"

#include <fmt/format.h>

namespace tessarin::engine {

namespace {

// Digits only (no sign, no space), at most six of them.
std::optional<int64_t> coordinate(std::string_view text) {
    if (text.empty() || text.size() > 6) {
        return std::nullopt;
    }
    int64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + (c - '0');
    }
    return value <= kMaximumAreaCoordinate ? std::optional(value) : std::nullopt;
}

}  // namespace

std::optional<RecordingRect> parseRecordingArea(std::string_view text) {
    int64_t values[4] = {};
    for (int i = 0; i < 4; ++i) {
        const std::size_t comma = text.find(',');
        const bool last = i == 3;
        if ((comma == std::string_view::npos) != last) {
            return std::nullopt;
        }
        const auto value = coordinate(last ? text : text.substr(0, comma));
        if (!value) {
            return std::nullopt;
        }
        values[i] = *value;
        text = last ? std::string_view() : text.substr(comma + 1);
    }
    if (values[2] < 1 || values[3] < 1) {
        return std::nullopt;
    }
    return RecordingRect{values[0], values[1], values[2], values[3]};
}

std::string recordingAreaText(const RecordingRect& area) {
    return fmt::format("{},{},{},{}", area.x, area.y, area.width, area.height);
}

}  // namespace tessarin::engine
