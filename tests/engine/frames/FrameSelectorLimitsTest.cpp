// How the selector ends a range, refuses bad grids, keeps to its memory limit, and spaces frames
// evenly in interval mode.
#include <limits>
#include <string>

#include "tests/engine/frames/FrameSelectorTestSupport.hpp"

namespace tessarin::engine::selector_test {
namespace {

using testing::ElementsAreArray;

TEST(FrameSelector, FrameBeforeTheRangeStandsForItsStart) {
    struct Row {
        std::string name;
        std::vector<double> times;
        int64_t firstN;
        int64_t processed;  // by the selector itself; finishing works on a copy
    };
    const std::vector<Row> rows = {
        {"later first frame", {-0.02, 0.04}, 0, 2},
        {"first frame exactly at 0", {-0.02, 0.0}, 1, 1},
        {"only the latest early frame", {-0.06, -0.02, 0.04}, 1, 2},
        {"no frame inside the range", {-0.02}, 0, 0},
    };
    for (const Row& row : rows) {
        FrameSelector selector = changesSelector();
        for (std::size_t i = 0; i < row.times.size(); ++i) {
            selector.consume(Picture().cells, frameRecord(static_cast<int64_t>(i), row.times[i]));
        }
        const FrameSelectionResult result = selector.finish(1.0, std::nullopt, false);
        ASSERT_THAT(reasons(result), ElementsAre(FrameReason::first)) << row.name;
        EXPECT_EQ(result.frames[0].frame.n, row.firstN) << row.name;
        EXPECT_EQ(result.frames[0].frame.time, 0.0) << row.name;
        EXPECT_EQ(result.frames[0].holdsUntil, 1.0) << row.name;
        EXPECT_EQ(selector.processedFrames(), row.processed) << row.name;
    }
}

// 100 frames decoded, 3.96 s plus one frame period.
TEST(FrameSelector, ShortDecodeIsReportedAndEndsTheHold) {
    struct Row {
        std::string name;
        double window;
        std::optional<int64_t> expectedFrames;
        bool trimmed;
        bool isShort;
    };
    const std::vector<Row> rows = {
        {"far fewer frames than expected", 10.0, 250, false, true},
        {"trimmed range", 10.0, 250, true, false},
        {"count unknown", 10.0, std::nullopt, false, false},
        {"two frames missing", 10.0, 102, false, false},
        {"three frames missing", 10.0, 103, false, true},
        {"within two seconds of the end", 5.9, 250, false, false},
        {"more than two seconds before the end", 6.1, 250, false, true},
    };
    for (const Row& row : rows) {
        FrameSelector selector = changesSelector();
        feed(
            selector, [](int64_t) { return Picture(); }, 0, 100);
        const FrameSelectionResult result =
            selector.finish(row.window, row.expectedFrames, row.trimmed);
        const double decodedUntil = row.isShort ? 4.0 : row.window;
        EXPECT_DOUBLE_EQ(result.decodedUntil, decodedUntil) << row.name;
        EXPECT_DOUBLE_EQ(result.frames.at(0).holdsUntil, decodedUntil) << row.name;
        EXPECT_EQ(result.warnings, row.isShort ? std::vector{FrameWarning::decodedShort}
                                               : std::vector<FrameWarning>{})
            << row.name;
    }
}

// A square appears at 3.8 s, 0.16 s before the last decoded frame.
TEST(FrameSelector, PendingChangeAtTheEndSettlesOnlyWhenTheRangeGoesOn) {
    struct Row {
        std::string name;
        int64_t edge;
        double window;
        std::optional<int64_t> expectedFrames;
        std::vector<FrameReason> expected;
    };
    const std::vector<Row> rows = {
        {"range goes on past the still picture",
         20,
         4.2,
         std::nullopt,
         {FrameReason::first, FrameReason::change}},
        {"decode stopped short", 20, 10.0, 250, {FrameReason::first, FrameReason::unsettled}},
        {"small change, decode stopped short",
         3,
         10.0,
         250,
         {FrameReason::first, FrameReason::last}},
    };
    for (const Row& row : rows) {
        FrameSelector selector = changesSelector();
        feed(
            selector,
            [&row](int64_t i) {
                Picture picture;
                if (i >= 95) {
                    picture.rectangle(70, 30, row.edge, row.edge, 200);
                }
                return picture;
            },
            0, 100);
        const FrameSelectionResult result = selector.finish(row.window, row.expectedFrames, false);
        ASSERT_EQ(reasons(result), row.expected) << row.name;
        EXPECT_EQ(result.frames[1].changedCells, row.edge * row.edge) << row.name;
    }
}

TEST(FrameSelector, FinishLeavesTheSelectorAsItWas) {
    FrameSelector selector = changesSelector();
    const Video video = [](int64_t i) {
        return i < 50 ? Picture() : Picture().rectangle(0, 0, 30, 30, 200);
    };
    feed(selector, video, 0, 50);
    const FrameSelectionResult before = selector.finish(2.0, 50, false);
    EXPECT_EQ(selector.finish(2.0, 50, false), before);
    EXPECT_EQ(selector.processedFrames(), 50);

    feed(selector, video, 50, 100);
    EXPECT_THAT(reasons(selector.finish(4.0, 100, false)),
                ElementsAre(FrameReason::first, FrameReason::change));
    // Nothing decoded gives an empty result.
    EXPECT_EQ(changesSelector().finish(5.0, 125, false), FrameSelectionResult{});
}

TEST(FrameSelector, RefusesGridsThatDoNotMatchTheirRecord) {
    struct Row {
        std::string name;
        int64_t width;
        int64_t height;
        std::size_t bytes;
    };
    constexpr int64_t kHuge = int64_t{1} << 32;
    const std::vector<Row> rows = {
        {"different size from the first grid", 150, 90, 150 * 90},
        {"byte count not width times height", 160, 90, 100},
        {"zero width", 0, 90, 0},
        {"wider than the analysis limit", 321, 10, 3210},
        {"area overflows", kHuge, kHuge, 16},
    };
    for (const Row& row : rows) {
        FrameSelector selector = changesSelector();
        selector.consume(Picture().cells, frameRecord(0, 0));
        const std::optional<Kind> failure = failureOf([&] {
            selector.consume(std::vector<std::uint8_t>(row.bytes, 0),
                             frameRecord(1, 0.04, row.width, row.height));
        });
        EXPECT_EQ(failure, Kind::gridMismatch) << row.name;
        EXPECT_EQ(selector.processedFrames(), 1) << row.name;
    }
}

// For a first grid of 32x18 (576 bytes), with maxFrames 20 and nothing held yet: 4 candidates
// reserved, a list capacity of 72, grids 6 x 128 + (576 + 128) + (2 x 576 + 128) = 2752,
// thumbnails (2 x 160^2 + 4096 + 128) x 5 = 277120, and the arrays
// 3 x (96 x 72 + 128) + (16 x 4 + 128) + (2 x 4 + 128) + 6 x (16 x 4 + 128) + (320 x 4 + 128)
// + (288 x 4 + 128) + (176 x 4 + 128) + (64 x 4 + 128) = 26504; with the base of 4096 that is
// 310472 bytes. With maxFrames 2 the last three arrays count 2 entries, not 4: 309416.
TEST(FrameSelector, MemoryAccountOfTheFirstGrid) {
    struct Row {
        int64_t maxFrames;
        int64_t need;
    };
    for (const Row& row : {Row{20, 310'472}, Row{2, 309'416}}) {
        for (const int64_t limit : {row.need, row.need - 1}) {
            FrameSelector selector = changesSelector(row.maxFrames, limit);
            const std::optional<Kind> failure = failureOf([&] {
                selector.consume(Picture(kBackground, 32, 18).cells, frameRecord(0, 0, 32, 18));
            });
            if (limit == row.need) {
                EXPECT_EQ(failure, std::nullopt) << row.maxFrames;
                EXPECT_EQ(selector.accountedPeakBytes(), row.need) << row.maxFrames;
            } else {
                EXPECT_EQ(failure, Kind::resourceLimit) << row.maxFrames;
                EXPECT_EQ(selector.processedFrames(), 0) << row.maxFrames;
            }
        }
    }
}

// A new square settles every 0.4 s, so every few frames the selector holds one more thumbnail.
TEST(FrameSelector, BusyAnalysisStopsAtTheMemoryLimitLongBeforeTheEnd) {
    const Video video = [](int64_t i) {
        Picture picture;
        for (int64_t k = 1; k <= i / 10; ++k) {
            picture.rectangle((k % 16) * 10, (k / 16) * 10, 8, 8, 200);
        }
        return picture;
    };
    constexpr int64_t kFrames = 800;
    constexpr int64_t kLimit = 800'000;

    FrameSelector limited = changesSelector(20, kLimit);
    const std::optional<Kind> failure = failureOf([&] { feed(limited, video, 0, kFrames); });
    EXPECT_EQ(failure, Kind::resourceLimit);
    EXPECT_LT(limited.processedFrames(), kFrames / 2);
    EXPECT_LE(limited.accountedPeakBytes(), kLimit);
    EXPECT_GT(limited.candidates().size(), 10U);

    FrameSelector roomy = changesSelector(20);
    feed(roomy, video, 0, kFrames);
    const FrameSelectionResult result = roomy.finish(frameTime(kFrames), kFrames, false);
    EXPECT_EQ(result.frames.size(), 20U);
    EXPECT_EQ(result.candidates, 80);
}

// A thumbnail allowance of (2^32)^2 bytes must stick at the largest integer, not wrap round.
TEST(FrameSelector, MemoryAccountSaturatesInsteadOfWrapping) {
    FrameAnalysisSettings settings;
    settings.pruneLongEdge = int64_t{1} << 32;
    constexpr int64_t kLargest = std::numeric_limits<int64_t>::max();
    for (const int64_t limit : {kLargest, kLargest - 1}) {
        FrameSelector selector(settings, FrameSelectionMode::changes, 20, limit);
        const std::optional<Kind> failure =
            failureOf([&] { selector.consume(Picture().cells, frameRecord(0, 0)); });
        EXPECT_EQ(failure, limit == kLargest ? std::nullopt : std::optional(Kind::resourceLimit));
    }
}

std::vector<double> times(const FrameSelectionResult& result) {
    return kept(result, [](const Selected& selected) { return selected.frame.time; });
}

FrameSelectionResult intervalSelection(double window, int64_t maxFrames,
                                       const std::vector<double>& frameTimes) {
    // Interval mode keeps no memory account: even a limit of 1 byte is never reached.
    FrameSelector selector(FrameAnalysisSettings{}, FrameSelectionMode::interval, maxFrames, 1,
                           window);
    for (std::size_t i = 0; i < frameTimes.size(); ++i) {
        selector.consume(Picture().cells, frameRecord(static_cast<int64_t>(i), frameTimes[i]));
    }
    return selector.finish(window, std::nullopt, false);
}

TEST(FrameSelectorInterval, LastTargetIsFilledByTheLastDecodedFrame) {
    std::vector<double> frameTimes;
    for (int k = 0; k < 20; ++k) {
        frameTimes.push_back(0.5 * k);
    }
    const FrameSelectionResult result = intervalSelection(10.0, 3, frameTimes);
    EXPECT_THAT(times(result), ElementsAre(0.0, 5.0, 9.5));
    for (const Selected& selected : result.frames) {
        EXPECT_EQ(selected.reason, FrameReason::interval);
        EXPECT_EQ(selected.changedCells, std::nullopt);
        EXPECT_FALSE(selected.followingSpanPruned);
    }
    EXPECT_EQ(result.frames[0].holdsUntil, 5.0);
    EXPECT_EQ(result.frames[1].holdsUntil, 9.5);
    EXPECT_EQ(result.frames[2].holdsUntil, 10.0);
    EXPECT_EQ(result.candidates, 3);
    EXPECT_EQ(result.prunedByBudget, 0);
    EXPECT_EQ(result.decodedUntil, 10.0);
}

TEST(FrameSelectorInterval, PicksTheNearestFrameToEachTarget) {
    struct Row {
        std::string name;
        double window;
        int64_t maxFrames;
        std::vector<double> frameTimes;
        std::vector<double> expected;
    };
    const std::vector<Row> rows = {
        {"tie goes to the earlier frame", 10.0, 3, {0, 4.75, 5.25, 10.0}, {0, 4.75, 10.0}},
        {"nearer later frame", 10.0, 3, {0, 4.5, 5.25, 10.0}, {0, 5.25, 10.0}},
        {"targets sharing a frame give it once", 1.0, 5, {0, 0.5, 1.0}, {0, 0.5, 1.0}},
        {"one frame: the start", 10.0, 1, {0, 2.5, 5.0}, {0}},
        {"last frame already picked", 10.0, 3, {0, 5.0}, {0, 5.0}},
        {"start filled by a later first frame", 4.0, 2, {0.25, 1.0}, {0.25, 1.0}},
    };
    for (const Row& row : rows) {
        EXPECT_THAT(times(intervalSelection(row.window, row.maxFrames, row.frameTimes)),
                    ElementsAreArray(row.expected))
            << row.name;
    }
}

using FrameSelectorDeathTest = testing::Test;

TEST_F(FrameSelectorDeathTest, IntervalModeNeedsAUsableWindowAndAFrameAndKeepsIt) {
    const auto make = [](int64_t maxFrames, std::optional<double> window) {
        FrameSelector selector(FrameAnalysisSettings{}, FrameSelectionMode::interval, maxFrames,
                               FrameSelector::kDefaultMemoryLimitBytes, window);
        (void)selector;
    };
    EXPECT_DEATH(make(3, std::nullopt), "programmer error");
    EXPECT_DEATH(make(3, 0.0), "programmer error");
    EXPECT_DEATH(make(3, std::numeric_limits<double>::infinity()), "programmer error");
    EXPECT_DEATH(make(3, std::numeric_limits<double>::quiet_NaN()), "programmer error");
    EXPECT_DEATH(make(0, 10.0), "programmer error");
    // It finishes with its own window only.
    const FrameSelector selector(FrameAnalysisSettings{}, FrameSelectionMode::interval, 3,
                                 FrameSelector::kDefaultMemoryLimitBytes, 10.0);
    EXPECT_DEATH((void)selector.finish(9.0, std::nullopt, false), "programmer error");
}

}  // namespace
}  // namespace tessarin::engine::selector_test
