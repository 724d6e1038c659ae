#include "engine/clips/KeyframeProbe.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

namespace tessarin::engine {

namespace {

// A keyframe a hair before zero is the first one; ffprobe's rounding puts it there.
constexpr double kBeforeZeroTolerance = 0.000001;
constexpr double kDirectionTolerance = 0.0000005;
constexpr double kEndTolerance = 0.00001;

// ffprobe's decimal text: a double when the whole text is one (infinities and NaN included, so
// that the caller can tell unparseable from non-finite), nothing otherwise.
std::optional<double> parseNumber(const nlohmann::json& packet, const char* key) {
    const auto found = packet.find(key);
    if (found == packet.end() || !found->is_string()) {
        return std::nullopt;
    }
    const std::string& text = found->get_ref<const std::string&>();
    double value = 0;
    const char* first = text.data();
    const char* last = first + text.size();
    const auto [end, error] = std::from_chars(first, last, value);
    if (error != std::errc() || end != last) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::string_view> flagsOf(const nlohmann::json& packet) {
    const auto found = packet.find("flags");
    if (found == packet.end() || !found->is_string()) {
        return std::nullopt;
    }
    return std::string_view(found->get_ref<const std::string&>());
}

bool isDiscarded(const nlohmann::json& packet) {
    const std::optional<std::string_view> flags = flagsOf(packet);
    return flags && flags->find('D') != std::string_view::npos;
}

bool isBackward(KeyframeProbe::Direction direction) {
    return direction == KeyframeProbe::Direction::previous ||
           direction == KeyframeProbe::Direction::atOrBefore;
}

using Failure = KeyframeProbe::Failure;

// The backward directions need the scan to have reached `time`; a scan that stopped short can't
// tell which keyframe is nearest.
bool reachedTime(const nlohmann::json& packets, double time, double origin) {
    for (const nlohmann::json& packet : packets) {
        if (!packet.is_object()) {
            continue;
        }
        const std::optional<double> pts = parseNumber(packet, "pts_time");
        if (!pts || !std::isfinite(*pts)) {
            continue;
        }
        double duration = parseNumber(packet, "duration_time").value_or(0);
        if (!std::isfinite(duration)) {
            continue;
        }
        duration = std::max(duration, 0.0);
        if (*pts - origin + duration >= time) {
            return true;
        }
    }
    return false;
}

// The end of the video as a boundary: `limit`, when the last packet ends exactly there.
double endOfVideo(const nlohmann::json& packets, double time, double origin,
                  std::optional<double> limit) {
    if (!limit || !std::isfinite(*limit) || *limit < time ||
        packets.size() >= KeyframeProbe::kPacketLimit) {
        throw Failure(Failure::Kind::missing);
    }
    std::optional<std::pair<double, double>> last;  // start and duration of the last packet
    for (const nlohmann::json& packet : packets) {
        if (!packet.is_object() || isDiscarded(packet)) {
            continue;
        }
        const std::optional<double> pts = parseNumber(packet, "pts_time");
        const std::optional<double> duration = parseNumber(packet, "duration_time");
        if (!pts || !std::isfinite(*pts) || !duration || !std::isfinite(*duration) ||
            *duration <= 0) {
            throw Failure(Failure::Kind::timing);
        }
        const double start = *pts - origin;
        if (!last || start > last->first) {
            last = {start, *duration};
        }
    }
    if (!last || !(last->first < *limit) ||
        std::fabs(last->first + last->second - *limit) > kEndTolerance) {
        throw Failure(Failure::Kind::missing);
    }
    return *limit;
}

}  // namespace

const char* KeyframeProbe::Failure::what() const noexcept {
    switch (kind_) {
        case Kind::timing:
            return "Keyframe timing is unavailable for this media. Use the numeric trim fields.";
        case Kind::missing:
            return "No matching keyframe found in the bounded search. Choose another time or use "
                   "numeric trimming.";
        case Kind::cancelled:
            return "Keyframe search cancelled.";
    }
    return "Keyframe search failed.";
}

std::vector<std::string> KeyframeProbe::arguments(const std::filesystem::path& source, double time,
                                                  double origin, Direction direction) {
    if (!std::isfinite(origin) || !std::isfinite(time) || time < 0 ||
        !std::isfinite(time + origin)) {
        throw Failure(Failure::Kind::timing);
    }
    double start = time;
    if (isBackward(direction)) {
        start = std::max(0.0, time - kBackwardWindowSeconds);
    }
    start += origin;
    return {"-v",
            "error",
            "-select_streams",
            "V:0",
            "-read_intervals",
            fmt::format("{:.6f}%+#{}", start, kPacketLimit),
            "-show_packets",
            "-show_entries",
            "packet=pts_time,duration_time,flags",
            "-of",
            "json",
            source.string()};
}

double KeyframeProbe::find(const std::filesystem::path& source, const Tools& tools, double time,
                           double origin, Direction direction, std::optional<double> limit,
                           ProcessRunner& runner) {
    const std::vector<std::string> args = arguments(source, time, origin, direction);
    ProcessResult result;
    try {
        result = runner.run(tools.ffprobe, args, /*captureStdout=*/true, /*mergeStderr=*/false,
                            kTimeoutSeconds);
    } catch (const LaunchError&) {
        throw Failure(Failure::Kind::timing);
    }
    if (result.wasCancelled && !result.timedOut) {
        throw Failure(Failure::Kind::cancelled);
    }
    if (result.timedOut || result.exitCode != 0 || result.stdoutOverflowed || !result.stdoutData) {
        throw Failure(Failure::Kind::timing);
    }
    return pick(*result.stdoutData, time, origin, direction, limit);
}

double KeyframeProbe::pick(std::string_view json, double time, double origin, Direction direction,
                           std::optional<double> limit) {
    if (!std::isfinite(origin) || !std::isfinite(time) || time < 0 ||
        !std::isfinite(time + origin)) {
        throw Failure(Failure::Kind::timing);
    }
    // The parser stops at a NUL byte as if the input ended there; JSON never holds a raw one.
    if (json.find('\0') != std::string_view::npos) {
        throw Failure(Failure::Kind::timing);
    }
    nlohmann::json output = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
    if (output.is_discarded() || !output.is_object()) {
        throw Failure(Failure::Kind::timing);
    }
    nlohmann::json packets = nlohmann::json::array();
    if (const auto found = output.find("packets"); found != output.end()) {
        if (!found->is_array()) {
            throw Failure(Failure::Kind::timing);
        }
        packets = std::move(*found);
    }
    if (packets.size() > kPacketLimit) {
        throw Failure(Failure::Kind::timing);
    }
    if (isBackward(direction) && !reachedTime(packets, time, origin)) {
        throw Failure(Failure::Kind::missing);
    }

    std::optional<double> best;
    for (const nlohmann::json& packet : packets) {
        if (!packet.is_object()) {
            continue;
        }
        const std::optional<std::string_view> flags = flagsOf(packet);
        if (!flags || flags->find('K') == std::string_view::npos ||
            flags->find('D') != std::string_view::npos) {
            continue;
        }
        const std::optional<double> pts = parseNumber(packet, "pts_time");
        if (!pts) {
            continue;
        }
        if (!std::isfinite(*pts)) {
            throw Failure(Failure::Kind::timing);
        }
        double k = *pts - origin;
        if (k < -kBeforeZeroTolerance) {
            continue;
        }
        k = std::max(k, 0.0);
        bool keep = false;
        switch (direction) {
            case Direction::previous:
                keep = k < time - kDirectionTolerance;
                break;
            case Direction::next:
                keep = k > time + kDirectionTolerance;
                break;
            case Direction::atOrBefore:
                keep = k <= time + kDirectionTolerance;
                break;
            case Direction::atOrAfter:
                keep = k >= time - kDirectionTolerance;
                break;
        }
        if (!keep) {
            continue;
        }
        if (!best || (isBackward(direction) ? k > *best : k < *best)) {
            best = k;
        }
    }

    if (direction == Direction::atOrAfter && limit &&
        (time >= *limit - kDirectionTolerance || !best)) {
        return endOfVideo(packets, time, origin, limit);
    }
    if (!best) {
        throw Failure(Failure::Kind::missing);
    }
    return *best;
}

}  // namespace tessarin::engine
