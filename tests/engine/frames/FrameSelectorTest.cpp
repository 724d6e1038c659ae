// How the selector picks frames from changes, motion, cuts and its budget.
#include "tests/engine/frames/FrameSelectorTestSupport.hpp"

namespace tessarin::engine::selector_test {
namespace {

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

}  // namespace
}  // namespace tessarin::engine::selector_test
