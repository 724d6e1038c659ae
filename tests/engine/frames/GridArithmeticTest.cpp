#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "engine/frames/internal/GridArithmetic.hpp"

namespace tessarin::engine::frames_internal {
namespace {

constexpr int64_t kLargest = std::numeric_limits<int64_t>::max();

GridBytes grid(int64_t width, int64_t height, std::uint8_t (*cell)(int64_t x, int64_t y)) {
    std::vector<std::uint8_t> bytes;
    for (int64_t y = 0; y < height; ++y) {
        for (int64_t x = 0; x < width; ++x) {
            bytes.push_back(cell(x, y));
        }
    }
    return std::make_shared<const std::vector<std::uint8_t>>(std::move(bytes));
}

TEST(ChangedCells, CountsDifferencesAboveTheThresholdEitherWay) {
    const std::vector<std::uint8_t> a = {100, 100, 100, 100, 0, 255};
    const std::vector<std::uint8_t> b = {112, 113, 87, 88, 255, 0};
    struct Row {
        int64_t cellDelta;
        int64_t changed;
    };
    // 12 and -12 are not changes, 13 and -13 are; the threshold is held to 0 through 255.
    const std::vector<Row> rows = {
        {12, 4}, {0, 6}, {-5, 6}, {254, 2}, {255, 0}, {1000, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(changedCells(a, b, row.cellDelta), row.changed) << row.cellDelta;
    }
}

TEST(ThumbnailSize, ScalesTheLongEdgeToThePruneEdge) {
    struct Row {
        int64_t width;
        int64_t height;
        ThumbnailSize size;
    };
    const std::vector<Row> rows = {
        {320, 180, {160, 90}}, {180, 320, {90, 160}}, {160, 90, {160, 90}},  // small enough already
        {32, 18, {32, 18}},    {240, 100, {160, 67}},                        // 66.67 to nearest
        {320, 5, {160, 3}},                         // 2.5: halves away from zero
        {320, 3, {160, 2}},    {321, 1, {160, 1}},  // 0.498 would round to 0; at least 1
    };
    for (const Row& row : rows) {
        EXPECT_EQ(thumbnailSize(row.width, row.height, 160), row.size)
            << row.width << "x" << row.height;
    }
}

TEST(Thumbnail, SmallGridIsSharedNotCopied) {
    const GridBytes source = grid(160, 90, [](int64_t, int64_t) -> std::uint8_t { return 7; });
    EXPECT_EQ(thumbnail(source, 160, 90, 160), source);
}

TEST(Thumbnail, HalvingTakesTheTruncatedMeanOfEachBlock) {
    // Each 2x2 block holds 0, 1, 2 and 3: the mean 1.5 truncates to 1.
    const GridBytes source = grid(320, 180, [](int64_t x, int64_t y) {
        return static_cast<std::uint8_t>(x % 2 + (y % 2) * 2);
    });
    const GridBytes result = thumbnail(source, 320, 180, 160);
    ASSERT_EQ(result->size(), 160U * 90U);
    EXPECT_THAT(*result, testing::Each(1));
}

TEST(Thumbnail, UnevenBlocksCoverEverySourceRow) {
    // 7 rows into 4: blocks [0,1), [1,3), [3,5), [5,7).
    const GridBytes source =
        grid(300, 7, [](int64_t, int64_t y) { return static_cast<std::uint8_t>(y * 30); });
    const GridBytes result = thumbnail(source, 300, 7, 160);
    ASSERT_EQ(result->size(), 160U * 4U);
    for (int64_t y = 0; y < 4; ++y) {
        const std::uint8_t expected = std::vector<std::uint8_t>{0, 45, 105, 165}[y];
        for (int64_t x = 0; x < 160; ++x) {
            ASSERT_EQ((*result)[y * 160 + x], expected) << x << "," << y;
        }
    }
}

TEST(SaturatingArithmetic, SticksAtTheLargestInteger) {
    EXPECT_EQ(saturatingAdd(kLargest - 1, 5), kLargest);
    EXPECT_EQ(saturatingAdd(40, 2), 42);
    EXPECT_EQ(saturatingMultiply(int64_t{1} << 32, int64_t{1} << 32), kLargest);
    EXPECT_EQ(saturatingMultiply(6, 7), 42);
}

TEST(ClampedInteger, HoldsAnyDoubleToTheIntegerRange) {
    EXPECT_EQ(clampedInteger(17.9), 17);
    EXPECT_EQ(clampedInteger(1e300), kLargest);
    EXPECT_EQ(clampedInteger(-1e300), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(clampedInteger(std::numeric_limits<double>::quiet_NaN()), 0);
}

}  // namespace
}  // namespace tessarin::engine::frames_internal
