#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "engine/frames/FrameSelector.hpp"

namespace tessarin::engine {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using Kind = FrameSelector::Failure::Kind;
using Selected = FrameSelectionResult::Selected;

constexpr double kRate = 25;
constexpr uint8_t kBackground = 80;

// A synthetic gray analysis grid: a background with rectangles drawn in.
struct Picture {
    int64_t width = 160;
    int64_t height = 90;
    std::vector<std::uint8_t> cells;

    explicit Picture(std::uint8_t background = kBackground, int64_t w = 160, int64_t h = 90)
        : width(w), height(h), cells(static_cast<std::size_t>(w * h), background) {}

    // Clipped to the picture.
    Picture& rectangle(int64_t x, int64_t y, int64_t w, int64_t h, std::uint8_t value) {
        for (int64_t row = std::max<int64_t>(y, 0); row < std::min(y + h, height); ++row) {
            for (int64_t column = std::max<int64_t>(x, 0); column < std::min(x + w, width);
                 ++column) {
                cells[static_cast<std::size_t>(row * width + column)] = value;
            }
        }
        return *this;
    }
};

double frameTime(int64_t index) {
    return static_cast<double>(index) / kRate;
}

ShowinfoFrame frameRecord(int64_t n, double time, int64_t width = 160, int64_t height = 90) {
    return {
        .n = n, .pts = n, .time = time, .duration = 1 / kRate, .width = width, .height = height};
}

using Video = std::function<Picture(int64_t index)>;

// Feeds frames `from` up to `to` (excluded) at 25 per second.
void feed(FrameSelector& selector, const Video& video, int64_t from, int64_t to) {
    for (int64_t i = from; i < to; ++i) {
        Picture picture = video(i);
        selector.consume(std::move(picture.cells),
                         frameRecord(i, frameTime(i), picture.width, picture.height));
    }
}

FrameSelector changesSelector(int64_t maxFrames = 20,
                              int64_t memoryLimit = FrameSelector::kDefaultMemoryLimitBytes) {
    return FrameSelector(FrameAnalysisSettings{}, FrameSelectionMode::changes, maxFrames,
                         memoryLimit);
}

// Selects from `count` frames of `video`, a range as long as the frames.
FrameSelectionResult analyse(const Video& video, int64_t count, int64_t maxFrames = 20) {
    FrameSelector selector = changesSelector(maxFrames);
    feed(selector, video, 0, count);
    return selector.finish(frameTime(count), count, false);
}

std::vector<FrameReason> reasons(const FrameSelectionResult& result) {
    std::vector<FrameReason> list;
    for (const Selected& selected : result.frames) {
        list.push_back(selected.reason);
    }
    return list;
}

std::optional<Kind> failureOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const FrameSelector::Failure& failure) {
        return failure.kind();
    }
    return std::nullopt;
}

TEST(FrameSelector, StillVideoGivesOneFirstFrameHoldingToTheEnd) {
    const FrameSelectionResult result = analyse([](int64_t) { return Picture(); }, 100);
    ASSERT_THAT(reasons(result), ElementsAre(FrameReason::first));
    const Selected& first = result.frames[0];
    EXPECT_EQ(first.frame.n, 0);
    EXPECT_EQ(first.changedCells, std::nullopt);
    EXPECT_EQ(first.holdsUntil, 4.0);
    EXPECT_FALSE(first.followingSpanPruned);
    EXPECT_EQ(result.candidates, 1);
    EXPECT_EQ(result.prunedByBudget, 0);
    EXPECT_EQ(result.decodedUntil, 4.0);
    EXPECT_TRUE(result.warnings.empty());
}

// A 20x20 square slides in from 1.0 s and stops at 1.28 s.
TEST(FrameSelector, ChangeIsTakenWhereThePictureWentStill) {
    const FrameSelectionResult result = analyse(
        [](int64_t i) {
            Picture picture;
            if (i >= 25) {
                picture.rectangle(8 * (std::min<int64_t>(i, 32) - 25), 30, 20, 20, 200);
            }
            return picture;
        },
        100);
    ASSERT_THAT(reasons(result), ElementsAre(FrameReason::first, FrameReason::change));
    EXPECT_EQ(result.frames[0].holdsUntil, frameTime(32));
    const Selected& change = result.frames[1];
    EXPECT_EQ(change.frame.n, 32);
    EXPECT_EQ(change.frame.time, frameTime(32));
    EXPECT_EQ(change.changedCells, 400);  // against the first frame
    EXPECT_EQ(change.holdsUntil, 4.0);
}

// 320 by 180 gives 18 cells for a change and 11 for stillness; a patch toggling every frame
// counts as still up to 11 cells.
TEST(FrameSelector, ThresholdsFollowTheGridSize) {
    struct Row {
        std::string name;
        int64_t changeWidth;
        int64_t changeHeight;
        int64_t flickerCells;
        std::vector<FrameReason> expected;
    };
    const std::vector<Row> rows = {
        {"17 cells are no change", 17, 1, 0, {FrameReason::first}},
        {"18 cells are a change", 9, 2, 0, {FrameReason::first, FrameReason::change}},
        {"11 flickering cells are still", 20, 20, 11, {FrameReason::first, FrameReason::change}},
        {"12 flickering cells never settle",
         20,
         20,
         12,
         {FrameReason::first, FrameReason::unsettled}},
    };
    for (const Row& row : rows) {
        const FrameSelectionResult result = analyse(
            [&row](int64_t i) {
                Picture picture(kBackground, 320, 180);
                if (i >= 10) {
                    picture.rectangle(100, 50, row.changeWidth, row.changeHeight, 200);
                    if (i % 2 == 0) {
                        picture.rectangle(10, 150, row.flickerCells, 1, 200);
                    }
                }
                return picture;
            },
            50);
        EXPECT_EQ(reasons(result), row.expected) << row.name;
        if (result.frames.size() > 1) {
            EXPECT_EQ(result.frames[1].frame.n, 10) << row.name;
            EXPECT_EQ(result.frames[1].changedCells,
                      row.changeWidth * row.changeHeight + row.flickerCells)
                << row.name;
        }
    }
}

// A pop-up at 2.0 s, largest at 2.08 s, gone at 2.2 s.
TEST(FrameSelector, PopUpIsCaughtAtItsFullestAsATransient) {
    struct Row {
        std::string name;
        std::vector<int64_t> sizes;  // the pop-up's edge in frames 50 to 54
        bool leavesACell;            // one cell of it stays behind
        std::vector<FrameReason> expected;
    };
    const std::vector<Row> rows = {
        {"large",
         {10, 16, 20, 12, 6},
         false,
         {FrameReason::first, FrameReason::transient, FrameReason::last}},
        {"gone but for one cell",
         {10, 16, 20, 12, 6},
         true,
         {FrameReason::first, FrameReason::transient, FrameReason::last}},
        {"peaking below twice the change threshold", {3, 3, 3, 3, 3}, false, {FrameReason::first}},
    };
    for (const Row& row : rows) {
        const FrameSelectionResult result = analyse(
            [&row](int64_t i) {
                Picture picture;
                if (i >= 50 && i < 55) {
                    const int64_t edge = row.sizes[static_cast<std::size_t>(i - 50)];
                    picture.rectangle(40, 20, edge, edge, 230);
                } else if (i >= 55 && row.leavesACell) {
                    picture.rectangle(40, 20, 1, 1, 230);
                }
                return picture;
            },
            100);
        ASSERT_EQ(reasons(result), row.expected) << row.name;
        if (row.expected.size() > 1) {
            const Selected& transient = result.frames[1];
            EXPECT_EQ(transient.frame.n, 52) << row.name;
            EXPECT_EQ(transient.changedCells, 400) << row.name;
            EXPECT_EQ(transient.holdsUntil, frameTime(55)) << row.name;
            EXPECT_EQ(result.frames[0].holdsUntil, frameTime(52)) << row.name;
        }
    }
}

// A bar 10 cells wide crossing the picture without pause for 10 s.
TEST(FrameSelector, NeverSettlingMotionGivesActivityAboutEveryTwoSeconds) {
    const FrameSelectionResult result =
        analyse([](int64_t i) { return Picture().rectangle(i % 150, 0, 10, 90, 255); }, 250);
    std::vector<double> activityTimes;
    for (const Selected& selected : result.frames) {
        if (selected.reason == FrameReason::activity) {
            activityTimes.push_back(selected.frame.time);
            EXPECT_EQ(selected.changedCells, 1800);
        }
        EXPECT_NE(selected.reason, FrameReason::change);
    }
    ASSERT_EQ(activityTimes.size(), 4U);
    EXPECT_GE(activityTimes[0], 2.0);
    EXPECT_LT(activityTimes[0], 2.1);
    for (std::size_t i = 1; i < activityTimes.size(); ++i) {
        EXPECT_GE(activityTimes[i] - activityTimes[i - 1], 1.99);
        EXPECT_LT(activityTimes[i] - activityTimes[i - 1], 2.1);
    }
    EXPECT_EQ(result.frames.front().reason, FrameReason::first);
    EXPECT_EQ(result.frames.back().reason, FrameReason::last);
}

// The bar moves until 2.04 s, where it is taken for activity, and the decode ends there; the
// range goes on to 2.5 s. Settling at the end on a frame already offered adds nothing.
TEST(FrameSelector, SettlingOnAFrameAlreadyOfferedAddsNothing) {
    FrameSelector selector = changesSelector();
    feed(
        selector, [](int64_t i) { return Picture().rectangle(i, 0, 10, 90, 255); }, 0, 52);
    const FrameSelectionResult result = selector.finish(2.5, std::nullopt, false);
    ASSERT_THAT(reasons(result), ElementsAre(FrameReason::first, FrameReason::activity));
    EXPECT_EQ(result.frames[1].frame.n, 51);
    EXPECT_EQ(result.frames[1].holdsUntil, 2.5);
}

// A square appears at 1.0 s and holds for 0.32 s; then a second square appears.
TEST(FrameSelector, StateThatHeldLongEnoughCountsEvenWhenTheNextFrameChanges) {
    const FrameSelectionResult result = analyse(
        [](int64_t i) {
            Picture picture;
            if (i >= 25) {
                picture.rectangle(20, 20, 10, 10, 200);
            }
            if (i >= 33) {
                picture.rectangle(60, 20, 10, 10, 200);
            }
            return picture;
        },
        100);
    ASSERT_THAT(reasons(result),
                ElementsAre(FrameReason::first, FrameReason::change, FrameReason::change));
    EXPECT_EQ(result.frames[1].frame.n, 25);
    EXPECT_EQ(result.frames[2].frame.n, 33);
    EXPECT_EQ(result.frames[2].changedCells, 100);
}

// A 3x3 block in motion never differs by four times the change threshold.
TEST(FrameSelector, SmallMotionNeverCountsAsActivity) {
    const FrameSelectionResult result =
        analyse([](int64_t i) { return Picture().rectangle(i, 40, 3, 3, 255); }, 140);
    EXPECT_THAT(reasons(result), ElementsAre(FrameReason::first, FrameReason::last));
}

// A bar moves from 1.0 s; at 2.0 s the picture cuts to another scene, which then stays.
TEST(FrameSelector, HardCutDuringMotionKeepsTheFrameBeforeIt) {
    const FrameSelectionResult result = analyse(
        [](int64_t i) {
            if (i >= 50) {
                return Picture(200).rectangle(60, 25, 40, 40, 0);
            }
            Picture picture;
            if (i >= 25) {
                picture.rectangle(i - 25, 0, 10, 90, 255);
            }
            return picture;
        },
        100);
    ASSERT_THAT(reasons(result),
                ElementsAre(FrameReason::first, FrameReason::change, FrameReason::change));
    EXPECT_EQ(result.frames[0].holdsUntil, frameTime(49));
    const Selected& before = result.frames[1];
    EXPECT_EQ(before.frame.n, 49);
    EXPECT_EQ(before.changedCells, 900);
    EXPECT_EQ(before.holdsUntil, frameTime(50));
    const Selected& after = result.frames[2];
    EXPECT_EQ(after.frame.n, 50);
    EXPECT_EQ(after.changedCells, 160 * 90);
    EXPECT_EQ(after.holdsUntil, 4.0);
}

// A block 60 cells wide moves from 1.0 s; at 2.0 s the picture cuts back to the still
// background, exactly or but for 3 cells (half the change threshold is 2).
TEST(FrameSelector, CutBackToTheSettledPictureIsAReturnNotAState) {
    struct Row {
        std::string name;
        int64_t leftover;
        std::vector<FrameReason> expected;
        int64_t secondN;
    };
    const std::vector<Row> rows = {
        {"exactly back", 0, {FrameReason::first, FrameReason::transient, FrameReason::last}, 25},
        {"3 cells off", 3, {FrameReason::first, FrameReason::change, FrameReason::change}, 49},
    };
    for (const Row& row : rows) {
        const FrameSelectionResult result = analyse(
            [&row](int64_t i) {
                Picture picture;
                if (i >= 50) {
                    picture.rectangle(150, 80, row.leftover, 1, 200);
                } else if (i >= 25) {
                    picture.rectangle(i - 25, 0, 60, 90, 255);
                }
                return picture;
            },
            100);
        ASSERT_EQ(reasons(result), row.expected) << row.name;
        EXPECT_EQ(result.frames[1].frame.n, row.secondN) << row.name;
        EXPECT_EQ(result.frames[1].changedCells, 60 * 90) << row.name;
        EXPECT_EQ(result.frames[1].holdsUntil, frameTime(50)) << row.name;
    }
}

std::vector<int64_t> frameNumbers(const FrameSelectionResult& result) {
    std::vector<int64_t> list;
    for (const Selected& selected : result.frames) {
        list.push_back(selected.frame.n);
    }
    return list;
}

// A cut at 2.0 s, from a still picture or from motion, into a scene with motion; then a second
// cut. The frame before the second cut is kept only when the cuts are at least 0.5 s apart.
TEST(FrameSelector, CutsCloseTogetherKeepNoFrameBetweenThem) {
    struct Row {
        std::string name;
        bool motionBeforeFirstCut;
        int64_t secondCut;
        std::vector<int64_t> expected;  // frame numbers: the first frame, then changes
    };
    const std::vector<Row> rows = {
        {"still, cuts 0.4 s apart", false, 60, {0, 60}},
        {"still, cuts 0.6 s apart", false, 65, {0, 64, 65}},
        {"motion, cuts 0.4 s apart", true, 60, {0, 49, 60}},
        {"motion, cuts 0.6 s apart", true, 65, {0, 49, 64, 65}},
    };
    for (const Row& row : rows) {
        const FrameSelectionResult result = analyse(
            [&row](int64_t i) {
                if (i >= row.secondCut) {
                    return Picture(20);
                }
                if (i >= 50) {
                    return Picture(200).rectangle(i - 50, 0, 10, 90, 0);
                }
                Picture picture;
                if (i >= 25 && row.motionBeforeFirstCut) {
                    picture.rectangle(i - 25, 0, 10, 90, 255);
                }
                return picture;
            },
            100);
        EXPECT_EQ(frameNumbers(result), row.expected) << row.name;
        for (std::size_t i = 1; i < result.frames.size(); ++i) {
            EXPECT_EQ(result.frames[i].reason, FrameReason::change) << row.name;
        }
    }
}

// A state shown for 0.12 s before a cut never had the time to settle and is not kept.
TEST(FrameSelector, CutRightAfterAChangeKeepsOnlyTheNewScene) {
    const FrameSelectionResult result = analyse(
        [](int64_t i) {
            if (i >= 53) {
                return Picture(200);
            }
            return i >= 50 ? Picture().rectangle(20, 20, 30, 30, 255) : Picture();
        },
        100);
    EXPECT_EQ(frameNumbers(result), (std::vector<int64_t>{0, 53}));
}

// On a 320x180 grid (18 cells for a change, 11 for stillness): a 20x20 pop-up is caught as a
// transient at 2.0 s; at 3.0 s it comes back with a 14-cell patch flickering beside it, so it
// never settles; at 4.0 s the picture cuts. The frame before the cut shows nothing new against
// the transient, so it is not kept.
TEST(FrameSelector, CutAfterAStateAlreadyOfferedKeepsNothingBeforeIt) {
    const FrameSelectionResult result = analyse(
        [](int64_t i) {
            if (i >= 100) {
                return Picture(200, 320, 180);
            }
            Picture picture(kBackground, 320, 180);
            if ((i >= 50 && i < 55) || i >= 75) {
                picture.rectangle(100, 50, 20, 20, 230);
            }
            if (i >= 75 && i % 2 == 1) {
                picture.rectangle(10, 150, 14, 1, 230);
            }
            return picture;
        },
        150);
    ASSERT_THAT(reasons(result),
                ElementsAre(FrameReason::first, FrameReason::transient, FrameReason::change));
    EXPECT_EQ(frameNumbers(result), (std::vector<int64_t>{0, 50, 100}));
}

// A new 10x10 square appears every second: the first frame and nine changes.
TEST(FrameSelector, BudgetKeepsTheEndsAndMarksPrunedSpans) {
    const Video video = [](int64_t i) {
        Picture picture;
        for (int64_t k = 1; k <= i / 25; ++k) {
            picture.rectangle(15 * k, 20, 10, 10, 200);
        }
        return picture;
    };
    const FrameSelectionResult all = analyse(video, 250, 20);
    ASSERT_EQ(all.frames.size(), 10U);
    EXPECT_TRUE(all.warnings.empty());

    const FrameSelectionResult result = analyse(video, 250, 4);
    EXPECT_EQ(result.candidates, 10);
    EXPECT_EQ(result.prunedByBudget, 6);
    EXPECT_THAT(result.warnings, ElementsAre(FrameWarning::budgetPruned));
    ASSERT_EQ(result.frames.size(), 4U);
    EXPECT_EQ(result.frames.front().reason, FrameReason::first);
    EXPECT_EQ(result.frames.back().frame.n, 225);
    EXPECT_EQ(result.frames.back().holdsUntil, 10.0);
    EXPECT_FALSE(result.frames.back().followingSpanPruned);
    for (std::size_t i = 0; i + 1 < result.frames.size(); ++i) {
        const Selected& selected = result.frames[i];
        const Selected& next = result.frames[i + 1];
        EXPECT_EQ(selected.holdsUntil, next.frame.time);
        // Candidates are one second apart, so a longer hold hides a removed one.
        EXPECT_EQ(selected.followingSpanPruned, next.frame.time - selected.frame.time > 1.5);
        if (selected.reason == FrameReason::change) {
            EXPECT_EQ(selected.changedCells, 100);
        }
    }
}

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
}

TEST(FrameSelector, NothingDecodedGivesAnEmptyResult) {
    const FrameSelectionResult result = changesSelector().finish(5.0, 125, false);
    EXPECT_EQ(result, FrameSelectionResult{});
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
    std::vector<double> list;
    for (const Selected& selected : result.frames) {
        list.push_back(selected.frame.time);
    }
    return list;
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

TEST_F(FrameSelectorDeathTest, IntervalModeNeedsAUsableWindowAndAFrame) {
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
}

TEST_F(FrameSelectorDeathTest, IntervalModeFinishesWithItsOwnWindow) {
    const FrameSelector selector(FrameAnalysisSettings{}, FrameSelectionMode::interval, 3,
                                 FrameSelector::kDefaultMemoryLimitBytes, 10.0);
    EXPECT_DEATH((void)selector.finish(9.0, std::nullopt, false), "programmer error");
}

}  // namespace
}  // namespace tessarin::engine
