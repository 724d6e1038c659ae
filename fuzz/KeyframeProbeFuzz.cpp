// ffprobe's packet list as KeyframeProbe::pick reads it. It fails only as timing or missing; what
// it returns is the end of the video (atOrAfter with a limit, when a packet ends there) or a
// keyframe the input holds, on the requested side of the time, and the nearest such keyframe:
// the boundaries it finds lie on the input's keyframes and enclose the request.
//
// The input is a ten-byte header (direction, time, origin, limit; times in milliseconds, odd
// values, or near a packet's start or end) followed either by the JSON text itself or by packets
// built from four bytes each (and what trails them), so that the choice is reached often.

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clips/KeyframeProbe.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::KeyframeProbe;
using tessarin::fuzz::require;
using Direction = KeyframeProbe::Direction;
using Kind = KeyframeProbe::Failure::Kind;

constexpr std::size_t kHeaderBytes = 10;
// How far the result may stray across `time`, and twice that: a keyframe further inside than
// the latter must be seen by any correct choice.
constexpr double kTolerance = 0.0000005;
constexpr double kCertainMargin = 2 * kTolerance;
constexpr double kEndTolerance = 0.00001;
// Enough for a few GOPs; more would only slow every run down with longer JSON.
constexpr std::size_t kMostBuiltPackets = 256;

const double kOddValues[] = {
    -1.0,
    -0.0,
    0.0,
    1e-300,
    std::numeric_limits<double>::denorm_min(),
    1e300,
    std::numeric_limits<double>::max(),
    std::numeric_limits<double>::infinity(),
    -std::numeric_limits<double>::infinity(),
    std::numeric_limits<double>::quiet_NaN(),
    -1e-7,
    9007199254740993.0,
};

std::uint16_t word(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | (bytes[1] << 8));
}

// Milliseconds, then nudged by `tweak`, replaced by an odd value or negated, as `form` says.
double seconds(std::uint16_t milliseconds, std::uint8_t tweak, unsigned form) {
    const double base = milliseconds / 1000.0;
    switch (form % 4) {
        case 0:
            return base;
        case 1:  // within a few tolerances of the millisecond
            return base + static_cast<std::int8_t>(tweak) * 1e-7;
        case 2:
            return kOddValues[tweak % std::size(kOddValues)];
        default:
            return -base;
    }
}

std::string fixed6(double value) {
    char text[512];
    const auto [end, error] =
        std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 6);
    return error == std::errc() ? std::string(text, end) : std::string("N/A");
}

// Packets of four bytes each, at most kMostBuiltPackets: what the packet looks like, its time in
// milliseconds after `origin`, and its duration in milliseconds. With `trailing`, the bytes left
// over follow the document as they are.
std::string structuredPackets(std::string_view bytes, double origin, bool trailing) {
    static constexpr const char* kFlags[] = {"K_", "__", "KD", "_D"};
    const double base = std::isfinite(origin) ? origin : 0.0;
    nlohmann::json packets = nlohmann::json::array();
    std::size_t at = 0;
    for (; at + 4 <= bytes.size() && at < 4 * kMostBuiltPackets; at += 4) {
        const auto byte = [&](std::size_t k) { return static_cast<std::uint8_t>(bytes[at + k]); };
        const std::uint8_t shape = byte(0);
        if (shape & 0x80) {
            packets.push_back(nullptr);
            continue;
        }
        const double offset = (byte(1) | (byte(2) << 8)) / 1000.0;
        const double pts = base + ((shape & 0x20) ? -offset : offset);
        nlohmann::json packet = nlohmann::json::object();
        if (shape & 0x08) {
            packet["pts_time"] = "N/A";
        } else if (shape & 0x40) {
            packet["pts_time"] = pts;
        } else {
            packet["pts_time"] = fixed6(pts);
        }
        if (!(shape & 0x10)) {
            packet["duration_time"] = fixed6(byte(3) / 1000.0);
        }
        if (!(shape & 0x04)) {
            packet["flags"] = kFlags[shape & 0x03];
        }
        packets.push_back(std::move(packet));
    }
    std::string text = nlohmann::json{{"packets", packets}}.dump();
    if (trailing) {
        text.append(bytes.substr(at));
    }
    return text;
}

// "-?[0-9]+(\.[0-9]+)?", the only form ffprobe prints a time in.
bool isPlainDecimal(std::string_view text) {
    std::size_t at = text.starts_with('-') ? 1 : 0;
    const auto digits = [&] {
        const std::size_t start = at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            ++at;
        }
        return at > start;
    };
    if (!digits()) {
        return false;
    }
    if (at < text.size() && text[at] == '.') {
        ++at;
        if (!digits()) {
            return false;
        }
    }
    return at == text.size();
}

struct Number {
    double value = 0;
    bool plain = false;  // in ffprobe's own form, so that any reader takes it the same way
};

// A string member read by strtod over the whole text; broader than any strict reading, so
// "some packet has this value" is never missed.
std::optional<Number> number(const nlohmann::json& packet, const char* key) {
    const auto found = packet.find(key);
    if (found == packet.end() || !found->is_string()) {
        return std::nullopt;
    }
    const std::string& text = found->get_ref<const std::string&>();
    if (text.empty() || text.find('\0') != std::string::npos) {
        return std::nullopt;
    }
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size()) {
        return std::nullopt;
    }
    return Number{value, isPlainDecimal(text)};
}

struct Keyframe {
    double at = 0;         // max(pts - origin, 0)
    bool certain = false;  // plain text and not before the timeline's zero
};

struct Packets {
    std::vector<Keyframe> keyframes;
    std::vector<double> starts;   // pts - origin
    std::vector<double> ends;     // pts - origin + duration of the packets that have both
    std::vector<double> reaches;  // the furthest each packet reaches: its end, or its start
};

Packets readPackets(const nlohmann::json& document, double origin) {
    Packets read;
    if (!document.is_object() || !document.contains("packets") || !document["packets"].is_array()) {
        return read;
    }
    for (const nlohmann::json& packet : document["packets"]) {
        if (!packet.is_object()) {
            continue;
        }
        const std::optional<Number> pts = number(packet, "pts_time");
        const std::optional<Number> duration = number(packet, "duration_time");
        if (!pts || !std::isfinite(pts->value)) {
            continue;
        }
        const double start = pts->value - origin;
        read.starts.push_back(start);
        read.reaches.push_back(start);
        if (duration && std::isfinite(duration->value)) {
            read.ends.push_back(start + duration->value);
            read.reaches.push_back(start + std::max(duration->value, 0.0));
        }
        const auto flags = packet.find("flags");
        if (flags == packet.end() || !flags->is_string()) {
            continue;
        }
        const std::string& text = flags->get_ref<const std::string&>();
        if (text.find('K') != std::string::npos && text.find('D') == std::string::npos) {
            read.keyframes.push_back({std::max(start, 0.0), pts->plain && start >= 0});
        }
    }
    return read;
}

// Near one of `times` (the input's packet starts or ends): the one at `index` modulo their
// count, moved by `tweak` in steps of 0.1 µs or 0.1 ms, so that the tolerances are tried. The
// milliseconds, negated, when there are none.
double near(const std::vector<double>& times, std::uint16_t index, std::uint8_t tweak) {
    if (times.empty()) {
        return -(index / 1000.0);
    }
    const double step = (tweak & 0x01) ? 1e-4 : 1e-7;
    return times[index % times.size()] + (static_cast<std::int8_t>(tweak) / 2) * step;
}

bool isBackward(Direction direction) {
    return direction == Direction::previous || direction == Direction::atOrBefore;
}

bool onSide(double k, double time, Direction direction) {
    switch (direction) {
        case Direction::previous:
            return k < time;
        case Direction::next:
            return k > time;
        case Direction::atOrBefore:
            return k <= time + kTolerance;
        case Direction::atOrAfter:
            return k >= time - kTolerance;
    }
    return false;
}

// Inside the requested side by more than the tolerance: no correct choice may pass it over.
bool certainlyOnSide(double k, double time, Direction direction) {
    switch (direction) {
        case Direction::previous:
            return k < time - kCertainMargin;
        case Direction::next:
            return k > time + kCertainMargin;
        case Direction::atOrBefore:
            return k <= time;
        case Direction::atOrAfter:
            return k >= time;
    }
    return false;
}

// The claim a keyframe answer breaks, or nothing.
std::optional<std::string_view> keyframeFault(double result, const Packets& packets, double time,
                                              Direction direction) {
    if (std::none_of(packets.keyframes.begin(), packets.keyframes.end(),
                     [&](const Keyframe& keyframe) { return keyframe.at == result; })) {
        return "the answer is a keyframe of the input";
    }
    if (!onSide(result, time, direction)) {
        return "the keyframe lies on the requested side";
    }
    for (const Keyframe& keyframe : packets.keyframes) {
        if (keyframe.certain && certainlyOnSide(keyframe.at, time, direction) &&
            (isBackward(direction) ? keyframe.at > result : keyframe.at < result)) {
            return "no keyframe of the input lies between the request and the answer";
        }
    }
    if (isBackward(direction) &&
        std::none_of(packets.reaches.begin(), packets.reaches.end(),
                     [&](double reach) { return reach >= time - kCertainMargin; })) {
        return "a backward answer comes from a scan that reached the time";
    }
    return std::nullopt;
}

// The claim an answer of the end of the video breaks, or nothing.
std::optional<std::string_view> endFault(double limit, const Packets& packets, double time) {
    if (!std::isfinite(limit) || limit < time - kTolerance) {
        return "the end lies at or after the time";
    }
    if (std::none_of(packets.ends.begin(), packets.ends.end(),
                     [&](double end) { return std::fabs(end - limit) <= 2 * kEndTolerance; })) {
        return "the end is answered only when a packet ends there";
    }
    for (const Keyframe& keyframe : packets.keyframes) {
        if (keyframe.certain && keyframe.at >= time && keyframe.at < limit - kCertainMargin) {
            return "the end is not answered over a keyframe before it";
        }
    }
    return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kHeaderBytes) {
        return 0;
    }
    const std::uint8_t control = data[0];
    const auto direction = static_cast<Direction>(control & 0x03);
    const double origin = seconds(word(data + 4), data[6], data[6] >> 6);
    const std::string_view payload(reinterpret_cast<const char*>(data) + kHeaderBytes,
                                   size - kHeaderBytes);
    const std::string json = (control & 0x08)
                                 ? structuredPackets(payload, origin, (control & 0x40) != 0)
                                 : std::string(payload);
    const std::optional<nlohmann::json> document = tessarin::fuzz::parseStrictJson(json);
    const Packets packets = document ? readPackets(*document, origin) : Packets{};

    const unsigned timeForm = (control >> 4) & 0x03;
    const double time = timeForm == 3 ? near(packets.starts, word(data + 1), data[3])
                                      : seconds(word(data + 1), data[3], timeForm);
    std::optional<double> limit;
    if (control & 0x04) {
        limit = (data[9] & 0x02) ? near(packets.ends, word(data + 7), data[9])
                                 : seconds(word(data + 7), data[9], data[9] & 0x01);
    }
    const bool usable =
        std::isfinite(time) && std::isfinite(origin) && time >= 0 && std::isfinite(time + origin);

    double result = 0;
    try {
        result = KeyframeProbe::pick(json, time, origin, direction, limit);
    } catch (const KeyframeProbe::Failure& failure) {
        require(failure.kind() == Kind::timing || failure.kind() == Kind::missing,
                "pick fails only as timing or missing");
        if (!usable || !document || !document->is_object()) {
            require(failure.kind() == Kind::timing,
                    "an unusable time or text that is not a JSON object is a timing failure");
        }
        return 0;
    }
    require(usable, "an unusable time or origin is refused");
    require(document && document->is_object(), "text that is not a JSON object is refused");

    const std::optional<std::string_view> asKeyframe =
        keyframeFault(result, packets, time, direction);
    if (direction == Direction::atOrAfter && limit && result == *limit) {
        const std::optional<std::string_view> asEnd = endFault(*limit, packets, time);
        require(!asKeyframe || !asEnd, asEnd.value_or(""));
        return 0;
    }
    require(!asKeyframe, asKeyframe.value_or(""));
    return 0;
}
