// The log of ffmpeg's showinfo filter, line by line, as ShowinfoParser::consume reads it. It
// fails only as Failure, and only once an instance was learnt; the instance and time base it
// learns are those its configuration line printed; the frames it returns come from that
// instance's frame lines and carry their numbers, numbered 0, 1, 2… with rising timestamps,
// times from the integer timestamp and the time base, usable durations and sizes within the
// limit.
//
// The input is a two-byte header (a real configuration line to put first, the size limit)
// followed by the log, cut into lines at "\n".

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "engine/frames/ShowinfoParser.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::ShowinfoParser;
using tessarin::fuzz::require;

constexpr std::size_t kHeaderBytes = 2;

// As FFmpeg 5.1 printed them (tests/engine/frames/golden/ffmpeg-5.1).
constexpr std::string_view kConfigurationLines[] = {
    "[Parsed_showinfo_0 @ 0x558308bca640] config in time_base: 1/25, frame_rate: 25/1",
    "[Parsed_showinfo_2 @ 0x55d6a9bcb440] config in time_base: 1/15360, frame_rate: 30/1",
    "[Parsed_showinfo_0 @ 0x55649cef8940] config in time_base: 1/12800, frame_rate: 25/1",
};

std::optional<int64_t> longEdgeLimit(std::uint8_t form, std::uint8_t value) {
    switch (form % 4) {
        case 0:
            return std::nullopt;
        case 1:
            return value;
        case 2:
            return int64_t{value} * 16;
        default:
            return 320;  // the frame export's analysis size
    }
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// A reading of a line that knows nothing of the parser's.
class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    bool literal(std::string_view piece) {
        if (text_.substr(at_).substr(0, piece.size()) != piece) {
            return false;
        }
        at_ += piece.size();
        return true;
    }
    void spaces() {
        while (at_ < text_.size() && text_[at_] == ' ') {
            ++at_;
        }
    }
    // Decimal digits, with a minus sign when `sign` allows one; nothing when there are no
    // digits or the value leaves int64_t.
    std::optional<int64_t> integer(bool sign) {
        const bool negative = sign && literal("-");
        const std::size_t start = at_;
        // Accumulated negatively so that the most negative value fits.
        int64_t value = 0;
        bool overflow = false;
        for (; at_ < text_.size() && isDigit(text_[at_]); ++at_) {
            const int64_t digit = text_[at_] - '0';
            if (value < (std::numeric_limits<int64_t>::min() + digit) / 10) {
                overflow = true;
            } else {
                value = value * 10 - digit;
            }
        }
        if (at_ == start || overflow) {
            return std::nullopt;
        }
        if (negative) {
            return value;
        }
        if (value == std::numeric_limits<int64_t>::min()) {
            return std::nullopt;
        }
        return -value;
    }
    // "[Parsed_showinfo_<digits> @ 0x<lower hex>]"
    bool tag() {
        if (!literal("[Parsed_showinfo_") || !skip(isDigit) || !literal(" @ 0x") ||
            !skip([](char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); })) {
            return false;
        }
        return literal("]");
    }
    [[nodiscard]] std::size_t position() const { return at_; }

private:
    template <typename Predicate>
    bool skip(Predicate accepts) {
        const std::size_t start = at_;
        while (at_ < text_.size() && accepts(text_[at_])) {
            ++at_;
        }
        return at_ > start;
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

// The line that taught the parser its instance: a whole tag, then the time base it printed.
void checkLearnt(const ShowinfoParser& parser, std::string_view line) {
    Reader reader(line);
    require(reader.tag() && line.substr(0, reader.position()) == *parser.tag(),
            "the learnt tag is the line's whole tag");
    require(reader.literal(" config in time_base: "),
            "the instance is learnt from its config line");
    const std::optional<int64_t> numerator = reader.integer(false);
    require(reader.literal("/"), "the config line has a time base");
    const std::optional<int64_t> denominator = reader.integer(false);
    require(reader.literal(", frame_rate: "), "the config line has a frame rate");
    require(numerator && denominator && *numerator > 0 && *denominator > 0,
            "only a usable time base is learnt");
    require(parser.numerator() == *numerator && parser.denominator() == *denominator,
            "the time base is the line's");
    require(parser.timeBase() == std::to_string(*numerator) + "/" + std::to_string(*denominator),
            "timeBase() spells the time base");
}

// The frame line's own numbers: " n:" and " pts:" right after the tag, and some " s:WxH".
void checkFrameLine(const ShowinfoParser::Frame& frame, std::string_view line,
                    std::string_view tag) {
    require(line.starts_with(tag), "a frame comes from a line of the learnt instance");
    require(line.size() <= ShowinfoParser::kMaximumLineBytes,
            "a frame line is no longer than kMaximumLineBytes");
    Reader reader(line.substr(tag.size()));
    require(reader.literal(" n:"), "a frame line starts with its number");
    reader.spaces();
    const std::optional<int64_t> n = reader.integer(false);
    reader.spaces();
    require(reader.literal("pts:"), "a frame line has a timestamp after its number");
    reader.spaces();
    const std::optional<int64_t> pts = reader.integer(true);
    require(n && *n == frame.n, "the frame's number is the line's");
    require(pts && *pts == frame.pts, "the frame's timestamp is the line's");

    bool sized = false;
    for (std::size_t at = line.find(" s:"); at != std::string_view::npos && !sized;
         at = line.find(" s:", at + 1)) {
        Reader size(line.substr(at + 3));
        const std::optional<int64_t> width = size.integer(false);
        sized = width && *width == frame.width && size.literal("x") &&
                size.integer(false) == std::optional<int64_t>(frame.height);
    }
    require(sized, "the frame's size is printed in its line");
}

void checkFrame(const ShowinfoParser& parser, const ShowinfoParser::Frame& frame,
                std::optional<int64_t> longEdge, int64_t expectedN,
                std::optional<int64_t> lastPts) {
    require(frame.n == expectedN, "frames are numbered 0, 1, 2… in order");
    require(!lastPts || frame.pts > *lastPts, "timestamps rise strictly");

    const long double expected = static_cast<long double>(frame.pts) *
                                 static_cast<long double>(parser.numerator()) /
                                 static_cast<long double>(parser.denominator());
    require(std::isfinite(frame.time) && std::fabs(static_cast<long double>(frame.time) -
                                                   expected) <= 1e-12L * std::fabs(expected),
            "time is pts times the time base");
    require(std::isfinite(frame.duration) && frame.duration >= 0,
            "a duration is finite and not negative");
    require(frame.width >= 1 && frame.height >= 1, "a frame has a size");
    if (longEdge) {
        require(frame.width <= *longEdge && frame.height <= *longEdge,
                "a frame lies within the size limit");
    }
    require(parser.expectedN() == frame.n + 1 && parser.lastPts() == frame.pts,
            "the parser waits for the next number after the frame's timestamp");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kHeaderBytes) {
        return 0;
    }
    const std::uint8_t configurationChoice = data[0] & 0x03;
    const std::optional<int64_t> longEdge = longEdgeLimit(data[0] >> 2, data[1]);
    ShowinfoParser parser(longEdge);

    std::string log;
    if (configurationChoice > 0) {
        log = std::string(kConfigurationLines[configurationChoice - 1]) + "\n";
    }
    log.append(reinterpret_cast<const char*>(data) + kHeaderBytes, size - kHeaderBytes);

    int64_t frames = 0;
    std::optional<int64_t> lastPts;
    std::size_t begin = 0;
    while (begin < log.size()) {
        const std::size_t newline = std::min(log.find('\n', begin), log.size());
        const std::string_view line = std::string_view(log).substr(begin, newline - begin);
        begin = newline + 1;

        const std::optional<std::string> tagBefore = parser.tag();
        std::optional<ShowinfoParser::Frame> frame;
        try {
            frame = parser.consume(line);
        } catch (const ShowinfoParser::Failure&) {
            require(tagBefore.has_value(), "nothing fails before an instance was learnt");
            break;
        } catch (...) {
            require(false, "consume throws ShowinfoParser::Failure only");
        }

        if (!tagBefore) {
            require(!frame, "no frame before a configuration line was accepted");
            if (parser.tag()) {
                checkLearnt(parser, line);
            }
            continue;
        }
        require(parser.tag() == tagBefore, "the learnt instance never changes");
        if (frame) {
            checkFrameLine(*frame, line, *tagBefore);
            checkFrame(parser, *frame, longEdge, frames, lastPts);
            ++frames;
            lastPts = frame->pts;
        } else {
            require(parser.expectedN() == frames && parser.lastPts() == lastPts,
                    "a line that gives no frame leaves the numbering as it was");
        }
    }
    return 0;
}
