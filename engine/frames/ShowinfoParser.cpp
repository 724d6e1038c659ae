#include "engine/frames/ShowinfoParser.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <string>
#include <system_error>
#include <utility>

namespace tessarin::engine {

namespace {

using Kind = ShowinfoParser::Failure::Kind;

constexpr std::array<std::pair<Kind, std::string_view>, 4> kCaseNames = {{
    {Kind::malformed, "malformed"},
    {Kind::outOfOrder, "outOfOrder"},
    {Kind::oversized, "oversized"},
    {Kind::reconfigured, "reconfigured"},
}};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isLowerHex(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f');
}
bool isBlank(char c) {
    return c == ' ';
}
bool isWhitespace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool isNotWhitespace(char c) {
    return !isWhitespace(c);
}

// A position in a line, moved forward by the pieces of a pattern. The patterns are anchored at
// both ends and their pieces never need to give characters back, except the lazy gap before the
// size and the optional duration fields, which are tried explicitly.
class Cursor {
public:
    explicit Cursor(std::string_view text, std::size_t at = 0) : text_(text), at_(at) {}

    [[nodiscard]] std::size_t position() const { return at_; }
    [[nodiscard]] bool atEnd() const { return at_ >= text_.size(); }
    [[nodiscard]] std::string_view rest() const { return text_.substr(at_); }

    bool literal(std::string_view piece) {
        if (!rest().starts_with(piece)) {
            return false;
        }
        at_ += piece.size();
        return true;
    }

    // The longest run of characters that satisfy `accepts`, possibly empty.
    template <typename Predicate>
    std::string_view run(Predicate accepts) {
        const std::size_t start = at_;
        while (at_ < text_.size() && accepts(text_[at_])) {
            ++at_;
        }
        return text_.substr(start, at_ - start);
    }

    // "-?[0-9]+", or empty when there are no digits.
    std::string_view signedDigits() {
        const std::size_t start = at_;
        literal("-");
        if (run(isDigit).empty()) {
            at_ = start;
            return {};
        }
        return text_.substr(start, at_ - start);
    }

private:
    std::string_view text_;
    std::size_t at_;
};

struct ConfigurationLine {
    std::string_view tag;
    std::string_view numerator;
    std::string_view denominator;
    std::string_view frameRate;
};

// "(\[Parsed_showinfo_[0-9]+ @ 0x[0-9a-f]+\]) config in time_base: ([0-9]+)/([0-9]+),
// frame_rate: .*", matched over the whole line.
std::optional<ConfigurationLine> matchConfiguration(std::string_view line) {
    if (line.find('\n') != std::string_view::npos) {
        return std::nullopt;
    }
    Cursor cursor(line);
    if (!cursor.literal("[Parsed_showinfo_") || cursor.run(isDigit).empty() ||
        !cursor.literal(" @ 0x") || cursor.run(isLowerHex).empty() || !cursor.literal("]")) {
        return std::nullopt;
    }
    ConfigurationLine result;
    result.tag = line.substr(0, cursor.position());
    if (!cursor.literal(" config in time_base: ")) {
        return std::nullopt;
    }
    result.numerator = cursor.run(isDigit);
    if (result.numerator.empty() || !cursor.literal("/")) {
        return std::nullopt;
    }
    result.denominator = cursor.run(isDigit);
    if (result.denominator.empty() || !cursor.literal(", frame_rate: ")) {
        return std::nullopt;
    }
    result.frameRate = cursor.rest();
    return result;
}

struct FrameLine {
    std::string_view n;
    std::string_view pts;
    std::optional<std::string_view> duration;
    std::string_view width;
    std::string_view height;
};

// " .*? s:([0-9]+)x([0-9]+)(?: .*)?" from `from` to the end of `body`: the first " s:" that is
// followed by a well-formed size wins, as the lazy gap would have it.
bool matchSize(std::string_view body, std::size_t from, FrameLine& line) {
    if (from >= body.size() || body[from] != ' ') {
        return false;
    }
    for (std::size_t at = body.find(" s:", from + 1); at != std::string_view::npos;
         at = body.find(" s:", at + 1)) {
        Cursor cursor(body, at + 3);
        const std::string_view width = cursor.run(isDigit);
        if (width.empty() || !cursor.literal("x")) {
            continue;
        }
        const std::string_view height = cursor.run(isDigit);
        if (height.empty() || !(cursor.atEnd() || cursor.literal(" "))) {
            continue;
        }
        line.width = width;
        line.height = height;
        return true;
    }
    return false;
}

// " n: *([0-9]+) +pts: *(-?[0-9]+) +pts_time:\S+( +duration: *(-?[0-9]+) +duration_time:\S+)?"
// followed by the size, over the whole of `body` (the line after its tag). FFmpeg 6.0 added the
// duration fields; older versions go straight on to "pos:" or "fmt:".
std::optional<FrameLine> matchFrameBody(std::string_view body) {
    if (body.find('\n') != std::string_view::npos) {
        return std::nullopt;
    }
    FrameLine line;
    Cursor cursor(body);
    if (!cursor.literal(" n:")) {
        return std::nullopt;
    }
    cursor.run(isBlank);
    line.n = cursor.run(isDigit);
    if (line.n.empty() || cursor.run(isBlank).empty() || !cursor.literal("pts:")) {
        return std::nullopt;
    }
    cursor.run(isBlank);
    line.pts = cursor.signedDigits();
    if (line.pts.empty() || cursor.run(isBlank).empty() || !cursor.literal("pts_time:") ||
        cursor.run(isNotWhitespace).empty()) {
        return std::nullopt;
    }

    Cursor withDuration = cursor;
    if (!withDuration.run(isBlank).empty() && withDuration.literal("duration:")) {
        withDuration.run(isBlank);
        const std::string_view duration = withDuration.signedDigits();
        if (!duration.empty() && !withDuration.run(isBlank).empty() &&
            withDuration.literal("duration_time:") && !withDuration.run(isNotWhitespace).empty() &&
            matchSize(body, withDuration.position(), line)) {
            line.duration = duration;
            return line;
        }
    }
    if (matchSize(body, cursor.position(), line)) {
        return line;
    }
    return std::nullopt;
}

// Base 10, locale-free; nothing on an empty text, stray characters or overflow.
std::optional<int64_t> parseInteger(std::string_view text) {
    int64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

// One frame period of a configuration line's "N/D" frame rate, or 0 when there is none.
double framePeriod(std::string_view frameRate) {
    Cursor cursor(frameRate);
    const std::optional<int64_t> numerator = parseInteger(cursor.run(isDigit));
    if (!numerator || !cursor.literal("/")) {
        return 0;
    }
    const std::optional<int64_t> denominator = parseInteger(cursor.run(isDigit));
    if (!denominator || *numerator <= 0 || *denominator <= 0) {
        return 0;
    }
    return static_cast<double>(*denominator) / static_cast<double>(*numerator);
}

[[noreturn]] void fail(Kind kind) {
    throw ShowinfoParser::Failure(kind);
}

}  // namespace

const char* ShowinfoParser::Failure::what() const noexcept {
    return caseName(kind_).data();
}

std::string_view ShowinfoParser::Failure::caseName(Kind kind) noexcept {
    for (const auto& [candidate, name] : kCaseNames) {
        if (candidate == kind) {
            return name;
        }
    }
    return "malformed";
}

ShowinfoParser::ShowinfoParser(std::optional<int64_t> maximumLongEdge)
    : maximumLongEdge_(maximumLongEdge) {}

std::optional<ShowinfoParser::Frame> ShowinfoParser::consume(std::string_view line) {
    const std::optional<ConfigurationLine> configuration = matchConfiguration(line);
    if (!tag_) {
        if (!configuration) {
            return std::nullopt;
        }
        const std::optional<int64_t> numerator = parseInteger(configuration->numerator);
        const std::optional<int64_t> denominator = parseInteger(configuration->denominator);
        // An unusable time base leaves the instance unlearnt rather than failing: its frames
        // could never be timed.
        if (!numerator || !denominator || *numerator <= 0 || *denominator <= 0) {
            return std::nullopt;
        }
        tag_ = std::string(configuration->tag);
        timeBase_ = std::to_string(*numerator) + "/" + std::to_string(*denominator);
        numerator_ = *numerator;
        denominator_ = *denominator;
        frameRateDuration_ = framePeriod(configuration->frameRate);
        return std::nullopt;
    }
    // ffmpeg rebuilt the graph: the stream changed size or format partway.
    if (configuration) {
        fail(Kind::reconfigured);
    }

    const std::string_view tag = *tag_;
    if (!line.starts_with(tag) || !line.substr(tag.size()).starts_with(" n:")) {
        return std::nullopt;
    }
    if (line.size() > kMaximumLineBytes) {
        fail(Kind::oversized);
    }
    const std::optional<FrameLine> fields = matchFrameBody(line.substr(tag.size()));
    if (!fields) {
        fail(Kind::malformed);
    }

    const std::optional<int64_t> n = parseInteger(fields->n);
    const std::optional<int64_t> pts = parseInteger(fields->pts);
    const std::optional<int64_t> width = parseInteger(fields->width);
    const std::optional<int64_t> height = parseInteger(fields->height);
    std::optional<int64_t> duration;
    if (fields->duration) {
        duration = parseInteger(*fields->duration);
        if (!duration) {
            fail(Kind::malformed);
        }
    }
    if (!n || !pts || !width || !height || *width <= 0 || *height <= 0) {
        fail(Kind::malformed);
    }

    int64_t area = 0;
    if ((maximumLongEdge_ && (*width > *maximumLongEdge_ || *height > *maximumLongEdge_)) ||
        __builtin_mul_overflow(*width, *height, &area)) {
        fail(Kind::oversized);
    }
    if (*n != expectedN_ || (lastPts_ && *pts <= *lastPts_)) {
        fail(Kind::outOfOrder);
    }
    expectedN_ = *n + 1;
    lastPts_ = *pts;

    const auto numerator = static_cast<double>(numerator_);
    const auto denominator = static_cast<double>(denominator_);
    Frame frame;
    frame.n = *n;
    frame.pts = *pts;
    frame.time = (static_cast<double>(*pts) * numerator) / denominator;
    frame.duration =
        duration ? (static_cast<double>(std::max<int64_t>(*duration, 0)) * numerator) / denominator
                 : frameRateDuration_;
    frame.width = *width;
    frame.height = *height;
    return frame;
}

}  // namespace tessarin::engine
