#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "engine/process/ProcessRunner.hpp"
#include "engine/progress/ProgressParser.hpp"

namespace tessarin::engine {
namespace {

// ffmpeg's stdout while it renders two seconds of a 25 fps test pattern at four times real time,
// reporting every 50 ms: a dozen blocks, the last one "progress=end".
const std::string& realTranscript() {
    static const std::string transcript = [] {
        ProcessRunner runner;
        const ProcessResult result =
            runner.run(std::string(TESSARIN_HELPER_DIR) + "/ffmpeg",
                       {"-nostdin", "-v", "error", "-readrate", "4", "-f", "lavfi", "-i",
                        "testsrc2=size=32x32:rate=25:duration=2", "-stats_period", "0.05",
                        "-progress", "pipe:1", "-f", "null", "-"},
                       true, false, 60.0);
        EXPECT_EQ(result.exitCode, 0) << result.stderrTail;
        return result.stdoutData.value_or("");
    }();
    return transcript;
}

std::vector<ProgressSnapshot> feedInPieces(std::string_view text,
                                           const std::vector<std::size_t>& cuts) {
    ProgressParser parser;
    std::vector<ProgressSnapshot> all;
    std::size_t begin = 0;
    for (std::size_t cut : cuts) {
        for (const ProgressSnapshot& snapshot : parser.feed(text.substr(begin, cut - begin))) {
            all.push_back(snapshot);
        }
        begin = cut;
    }
    for (const ProgressSnapshot& snapshot : parser.feed(text.substr(begin))) {
        all.push_back(snapshot);
    }
    return all;
}

std::size_t countOccurrences(std::string_view text, std::string_view needle) {
    std::size_t count = 0;
    for (std::size_t at = text.find(needle); at != std::string_view::npos;
         at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

TEST(ProgressParser, RealTranscriptGivesOneSnapshotPerBlock) {
    const std::string& transcript = realTranscript();
    ASSERT_FALSE(transcript.empty());

    ProgressParser parser;
    const std::vector<ProgressSnapshot> snapshots = parser.feed(transcript);
    ASSERT_EQ(snapshots.size(), countOccurrences(transcript, "progress="));
    ASSERT_GE(snapshots.size(), 2u) << transcript;

    for (std::size_t i = 0; i + 1 < snapshots.size(); ++i) {
        EXPECT_FALSE(snapshots[i].isEnd);
        ASSERT_TRUE(snapshots[i].frame.has_value());
        ASSERT_TRUE(snapshots[i + 1].frame.has_value());
        EXPECT_LE(*snapshots[i].frame, *snapshots[i + 1].frame);
    }
    const ProgressSnapshot& last = snapshots.back();
    EXPECT_TRUE(last.isEnd);
    EXPECT_EQ(last.frame, 50);
    ASSERT_TRUE(last.outTimeSeconds.has_value());
    EXPECT_NEAR(*last.outTimeSeconds, 2.0, 0.05);
    ASSERT_TRUE(last.speed.has_value());
    EXPECT_GT(*last.speed, 0.0);
    EXPECT_EQ(ProgressParser::fraction(last, 2.0, 0.0, 1.0), 1.0);
    EXPECT_TRUE(parser.buffer().empty());
}

TEST(ProgressParser, RealTranscriptSplitAtEveryBytePositionMatchesOneChunk) {
    const std::string& transcript = realTranscript();
    ASSERT_FALSE(transcript.empty());
    const std::vector<ProgressSnapshot> whole = feedInPieces(transcript, {});

    for (std::size_t cut = 0; cut <= transcript.size(); ++cut) {
        ASSERT_EQ(feedInPieces(transcript, {cut}), whole) << "split at byte " << cut;
    }
}

TEST(ProgressParser, RealTranscriptInSmallAndRandomChunksMatchesOneChunk) {
    const std::string& transcript = realTranscript();
    ASSERT_FALSE(transcript.empty());
    const std::vector<ProgressSnapshot> whole = feedInPieces(transcript, {});

    std::vector<std::size_t> everyByte;
    for (std::size_t i = 1; i < transcript.size(); ++i) {
        everyByte.push_back(i);
    }
    EXPECT_EQ(feedInPieces(transcript, everyByte), whole);

    std::mt19937 random(20240611);
    for (int round = 0; round < 200; ++round) {
        std::vector<std::size_t> cuts;
        for (std::size_t at = 0;;) {
            at += std::uniform_int_distribution<std::size_t>(1, 300)(random);
            if (at >= transcript.size()) {
                break;
            }
            cuts.push_back(at);
        }
        ASSERT_EQ(feedInPieces(transcript, cuts), whole) << "round " << round;
    }
}

TEST(ProgressParser, CarriageReturnLineEndsReadLikeLineFeeds) {
    const std::string& transcript = realTranscript();
    ASSERT_FALSE(transcript.empty());
    std::string crlf;
    for (const char c : transcript) {
        if (c == '\n') {
            crlf += "\r\n";
        } else {
            crlf.push_back(c);
        }
    }
    const std::vector<ProgressSnapshot> whole = feedInPieces(transcript, {});
    for (std::size_t cut = 0; cut <= crlf.size(); cut += 7) {
        ASSERT_EQ(feedInPieces(crlf, {cut}), whole) << "split at byte " << cut;
    }
}

ProgressSnapshot withTime(double seconds) {
    ProgressSnapshot snapshot;
    snapshot.outTimeSeconds = seconds;
    return snapshot;
}

ProgressSnapshot withFrame(std::int64_t frame) {
    ProgressSnapshot snapshot;
    snapshot.frame = frame;
    return snapshot;
}

ProgressSnapshot withSpeed(double speed) {
    ProgressSnapshot snapshot;
    snapshot.speed = speed;
    return snapshot;
}

struct LineCase {
    std::string line;
    ProgressSnapshot expected;
};

TEST(ProgressParser, ReadsEachKeyOfALine) {
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    const std::vector<LineCase> cases = {
        {"out_time_us=1500000", withTime(1.5)},
        {"out_time_ms=1500000", withTime(1.5)},
        {"out_time_us=2.5e6", withTime(2.5)},
        {"out_time_us=-23220", withTime(-0.02322)},
        {"out_time_us=N/A", {}},
        {"out_time_us=inf", {}},
        {"out_time_us=nan", {}},
        {"out_time_us=", {}},
        {"out_time_us= 5", {}},
        {"out_time_us=5 000", {}},
        {"out_time_us=1,5", {}},
        {"out_time=00:01:30.500000", withTime(90.5)},
        {"out_time=12", withTime(12.0)},
        {"out_time=N/A", {}},
        {"frame=12", withFrame(12)},
        {"frame=+7", withFrame(7)},
        {"frame=-3", withFrame(-3)},
        {"frame=9223372036854775807", withFrame(kMax)},
        {"frame=-9223372036854775808", withFrame(kMin)},
        {"frame=9223372036854775808", {}},
        {"frame=abc", {}},
        {"frame=+-3", {}},
        {"frame=+", {}},
        {"frame=", {}},
        {"frame=7.0", {}},
        {"frame= 7", {}},
        {"speed=1.5x", withSpeed(1.5)},
        {"speed= 2.0x", withSpeed(2.0)},
        {"speed=x2x", withSpeed(2.0)},
        {"speed=0.998x", withSpeed(0.998)},
        {"speed=N/A", {}},
        {"speed=infx", {}},
        {"speed=1,5x", {}},
        {"speed=2X", {}},
        {"  \tframe=12 \t", withFrame(12)},
        {"frame =12", {}},
        {"fps=25.00", {}},
        {"no equals sign here", {}},
        {"=12", {}},
    };
    for (const LineCase& c : cases) {
        ProgressParser parser;
        const std::vector<ProgressSnapshot> snapshots =
            parser.feed(c.line + "\nprogress=continue\n");
        ASSERT_EQ(snapshots.size(), 1u) << c.line;
        EXPECT_EQ(snapshots[0], c.expected) << c.line;
    }
}

TEST(ProgressParser, LaterTimeKeyWinsAndBadOutTimeKeepsThePreviousValue) {
    ProgressParser parser;
    auto only = [&](std::string_view text) {
        const std::vector<ProgressSnapshot> snapshots = parser.feed(text);
        EXPECT_EQ(snapshots.size(), 1u) << text;
        return snapshots.empty() ? ProgressSnapshot{} : snapshots.front();
    };
    EXPECT_EQ(only("out_time_us=2000000\nout_time=N/A\nprogress=continue\n").outTimeSeconds, 2.0);
    EXPECT_EQ(only("out_time=00:00:03\nout_time_us=N/A\nprogress=continue\n").outTimeSeconds,
              std::nullopt);
    EXPECT_EQ(only("out_time_us=1000000\nout_time=00:00:04\nprogress=continue\n").outTimeSeconds,
              4.0);
    EXPECT_EQ(only("out_time=00:00:05\nout_time_ms=6000000\nprogress=continue\n").outTimeSeconds,
              6.0);
}

TEST(ProgressParser, ValuesCarryAcrossBlocksAndOnlyEndSetsIsEnd) {
    ProgressParser parser;
    const std::vector<ProgressSnapshot> snapshots = parser.feed(
        "frame=10\nspeed=2x\nout_time_us=400000\nprogress=continue\n"
        "frame=20\nbitrate=N/A\nprogress=end\n"
        "out_time_us=800000\nprogress=END\n"
        "progress=continue\n");
    ASSERT_EQ(snapshots.size(), 4u);
    EXPECT_EQ(snapshots[0], (ProgressSnapshot{0.4, 10, 2.0, false}));
    EXPECT_EQ(snapshots[1], (ProgressSnapshot{0.4, 20, 2.0, true}));
    EXPECT_EQ(snapshots[2], (ProgressSnapshot{0.8, 20, 2.0, false}));
    EXPECT_EQ(snapshots[3], (ProgressSnapshot{0.8, 20, 2.0, false}));
    EXPECT_EQ(parser.current(), snapshots[3]);
}

TEST(ProgressParser, OversizedLineIsDroppedUpToItsLineBreak) {
    ProgressParser parser;
    EXPECT_TRUE(parser.feed(std::string(5000, 'a')).empty());
    EXPECT_TRUE(parser.buffer().empty());
    EXPECT_TRUE(parser.discardingOversizedLine());

    // More of the same line, still without a break: dropped too.
    EXPECT_TRUE(parser.feed("frame=99").empty());
    EXPECT_TRUE(parser.buffer().empty());

    // "frame=42" ends the oversized line and is thrown away with it; the next line counts.
    const std::vector<ProgressSnapshot> snapshots =
        parser.feed("frame=42\nout_time_us=100\nprogress=continue\n");
    ASSERT_EQ(snapshots.size(), 1u);
    EXPECT_EQ(snapshots[0].frame, std::nullopt);
    EXPECT_EQ(snapshots[0].outTimeSeconds, 0.0001);
    EXPECT_FALSE(parser.discardingOversizedLine());
}

TEST(ProgressParser, ExactlyTheLimitIsKeptAndOneByteMoreIsNot) {
    // A 4,096-byte line "frame=000…012" arriving in pieces is held and read whole.
    const std::string prefix = "frame=";
    std::string line =
        prefix + std::string(ProgressParser::kMaxPendingBytes - prefix.size() - 2, '0') + "12";
    ASSERT_EQ(line.size(), ProgressParser::kMaxPendingBytes);

    ProgressParser parser;
    EXPECT_TRUE(parser.feed(line.substr(0, 1000)).empty());
    EXPECT_TRUE(parser.feed(line.substr(1000)).empty());
    EXPECT_EQ(parser.buffer().size(), ProgressParser::kMaxPendingBytes);
    EXPECT_FALSE(parser.discardingOversizedLine());
    std::vector<ProgressSnapshot> snapshots = parser.feed("\nprogress=continue\n");
    ASSERT_EQ(snapshots.size(), 1u);
    EXPECT_EQ(snapshots[0].frame, 12);

    ProgressParser overflowing;
    EXPECT_TRUE(overflowing.feed(line).empty());
    EXPECT_TRUE(overflowing.feed("3").empty());
    EXPECT_TRUE(overflowing.discardingOversizedLine());
    snapshots = overflowing.feed("\nprogress=continue\n");
    ASSERT_EQ(snapshots.size(), 1u);
    EXPECT_EQ(snapshots[0].frame, std::nullopt);
}

TEST(ProgressParser, LongLineCompletedWithinOneChunkIsRead) {
    // Only text still waiting for its line break is limited.
    const std::string line = "frame=" + std::string(5000, '0') + "7\nprogress=continue\n";
    ProgressParser parser;
    const std::vector<ProgressSnapshot> snapshots = parser.feed(line);
    ASSERT_EQ(snapshots.size(), 1u);
    EXPECT_EQ(snapshots[0].frame, 7);
}

TEST(ProgressParser, FractionMapsTimeOntoTheRangeClamped) {
    const auto at = [](std::optional<double> seconds) {
        ProgressSnapshot snapshot;
        snapshot.outTimeSeconds = seconds;
        return snapshot;
    };
    constexpr double kInf = std::numeric_limits<double>::infinity();
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

    EXPECT_EQ(ProgressParser::fraction(at(5.0), std::nullopt, 0, 1), std::nullopt);
    EXPECT_EQ(ProgressParser::fraction(at(5.0), 0.0, 0, 1), std::nullopt);
    EXPECT_EQ(ProgressParser::fraction(at(5.0), -10.0, 0, 1), std::nullopt);
    EXPECT_EQ(ProgressParser::fraction(at(5.0), kInf, 0, 1), std::nullopt);
    EXPECT_EQ(ProgressParser::fraction(at(5.0), kNaN, 0, 1), std::nullopt);
    EXPECT_EQ(ProgressParser::fraction(at(std::nullopt), 10.0, 0, 1), std::nullopt);
    EXPECT_EQ(ProgressParser::fraction(at(kInf), 10.0, 0, 1), std::nullopt);

    EXPECT_DOUBLE_EQ(*ProgressParser::fraction(at(5.0), 10.0, 0.2, 0.8), 0.5);
    EXPECT_DOUBLE_EQ(*ProgressParser::fraction(at(2.5), 10.0, 0.0, 1.0), 0.25);
    EXPECT_DOUBLE_EQ(*ProgressParser::fraction(at(0.0), 10.0, 0.2, 0.8), 0.2);
    EXPECT_DOUBLE_EQ(*ProgressParser::fraction(at(-1.0), 10.0, 0.2, 0.8), 0.2);
    EXPECT_DOUBLE_EQ(*ProgressParser::fraction(at(10.0), 10.0, 0.2, 0.8), 0.8);
    EXPECT_DOUBLE_EQ(*ProgressParser::fraction(at(25.0), 10.0, 0.2, 0.8), 0.8);
    // A falling range is not refused.
    EXPECT_DOUBLE_EQ(*ProgressParser::fraction(at(5.0), 10.0, 1.0, 0.0), 0.5);
}

}  // namespace
}  // namespace tessarin::engine
