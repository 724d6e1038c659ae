// Turns the log of ffmpeg's showinfo filter into a strict, ordered sequence of frame records.
//
// Both passes of a frame export pair the frames coming out of the pipe one for one with these
// records, so the parser is deliberately unforgiving: any sign that the log can't be trusted (a
// gap in the numbering, a repeated timestamp, a rebuilt filter graph) ends the export instead of
// letting a frame carry the wrong time. Lines of other filters, and of other showinfo instances,
// pass through untouched.
//
//   ShowinfoParser parser(320);
//   for (const std::string& line : stderrLines) {
//       if (std::optional<ShowinfoParser::Frame> frame = parser.consume(line)) { ... }
//   }
//
// Threads: a parser is a plain value owned by one stream and touched by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "engine/frames/FrameTypes.hpp"

namespace tessarin::engine {

class ShowinfoParser {
public:
    using Frame = ShowinfoFrame;

    // The log can't be trusted; the parser is of no further use once this has been thrown.
    // The job words the message for the user; what() is the case's name ("outOfOrder").
    class Failure : public std::exception {
    public:
        enum class Kind { malformed, outOfOrder, oversized, reconfigured };

        explicit Failure(Kind kind) noexcept : kind_(kind) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;
        // "malformed", "outOfOrder", "oversized" or "reconfigured".
        [[nodiscard]] static std::string_view caseName(Kind kind) noexcept;

    private:
        Kind kind_;
    };

    // A frame line longer than this, in bytes, is refused before any matching work.
    static constexpr std::size_t kMaximumLineBytes = 4096;

    // `maximumLongEdge`, when present, is the largest width or height a frame may have.
    explicit ShowinfoParser(std::optional<int64_t> maximumLongEdge = std::nullopt);

    // Takes the next line of the run's standard error, without its line break; every line must
    // be fed, in order. Returns the frame for a frame line of the learnt instance and nothing for
    // any other line. Throws Failure at the offending line.
    //
    // The frame's time and duration come from the integer timestamps and the time base, never
    // from the rounded decimals of the log. FFmpeg before 6.0 prints no per-frame duration; the
    // duration is then one frame period of the configuration line's frame rate (0 when the rate
    // is 0/1 or unreadable).
    [[nodiscard]] std::optional<Frame> consume(std::string_view line);

    [[nodiscard]] std::optional<int64_t> maximumLongEdge() const { return maximumLongEdge_; }
    // The bracketed instance tag, e.g. "[Parsed_showinfo_2 @ 0x55d6a9bcb440]", once learnt.
    [[nodiscard]] const std::optional<std::string>& tag() const { return tag_; }
    // "{numerator}/{denominator}" once learnt.
    [[nodiscard]] const std::optional<std::string>& timeBase() const { return timeBase_; }
    [[nodiscard]] int64_t numerator() const { return numerator_; }
    [[nodiscard]] int64_t denominator() const { return denominator_; }
    [[nodiscard]] int64_t expectedN() const { return expectedN_; }
    [[nodiscard]] std::optional<int64_t> lastPts() const { return lastPts_; }

private:
    std::optional<int64_t> maximumLongEdge_;
    std::optional<std::string> tag_;
    std::optional<std::string> timeBase_;
    int64_t numerator_ = 0;
    int64_t denominator_ = 1;
    int64_t expectedN_ = 0;
    std::optional<int64_t> lastPts_;
    // Seconds per frame from the configuration line, for logs without per-frame durations.
    double frameRateDuration_ = 0;
};

}  // namespace tessarin::engine
