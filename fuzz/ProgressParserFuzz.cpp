// ffmpeg's -progress output, split anywhere: the snapshots must not depend on where the pipe cut
// the text, the pending text stays bounded, and every fraction is a finite point of [0, 1].

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/progress/ProgressParser.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::ProgressParser;
using tessarin::engine::ProgressSnapshot;
using tessarin::fuzz::require;

struct Outcome {
    std::vector<ProgressSnapshot> snapshots;
    ProgressSnapshot current;
    std::string buffer;
};

// Checked after every feed, so it stays cheap: byte-by-byte feeding calls it for every byte.
void checkState(const ProgressParser& parser) {
    require(parser.buffer().size() <= ProgressParser::kMaxPendingBytes,
            "pending text stays within kMaxPendingBytes");
    require(!parser.discardingOversizedLine() || parser.buffer().empty(),
            "nothing is pending while an oversized line is dropped");
}

Outcome feedAll(const std::vector<std::string_view>& chunks) {
    ProgressParser parser;
    Outcome outcome;
    for (const std::string_view chunk : chunks) {
        for (const ProgressSnapshot& snapshot : parser.feed(chunk)) {
            outcome.snapshots.push_back(snapshot);
        }
        checkState(parser);
    }
    require(parser.buffer().find_first_of("\r\n") == std::string::npos,
            "pending text holds no line break");
    outcome.current = parser.current();
    outcome.buffer = parser.buffer();
    return outcome;
}

// The contract promises chunking independence for lines that fit the pending limit; a longer line
// is read only when it arrives whole in one chunk.
bool everyLineFits(std::string_view text) {
    std::size_t lineStart = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i == text.size() || text[i] == '\n' || text[i] == '\r') {
            if (i - lineStart > ProgressParser::kMaxPendingBytes) {
                return false;
            }
            lineStart = i + 1;
        }
    }
    return true;
}

void checkFraction(const ProgressSnapshot& snapshot, std::optional<double> duration, double lo,
                   double hi) {
    const std::optional<double> fraction = ProgressParser::fraction(snapshot, duration, lo, hi);
    const bool usable = duration && std::isfinite(*duration) && *duration > 0 &&
                        snapshot.outTimeSeconds && std::isfinite(*snapshot.outTimeSeconds);
    require(fraction.has_value() == usable,
            "a fraction exists exactly when time and duration are usable");
    if (fraction) {
        require(std::isfinite(*fraction), "a fraction is finite");
        require(*fraction >= 0 && *fraction <= 1, "a fraction of [0, 1] phases stays in [0, 1]");
    }
}

void checkSnapshot(const ProgressSnapshot& snapshot, double inputDuration) {
    if (snapshot.outTimeSeconds) {
        require(std::isfinite(*snapshot.outTimeSeconds), "out time is finite");
    }
    if (snapshot.speed) {
        require(std::isfinite(*snapshot.speed), "speed is finite");
    }
    constexpr double kInf = std::numeric_limits<double>::infinity();
    const double durations[] = {inputDuration,
                                1e-300,
                                0.04,
                                1,
                                3600,
                                1e300,
                                0,
                                -1,
                                kInf,
                                std::numeric_limits<double>::quiet_NaN(),
                                std::numeric_limits<double>::denorm_min()};
    for (const double duration : durations) {
        checkFraction(snapshot, duration, 0, 1);
        checkFraction(snapshot, duration, 0.1, 0.9);
        checkFraction(snapshot, duration, 0.9, 0.3);
    }
    checkFraction(snapshot, std::nullopt, 0, 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const tessarin::fuzz::ChunkedInput input = tessarin::fuzz::chunkedInput(data, size);
    const std::string_view text = input.payload;

    const Outcome whole = feedAll({text});
    const Outcome chunked = feedAll(tessarin::fuzz::pieces(text, input.pieceSizes));
    const Outcome byteByByte = feedAll(tessarin::fuzz::pieces(text, {1}));

    if (everyLineFits(text)) {
        for (const Outcome* other : {&chunked, &byteByByte}) {
            require(whole.snapshots == other->snapshots,
                    "the same snapshots whatever the chunking");
            require(whole.current == other->current, "the same values whatever the chunking");
            require(whole.buffer == other->buffer, "the same pending text whatever the chunking");
        }
    }

    // Besides the usual durations, any double at all (negative, NaN, infinite), from the input.
    double inputDuration = 0;
    std::memcpy(&inputDuration, data, std::min(size, sizeof inputDuration));
    for (const Outcome* outcome : {&whole, &chunked, &byteByByte}) {
        for (const ProgressSnapshot& snapshot : outcome->snapshots) {
            checkSnapshot(snapshot, inputDuration);
        }
        checkSnapshot(outcome->current, inputDuration);
    }
    return 0;
}
