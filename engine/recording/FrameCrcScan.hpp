// Reads what ffmpeg's "framecrc" muxer writes for one input copied without decoding: a header
// of "#tb N: NUM/DEN" and "#media_type N: TYPE" lines per stream, then one line per packet,
// "N, DTS, PTS, DURATION, SIZE, 0xCRC[, F=0xFLAGS]", times in the stream's time base. What a
// segment holds is reduced to its streams and the span of its video packets; only running
// bounds are kept, so any length of take costs the same memory.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tessarin::engine {

class FrameCrcScan {
public:
    static constexpr std::size_t kMaximumLineBytes = 4096;

    // One line without its line break. Lines that are too long or don't parse are passed over.
    void addLine(std::string_view line);

    [[nodiscard]] int64_t videoStreams() const;
    [[nodiscard]] int64_t audioStreams() const;
    // Seconds from the first video packet's time to the end of the last one, of the first video
    // stream; nothing without a video packet with a usable time base. Never negative or
    // non-finite.
    [[nodiscard]] std::optional<double> videoSeconds() const;

private:
    struct Stream {
        std::string type;
        double timeBase = 0;  // seconds per tick, 0 until known
        std::optional<double> first;
        std::optional<double> end;
    };
    std::map<int64_t, Stream> streams_;
};

}  // namespace tessarin::engine
