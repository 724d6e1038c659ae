// Turns the byte stream of ffmpeg's `-progress pipe:1` output into one snapshot per block, and a
// snapshot into a fraction of the whole job.
//
// ffmpeg prints blocks of `key=value` lines, each block ended by a `progress=continue` or
// `progress=end` line. The parser reads "out_time_us", "out_time_ms" (also microseconds, despite
// its name), "out_time", "frame", "speed" and "progress", and ignores every other key.
//
//   ProgressParser parser;
//   for (const ProgressSnapshot& snapshot : parser.feed(chunk)) {
//       if (auto f = ProgressParser::fraction(snapshot, durationSeconds, 0.0, 0.9)) show(*f);
//   }
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessarin::engine {

// The values of one completed block. Values seen in earlier blocks carry over until a later line
// replaces or clears them.
struct ProgressSnapshot {
    std::optional<double> outTimeSeconds;  // how far the output has come, in seconds
    std::optional<std::int64_t> frame;     // frames written so far
    std::optional<double> speed;           // multiple of real time
    bool isEnd = false;                    // the block ended with "progress=end"

    friend bool operator==(const ProgressSnapshot&, const ProgressSnapshot&) = default;
};

// A plain value with no knowledge of processes: not thread-safe, so the caller serialises feed().
// Memory stays bounded: at most kMaxPendingBytes of text without a line break are held; a longer
// line is dropped whole, up to and including its line break.
class ProgressParser {
public:
    static constexpr std::size_t kMaxPendingBytes = 4096;

    // Adds a chunk of any size, split anywhere (also inside a line or a UTF-8 sequence), and
    // returns the snapshots of the blocks it completed, in order; usually none or one. Work is
    // linear in the chunk. Line breaks are "\n", "\r\n" and a lone "\r". Throws only
    // std::bad_alloc.
    [[nodiscard]] std::vector<ProgressSnapshot> feed(std::string_view chunk);

    // `lo + (hi - lo) * r` with r = outTimeSeconds / duration clamped to [0, 1]. Nothing when the
    // duration is absent, not finite or not above 0, or when the time is absent or not finite.
    // Successive results may go down: nothing here enforces monotony.
    [[nodiscard]] static std::optional<double> fraction(const ProgressSnapshot& snapshot,
                                                        std::optional<double> duration, double lo,
                                                        double hi);

    // Text received after the last line break; never holds a line break between calls.
    [[nodiscard]] const std::string& buffer() const { return buffer_; }
    // Set while the rest of an oversized line is being thrown away.
    [[nodiscard]] bool discardingOversizedLine() const { return discardingOversizedLine_; }
    // The values seen so far, kept across blocks.
    [[nodiscard]] const ProgressSnapshot& current() const { return current_; }

private:
    void applyLine(std::string_view line, std::vector<ProgressSnapshot>& completed);

    std::string buffer_;
    bool discardingOversizedLine_ = false;
    ProgressSnapshot current_;
};

}  // namespace tessarin::engine
