#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "engine/frames/ShowinfoParser.hpp"

namespace tessarin::engine {
namespace {

using Kind = ShowinfoParser::Failure::Kind;
using Frame = ShowinfoParser::Frame;

constexpr std::string_view kTag = "[Parsed_showinfo_1 @ 0x55d6a9bcb440]";

std::string configuration(std::string_view timeBase, std::string_view frameRate = "25/1",
                          std::string_view tag = kTag) {
    return fmt::format("{} config in time_base: {}, frame_rate: {}", tag, timeBase, frameRate);
}

// A frame line as FFmpeg 5.1 prints it: no duration fields.
std::string frameLine(int64_t n, int64_t pts, std::string_view size = "320x180",
                      std::string_view tag = kTag) {
    return fmt::format(
        "{} n:{:4} pts:{:7} pts_time:0.1     pos:       -1 fmt:gray sar:1/1 s:{} i:P iskey:1 "
        "type:I checksum:729BF7AA plane_checksum:[729BF7AA] mean:[127] stdev:[83.0]",
        tag, n, pts, size);
}

// A frame line as FFmpeg 6.0 and later print it, with the duration fields and without "pos:".
std::string modernFrameLine(int64_t n, int64_t pts, int64_t duration) {
    return fmt::format(
        "{} n:{:4} pts:{:7} pts_time:0.0333333 duration:{:7} duration_time:0.0333333 fmt:gray "
        "cl:left sar:1/1 s:320x180 i:P iskey:1 type:I checksum:9FC9BE14 "
        "plane_checksum:[9FC9BE14] mean:[126] stdev:[82.2]",
        kTag, n, pts, duration);
}

struct Outcome {
    std::vector<Frame> frames;
    std::optional<Kind> failure;
    std::size_t failedLine = 0;  // index of the line that threw
};

Outcome feed(ShowinfoParser& parser, const std::vector<std::string>& lines) {
    Outcome outcome;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        try {
            if (std::optional<Frame> frame = parser.consume(lines[i])) {
                outcome.frames.push_back(*frame);
            }
        } catch (const ShowinfoParser::Failure& failure) {
            outcome.failure = failure.kind();
            outcome.failedLine = i;
            break;
        }
    }
    return outcome;
}

Outcome feed(const std::vector<std::string>& lines,
             std::optional<int64_t> maximumLongEdge = std::nullopt) {
    ShowinfoParser parser(maximumLongEdge);
    return feed(parser, lines);
}

std::vector<std::string> goldenLines(std::string_view name) {
    const std::filesystem::path path =
        std::filesystem::path(TESSARIN_FRAMES_GOLDEN_DIR) / "ffmpeg-5.1" / name;
    std::ifstream stream(path);
    EXPECT_TRUE(stream.good()) << path;
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(ShowinfoParser, TimeComesFromTheIntegerPtsAndTheTimeBase) {
    const Outcome outcome = feed({configuration("1/15360", "30/1"), frameLine(0, 15360)});
    ASSERT_FALSE(outcome.failure);
    ASSERT_EQ(outcome.frames.size(), 1U);
    EXPECT_EQ(outcome.frames[0].pts, 15360);
    EXPECT_DOUBLE_EQ(outcome.frames[0].time, 1.0);
    EXPECT_EQ(outcome.frames[0].width, 320);
    EXPECT_EQ(outcome.frames[0].height, 180);
}

TEST(ShowinfoParser, LearnsTheInstanceFromItsConfigurationLine) {
    ShowinfoParser parser(320);
    EXPECT_EQ(parser.consume(configuration("1001/30000", "30000/1001")), std::nullopt);
    EXPECT_EQ(parser.tag(), std::string(kTag));
    EXPECT_EQ(parser.timeBase(), "1001/30000");
    EXPECT_EQ(parser.numerator(), 1001);
    EXPECT_EQ(parser.denominator(), 30000);
    EXPECT_EQ(parser.maximumLongEdge(), 320);
}

TEST(ShowinfoParser, ZeroTimeBaseLeavesTheInstanceUnlearnt) {
    ShowinfoParser parser;
    const Outcome outcome = feed(parser, {configuration("0/1"), frameLine(0, 0), frameLine(1, 1)});
    EXPECT_FALSE(outcome.failure);
    EXPECT_TRUE(outcome.frames.empty());
    EXPECT_EQ(parser.tag(), std::nullopt);
    EXPECT_EQ(parser.timeBase(), std::nullopt);
}

TEST(ShowinfoParser, MissingDurationIsOneFramePeriodOfTheConfiguredRate) {
    struct Row {
        std::string_view frameRate;
        double duration;
    };
    const std::vector<Row> rows = {
        {"25/1", 0.04},   {"30000/1001", 1001.0 / 30000.0}, {"0/1", 0.0}, {"0/0", 0.0},
        {"unknown", 0.0},
    };
    for (const Row& row : rows) {
        const Outcome outcome = feed({configuration("1/90000", row.frameRate), frameLine(0, 0)});
        ASSERT_EQ(outcome.frames.size(), 1U) << row.frameRate;
        EXPECT_DOUBLE_EQ(outcome.frames[0].duration, row.duration) << row.frameRate;
    }
}

TEST(ShowinfoParser, LoggedDurationIsUsedWhenPresentAndNeverNegative) {
    const Outcome outcome = feed({configuration("1/15360", "25/1"), modernFrameLine(0, 0, 512),
                                  modernFrameLine(1, 512, -1), modernFrameLine(2, 1024, 0)});
    ASSERT_FALSE(outcome.failure);
    ASSERT_EQ(outcome.frames.size(), 3U);
    EXPECT_DOUBLE_EQ(outcome.frames[0].duration, 512.0 / 15360.0);
    EXPECT_EQ(outcome.frames[1].duration, 0.0);
    EXPECT_EQ(outcome.frames[2].duration, 0.0);
    EXPECT_DOUBLE_EQ(outcome.frames[2].time, 1024.0 / 15360.0);
}

TEST(ShowinfoParser, NegativePtsGivesANegativeTime) {
    const Outcome outcome = feed({configuration("1/1000"), frameLine(0, -20), frameLine(1, 40)});
    ASSERT_EQ(outcome.frames.size(), 2U);
    EXPECT_DOUBLE_EQ(outcome.frames[0].time, -0.02);
    EXPECT_DOUBLE_EQ(outcome.frames[1].time, 0.04);
}

// Lines that are not frame lines of the learnt instance pass through without a frame or error.
TEST(ShowinfoParser, IgnoresEverythingButTheLearntInstancesFrameLines) {
    const std::string other = "[Parsed_showinfo_7 @ 0x55d6a9bcb999]";
    const Outcome outcome = feed({
        frameLine(5, 5),  // before any configuration: its prefix isn't known yet
        configuration("1/25"),
        std::string(kTag) + " config out time_base: 0/0, frame_rate: 0/0",
        frameLine(0, 0, "64x48", other),
        frameLine(9, 9, "64x48", other),
        std::string(kTag) + " color_range:pc color_space:unknown color_primaries:unknown",
        std::string(kTag) + "   side data - User Data Unregistered:",
        std::string(kTag) + " ",
        "[Parsed_scale_0 @ 0x55d6a9bcb000] n:   0 pts: 0 s:64x48",
        "frame=    1 fps=0.0 q=-0.0 size=N/A time=00:00:00.04 bitrate=N/A speed=N/A",
        "",
        frameLine(0, 0),
    });
    ASSERT_FALSE(outcome.failure);
    ASSERT_EQ(outcome.frames.size(), 1U);
    EXPECT_EQ(outcome.frames[0].n, 0);
    EXPECT_EQ(outcome.frames[0].width, 320);
}

// A configuration line needs the exact shape: lower-case hex, "config in", digits on both sides.
TEST(ShowinfoParser, ConfigurationLineMustMatchWhole) {
    for (const std::string& line : {
             configuration("1/25", "25/1", "[Parsed_showinfo_1 @ 0x55D6A9BCB440]"),
             configuration("1/25", "25/1", "[Parsed_showinfo_ @ 0x55d6a9bcb440]"),
             configuration("1/25", "25/1", "[Parsed_showinfo_1 @ 0x]"),
             configuration("1/25", "25/1", "[Parsed_scale_1 @ 0x55d6a9bcb440]"),
             " " + configuration("1/25"),
             configuration("-1/25"),
             configuration("1/"),
             std::string(kTag) + " config in time_base: 1/25",
             std::string(kTag) + " config in time_base: 1/25, frame_rate: 25/1\n",
             configuration("99999999999999999999/1"),
         }) {
        ShowinfoParser parser;
        EXPECT_EQ(parser.consume(line), std::nullopt) << line;
        EXPECT_EQ(parser.tag(), std::nullopt) << line;
    }
}

struct FailureRow {
    std::string name;
    Kind kind;
    std::vector<std::string> lines;  // the last one fails
    std::optional<int64_t> maximumLongEdge = std::nullopt;
};

TEST(ShowinfoParser, RefusesALogThatCannotBeTrusted) {
    const std::string config = configuration("1/25");
    const std::string line = frameLine(0, 0);
    const std::string overlong =
        line + std::string(ShowinfoParser::kMaximumLineBytes + 1 - line.size(), 'x');
    const std::string tag(kTag);
    const std::vector<FailureRow> rows = {
        {"gap", Kind::outOfOrder, {config, line, frameLine(1, 1), frameLine(3, 3)}},
        {"not starting at 0", Kind::outOfOrder, {config, frameLine(1, 0)}},
        {"equal pts", Kind::outOfOrder, {config, frameLine(0, 7), frameLine(1, 7)}},
        {"pts going back", Kind::outOfOrder, {config, frameLine(0, 7), frameLine(1, 6)}},
        {"wider than the limit", Kind::oversized, {config, frameLine(0, 0, "321x100")}, 320},
        {"taller than the limit", Kind::oversized, {config, frameLine(0, 0, "100x321")}, 320},
        {"area overflows", Kind::oversized, {config, frameLine(0, 0, "4294967296x4294967296")}},
        {"one byte too long", Kind::oversized, {config, overlong}},
        {"line break inside", Kind::malformed, {config, line + "\nmore"}},
        {"second configuration", Kind::reconfigured, {config, line, config}},
        {"another instance's configuration",
         Kind::reconfigured,
         {config, configuration("1/25", "25/1", "[Parsed_showinfo_0 @ 0x1234]")}},
        {"zero time base configuration", Kind::reconfigured, {config, configuration("0/1")}},
        {"no pts", Kind::malformed, {config, tag + " n:   0 pts:  NOPTS pts_time:NOPTS s:64x48"}},
        {"no size", Kind::malformed, {config, tag + " n:   0 pts:      0 pts_time:0 fmt:gray"}},
        {"zero width", Kind::malformed, {config, frameLine(0, 0, "0x48")}},
        {"size run into the next field",
         Kind::malformed,
         {config, tag + " n:   0 pts:      0 pts_time:0 pos: -1 s:64x48i:P"}},
        {"frame number overflows",
         Kind::malformed,
         {config, tag + " n:99999999999999999999 pts: 0 pts_time:0 x s:64x48"}},
        {"pts overflows",
         Kind::malformed,
         {config, tag + " n:0 pts: -99999999999999999999 pts_time:0 x s:64x48"}},
        {"width overflows", Kind::malformed, {config, frameLine(0, 0, "99999999999999999999x1")}},
        {"garbage after the prefix", Kind::malformed, {config, tag + " n: garbage"}},
    };
    for (const FailureRow& row : rows) {
        const Outcome outcome = feed(row.lines, row.maximumLongEdge);
        EXPECT_EQ(outcome.failure, row.kind) << row.name;
        EXPECT_EQ(outcome.failedLine, row.lines.size() - 1) << row.name;
    }
}

TEST(ShowinfoParser, AcceptsFramesJustInsideTheLimits) {
    const std::string line = frameLine(0, 0, "320x320");
    const std::string padded =
        line + std::string(ShowinfoParser::kMaximumLineBytes - line.size(), 'x');
    const Outcome outcome = feed({configuration("1/25"), padded}, 320);
    EXPECT_FALSE(outcome.failure);
    EXPECT_EQ(outcome.frames.size(), 1U);
}

// The size is the first " s:" followed by a well-formed size, wherever the fields before it
// fall; FFmpeg 7 dropped "pos:" and added "cl:".
TEST(ShowinfoParser, FindsTheSizeAfterAnyFields) {
    const Outcome outcome = feed({
        configuration("1/25"),
        std::string(kTag) + " n:0 pts:0 pts_time:0 a s:b s:12x34",
        std::string(kTag) + " n:1 pts:1 pts_time:0.04  s:56x78",
        std::string(kTag) + " n:2 pts:2 pts_time:0.08 duration:1 duration_time:0.04 x s:9x10",
    });
    ASSERT_FALSE(outcome.failure);
    ASSERT_EQ(outcome.frames.size(), 3U);
    EXPECT_EQ(outcome.frames[0].width, 12);
    EXPECT_EQ(outcome.frames[0].height, 34);
    EXPECT_EQ(outcome.frames[1].width, 56);
    EXPECT_EQ(outcome.frames[2].height, 10);
    EXPECT_DOUBLE_EQ(outcome.frames[2].duration, 0.04);
}

TEST(ShowinfoParserGolden, TestSourceAt25FramesPerSecond) {
    ShowinfoParser parser(320);
    const Outcome outcome = feed(parser, goldenLines("testsrc-64x48-25fps.log"));
    ASSERT_FALSE(outcome.failure);
    ASSERT_EQ(outcome.frames.size(), 8U);
    for (std::size_t i = 0; i < outcome.frames.size(); ++i) {
        const Frame& frame = outcome.frames[i];
        EXPECT_EQ(frame.n, static_cast<int64_t>(i));
        EXPECT_EQ(frame.pts, static_cast<int64_t>(i));
        EXPECT_DOUBLE_EQ(frame.time, static_cast<double>(i) / 25.0);
        EXPECT_DOUBLE_EQ(frame.duration, 0.04);
        EXPECT_EQ(frame.width, 64);
        EXPECT_EQ(frame.height, 48);
    }
    EXPECT_EQ(parser.tag(), "[Parsed_showinfo_0 @ 0x558308bca640]");
    EXPECT_EQ(parser.timeBase(), "1/25");
    EXPECT_EQ(parser.expectedN(), 8);
    EXPECT_EQ(parser.lastPts(), 7);

    // The analysis limit refuses a larger frame.
    const Outcome limited = feed(goldenLines("testsrc-64x48-25fps.log"), 63);
    EXPECT_EQ(limited.failure, Kind::oversized);
    EXPECT_TRUE(limited.frames.empty());
}

TEST(ShowinfoParserGolden, ScaledH264WithSideData) {
    const Outcome outcome = feed(goldenLines("h264-320x180-tb15360.log"), 320);
    ASSERT_FALSE(outcome.failure);
    ASSERT_EQ(outcome.frames.size(), 6U);
    for (std::size_t i = 0; i < outcome.frames.size(); ++i) {
        EXPECT_EQ(outcome.frames[i].pts, 512 * static_cast<int64_t>(i));
        EXPECT_DOUBLE_EQ(outcome.frames[i].time, static_cast<double>(i) / 30.0);
        EXPECT_DOUBLE_EQ(outcome.frames[i].duration, 1.0 / 30.0);
        EXPECT_EQ(outcome.frames[i].width, 320);
        EXPECT_EQ(outcome.frames[i].height, 180);
    }
}

TEST(ShowinfoParserGolden, SizeChangeMidwayIsReconfigured) {
    const std::vector<std::string> lines = goldenLines("concat-size-change.log");
    const Outcome outcome = feed(lines);
    EXPECT_EQ(outcome.failure, Kind::reconfigured);
    EXPECT_EQ(outcome.frames.size(), 3U);
    EXPECT_THAT(lines[outcome.failedLine], testing::HasSubstr("config in time_base"));
}

}  // namespace
}  // namespace tessarin::engine
