#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/frames/internal/FramePruning.hpp"
#include "engine/frames/internal/PruneHeap.hpp"

namespace tessarin::engine::frames_internal {
namespace {

using testing::ElementsAre;
using Key = PruneHeap::Key;

TEST(Log2q, IsTheBinaryLogarithmOfOneMoreWithEightFractionalBits) {
    struct Row {
        int64_t c;
        int64_t expected;  // floor(256 * log2(c + 1))
    };
    const std::vector<Row> rows = {
        {-7, 0},
        {0, 0},
        {1, 256},
        {2, 405},  // 405.75
        {3, 512},
        {9, 850},    // 850.41
        {99, 1700},  // 1700.83
        {255, 2048},
        {57599, 4048},                                     // 4048.33
        {std::numeric_limits<int64_t>::max() - 1, 16127},  // 62.99999...
    };
    for (const Row& row : rows) {
        EXPECT_EQ(log2q(row.c), row.expected) << row.c;
    }
}

TEST(PruneHeap, GivesUpHigherTiersThenNoGapThenLowerCostThenLaterIndex) {
    PruneHeap heap;
    const std::vector<Key> keys = {
        {.tier = 2, .opensGap = false, .cost = 10, .index = 1},
        {.tier = 3, .opensGap = true, .cost = 900, .index = 2},
        {.tier = 2, .opensGap = true, .cost = 1, .index = 3},
        {.tier = 2, .opensGap = false, .cost = 10, .index = 4},
        {.tier = 1, .opensGap = false, .cost = 0, .index = 5},
        {.tier = 2, .opensGap = false, .cost = 5, .index = 6},
        {.tier = 3, .opensGap = false, .cost = 900, .index = 7},
    };
    for (const Key& key : keys) {
        heap.push(key);
    }
    std::vector<int64_t> order;
    while (std::optional<Key> key = heap.pop()) {
        order.push_back(key->index);
    }
    EXPECT_THAT(order, ElementsAre(7, 2, 6, 4, 1, 3, 5));
    EXPECT_TRUE(heap.empty());
}

// Thumbnails of 100 cells in which the first `lit` cells are white.
std::vector<std::vector<std::uint8_t>> litThumbnails(const std::vector<int>& lit) {
    std::vector<std::vector<std::uint8_t>> thumbnails;
    for (const int count : lit) {
        std::vector<std::uint8_t> cells(100, 0);
        std::fill_n(cells.begin(), count, 255);
        thumbnails.push_back(std::move(cells));
    }
    return thumbnails;
}

std::vector<int> keptIndices(const std::vector<int64_t>& tiers, const std::vector<double>& times,
                             const std::vector<std::vector<std::uint8_t>>& thumbnails,
                             int64_t maxFrames, double gapFactor = 2.0) {
    std::vector<PruneEntry> entries;
    for (std::size_t i = 0; i < tiers.size(); ++i) {
        entries.push_back({tiers[i], times[i], thumbnails[i]});
    }
    const std::vector<bool> kept = pruneToBudget(entries, maxFrames, gapFactor, 12);
    std::vector<int> indices;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        if (kept[i]) {
            indices.push_back(static_cast<int>(i));
        }
    }
    return indices;
}

TEST(FramePruning, EqualCostsGiveUpLaterFramesFirst) {
    // Evenly spaced, each showing 10 more cells than the one before.
    const std::vector<int64_t> tiers = {0, 2, 2, 2, 0};
    const std::vector<double> times = {0, 1, 2, 3, 4};
    const auto thumbnails = litThumbnails({0, 10, 20, 30, 40});
    EXPECT_THAT(keptIndices(tiers, times, thumbnails, 4), ElementsAre(0, 1, 2, 4));
    // Then 2 spans twice as long as 1, so 1 goes.
    EXPECT_THAT(keptIndices(tiers, times, thumbnails, 3), ElementsAre(0, 2, 4));
}

TEST(FramePruning, HigherRankGoesFirstWhateverItShows) {
    const std::vector<double> times = {0, 1, 2, 3};
    const auto thumbnails = litThumbnails({0, 90, 91, 92});
    // The activity shows 90 cells of change, the change only 1.
    EXPECT_THAT(keptIndices({0, 3, 2, 0}, times, thumbnails, 3), ElementsAre(0, 2, 3));
    EXPECT_THAT(keptIndices({0, 2, 3, 0}, times, thumbnails, 3), ElementsAre(0, 1, 3));
    // The change shows far more than the transient, yet goes first.
    EXPECT_THAT(keptIndices({0, 2, 1, 0}, times, thumbnails, 3), ElementsAre(0, 2, 3));
}

TEST(FramePruning, LessChangeForLessTimeGoesFirst) {
    const std::vector<int64_t> tiers = {0, 2, 2, 2, 0};
    const auto thumbnails = litThumbnails({0, 40, 41, 81, 81});
    // 2 shows one cell of change.
    EXPECT_THAT(keptIndices(tiers, {0, 1, 2, 3, 4}, thumbnails, 4), ElementsAre(0, 1, 3, 4));
}

TEST(FramePruning, AvoidsOpeningAWideGap) {
    // 3 is cheap (1 cell) but its removal leaves 2 to 4 empty, 7 s against a limit of
    // 10 / 3 * 2 = 6.67 s; 1 is costly (60 cells) but leaves only 2 s.
    const std::vector<int64_t> tiers = {0, 2, 2, 2, 0};
    const std::vector<double> times = {0, 1, 2, 9, 10};
    const auto thumbnails = litThumbnails({0, 60, 70, 71, 0});
    EXPECT_THAT(keptIndices(tiers, times, thumbnails, 4), ElementsAre(0, 2, 3, 4));
    // Without the gap rule the cheap one goes.
    EXPECT_THAT(keptIndices(tiers, times, thumbnails, 4, 1e9), ElementsAre(0, 1, 2, 4));
}

// A thumbnail of 100 cells, white in the given half-open ranges.
std::vector<std::uint8_t> whiteIn(std::initializer_list<std::pair<int, int>> ranges) {
    std::vector<std::uint8_t> cells(100, 0);
    for (const auto& [begin, end] : ranges) {
        std::fill(cells.begin() + begin, cells.begin() + end, 255);
    }
    return cells;
}

// 1 goes first: it shows 50 cells, but only for 0.1 s. Against 1, 2 showed only 2 cells; against
// 0, its new predecessor, it shows 52 for 1.9 s, which now outweighs 3 (20 cells for 1 s).
TEST(FramePruning, RemovalMeasuresTheNextAgainstItsNewPredecessor) {
    const std::vector<std::vector<std::uint8_t>> thumbnails = {
        whiteIn({}),
        whiteIn({{0, 50}}),
        whiteIn({{0, 52}}),
        whiteIn({{0, 52}, {60, 80}}),
        whiteIn({{0, 52}, {60, 80}}),
    };
    EXPECT_THAT(keptIndices({0, 2, 2, 2, 0}, {0, 1.0, 1.1, 3, 4}, thumbnails, 3),
                ElementsAre(0, 2, 4));
}

TEST(FramePruning, KeepsEverythingWithinTheBudgetOrBelowThree) {
    const auto thumbnails = litThumbnails({0, 10, 20});
    EXPECT_THAT(keptIndices({0, 2, 0}, {0, 1, 2}, thumbnails, 3), ElementsAre(0, 1, 2));
    EXPECT_THAT(keptIndices({0, 0}, {0, 1}, litThumbnails({0, 10}), 1), ElementsAre(0, 1));
}

TEST(FramePruning, ABudgetBelowTwoStillKeepsBothEnds) {
    const auto thumbnails = litThumbnails({0, 10, 20, 30, 40});
    for (const int64_t maxFrames : {-1, 0, 1, 2}) {
        EXPECT_THAT(keptIndices({0, 1, 2, 3, 0}, {0, 1, 2, 3, 4}, thumbnails, maxFrames),
                    ElementsAre(0, 4))
            << maxFrames;
    }
}

}  // namespace
}  // namespace tessarin::engine::frames_internal
