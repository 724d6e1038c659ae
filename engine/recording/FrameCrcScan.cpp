#include "engine/recording/FrameCrcScan.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace tessarin::engine {

namespace {

// The most streams one input may describe; further ones are passed over.
constexpr std::size_t kMaximumStreams = 64;

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

std::optional<int64_t> integer(std::string_view text) {
    text = trimmed(text);
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
        return std::nullopt;
    }
    return value;
}

// The next comma-separated field of `rest`, which loses it.
std::string_view field(std::string_view& rest) {
    const std::size_t comma = rest.find(',');
    const std::string_view part = rest.substr(0, comma);
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    return part;
}

}  // namespace

void FrameCrcScan::addLine(std::string_view line) {
    if (line.size() > kMaximumLineBytes || line.empty()) {
        return;
    }
    if (line.front() == '#') {
        // "#tb 0: 1/15360" or "#media_type 0: video"
        const std::size_t space = line.find(' ');
        const std::size_t colon = line.find(':');
        if (space == std::string_view::npos || colon == std::string_view::npos || colon < space) {
            return;
        }
        const std::string_view key = line.substr(1, space - 1);
        const std::optional<int64_t> index = integer(line.substr(space + 1, colon - space - 1));
        const std::string_view value = trimmed(line.substr(colon + 1));
        if (!index || *index < 0 || (key != "tb" && key != "media_type")) {
            return;
        }
        if (!streams_.contains(*index) && streams_.size() >= kMaximumStreams) {
            return;
        }
        Stream& stream = streams_[*index];
        if (key == "media_type") {
            stream.type = std::string(value);
            return;
        }
        const std::size_t slash = value.find('/');
        const std::optional<int64_t> numerator = integer(value.substr(0, slash));
        const std::optional<int64_t> denominator =
            slash == std::string_view::npos ? std::nullopt : integer(value.substr(slash + 1));
        if (numerator && denominator && *numerator > 0 && *denominator > 0) {
            stream.timeBase = static_cast<double>(*numerator) / static_cast<double>(*denominator);
        }
        return;
    }
    std::string_view rest = line;
    const std::optional<int64_t> index = integer(field(rest));
    (void)field(rest);  // dts
    const std::optional<int64_t> pts = integer(field(rest));
    const std::optional<int64_t> duration = integer(field(rest));
    if (!index || !pts || !duration) {
        return;
    }
    const auto found = streams_.find(*index);
    if (found == streams_.end() || found->second.timeBase <= 0) {
        return;
    }
    Stream& stream = found->second;
    const double start = static_cast<double>(*pts) * stream.timeBase;
    const double end = start + static_cast<double>(std::max<int64_t>(*duration, 0)) * stream.timeBase;
    if (!std::isfinite(start) || !std::isfinite(end)) {
        return;
    }
    stream.first = stream.first ? std::min(*stream.first, start) : start;
    stream.end = stream.end ? std::max(*stream.end, end) : end;
}

int64_t FrameCrcScan::videoStreams() const {
    return std::count_if(streams_.begin(), streams_.end(),
                         [](const auto& entry) { return entry.second.type == "video"; });
}

int64_t FrameCrcScan::audioStreams() const {
    return std::count_if(streams_.begin(), streams_.end(),
                         [](const auto& entry) { return entry.second.type == "audio"; });
}

std::optional<double> FrameCrcScan::videoSeconds() const {
    for (const auto& [index, stream] : streams_) {
        if (stream.type != "video") {
            continue;
        }
        if (!stream.first || !stream.end) {
            return std::nullopt;
        }
        const double span = *stream.end - *stream.first;
        if (!std::isfinite(span) || span < 0) {
            return std::nullopt;
        }
        return span;
    }
    return std::nullopt;
}

}  // namespace tessarin::engine
