#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>
#include <vips/vips8>

#include "engine/frames/ContactSheet.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using Geometry = ContactSheet::Geometry;
using Kind = ContactSheet::Failure::Kind;
using Range = ContactSheet::Range;
using test::TempDir;
using vips::VImage;

constexpr double kWide = 9.0 / 16.0;
constexpr int kBackground = 31;  // 0.12 of 255, rounded

// ---- Batches -------------------------------------------------------------------------------

TEST(ContactSheetBatches, BalancesTheSheets) {
    EXPECT_THAT(ContactSheet::batches(0), testing::IsEmpty());
    EXPECT_THAT(ContactSheet::batches(1), testing::ElementsAre(Range{1, 1}));
    EXPECT_THAT(ContactSheet::batches(36), testing::ElementsAre(Range{1, 36}));
    EXPECT_THAT(ContactSheet::batches(37), testing::ElementsAre(Range{1, 18}, Range{19, 37}));
    EXPECT_THAT(ContactSheet::batches(73),
                testing::ElementsAre(Range{1, 24}, Range{25, 48}, Range{49, 73}));
}

TEST(ContactSheetBatches, CoverEveryFrameOnceInSheetsOfAtMost36) {
    for (int64_t count = 1; count <= 1000; ++count) {
        const std::vector<Range> ranges = ContactSheet::batches(count);
        ASSERT_EQ(static_cast<int64_t>(ranges.size()), (count + 35) / 36) << count;
        int64_t next = 1;
        int64_t smallest = std::numeric_limits<int64_t>::max();
        int64_t largest = 0;
        for (const Range& range : ranges) {
            ASSERT_EQ(range.first, next) << count;
            const int64_t size = range.last - range.first + 1;
            smallest = std::min(smallest, size);
            largest = std::max(largest, size);
            next = range.last + 1;
        }
        EXPECT_EQ(next, count + 1) << count;
        EXPECT_LE(largest, ContactSheet::kMaxTiles) << count;
        EXPECT_LE(largest - smallest, 1) << count;
    }
}

// ---- Geometry ------------------------------------------------------------------------------

struct GeometryCase {
    int64_t count;
    double aspect;
    Geometry expected;
};

TEST(ContactSheetGeometry, FollowsTheGridRules) {
    const std::vector<GeometryCase> cases = {
        // One wide frame: the tile width is held to 320.
        {1, kWide, {1, 1, 320, 180, 336, 216}},
        {3, kWide, {3, 1, 320, 180, 992, 216}},
        // Seven or more tiles: at most six columns.
        {7, kWide, {4, 2, 320, 180, 1320, 424}},
        {36, kWide, {6, 6, 320, 180, 1976, 1256}},
        // Tall frames: the cell height sets the size, so the tiles get narrow.
        {36, 2.0, {6, 6, 200, 400, 1256, 2576}},
        {30, 16.0 / 9.0, {6, 5, 272, 484, 1688, 2568}},
        {12, 16.0 / 9.0, {5, 3, 320, 569, 1648, 1799}},
        // Many tiles leave cells too low for any width: held to 1.
        {1000, 1.0, {6, 167, 1, 1, 62, 4851}},
    };
    for (const GeometryCase& c : cases) {
        EXPECT_EQ(ContactSheet::geometry(c.count, c.aspect), c.expected)
            << c.count << " tiles, aspect " << c.aspect;
    }
}

TEST(ContactSheetGeometry, TakesNonsenseInputsAsOne) {
    const Geometry square = ContactSheet::geometry(1, 1.0);
    EXPECT_EQ(square, (Geometry{1, 1, 320, 320, 336, 356}));
    EXPECT_EQ(ContactSheet::geometry(0, 1.0), square);
    EXPECT_EQ(ContactSheet::geometry(1, std::numeric_limits<double>::quiet_NaN()), square);
    EXPECT_EQ(ContactSheet::geometry(1, -2.0), square);
    EXPECT_THROW(static_cast<void>(ContactSheet::geometry(ContactSheet::kCountLimit + 1, 1.0)),
                 std::invalid_argument);
}

// ---- Labels --------------------------------------------------------------------------------

TEST(ContactSheetLabel, ShowsIndexAndTimeToTheTenth) {
    const std::vector<std::pair<std::pair<int64_t, double>, std::string>> cases = {
        {{1, 0.0}, "1 \u00B7 0:00.0"},        {{1, 1.5}, "1 \u00B7 0:01.5"},
        {{3, 72.5}, "3 \u00B7 1:12.5"},       {{4, 72.04}, "4 \u00B7 1:12.0"},
        {{12, 3599.94}, "12 \u00B7 59:59.9"}, {{12, 3599.96}, "12 \u00B7 1:00:00.0"},
        {{5, 3725.3}, "5 \u00B7 1:02:05.3"},  {{1000, 36000.0}, "1000 \u00B7 10:00:00.0"},
        {{2, -1.0}, "2 \u00B7 0:00.0"},
    };
    for (const auto& [input, label] : cases) {
        EXPECT_EQ(ContactSheet::labelText(input.first, input.second), label) << input.second;
    }
}

// ---- Drawing -------------------------------------------------------------------------------

// Frames of ffmpeg's test pattern, made once per test in a temporary folder.
class ContactSheetRender : public testing::Test {
protected:
    // Writes `count` frames frame-001.jpg... of the given size and gives their tiles.
    std::vector<ContactSheet::Tile> makeFrames(int count, std::string_view size) {
        const fs::path pattern = folder_ / fmt::format("{}-%03d.jpg", size);
        ProcessRunner runner;
        const ProcessResult result = runner.run(
            test::helperDirectory() / "ffmpeg",
            {"-nostdin", "-v", "error", "-f", "lavfi", "-i", fmt::format("testsrc=size={}", size),
             "-frames:v", std::to_string(count), pattern.string()},
            false, false, 60.0);
        EXPECT_EQ(result.exitCode, 0) << result.stderrTail;
        std::vector<ContactSheet::Tile> tiles;
        for (int i = 1; i <= count; ++i) {
            tiles.push_back({.image = folder_ / fmt::format("{}-{:03d}.jpg", size, i),
                             .index = i,
                             .time = 0.04 * (i - 1)});
        }
        return tiles;
    }

    static VImage decoded(const std::vector<unsigned char>& jpeg) {
        return VImage::new_from_buffer(jpeg.data(), jpeg.size(), "").copy_memory();
    }

    // Whether every band of the pixel is the background gray, give or take JPEG's rounding.
    static bool isBackground(const VImage& image, int x, int y) {
        for (const double value : image.getpoint(x, y)) {
            if (std::abs(value - kBackground) > 2) {
                return false;
            }
        }
        return true;
    }

    static std::optional<Kind> failureOf(const std::vector<ContactSheet::Tile>& tiles) {
        try {
            static_cast<void>(ContactSheet::render(tiles, kWide));
        } catch (const ContactSheet::Failure& failure) {
            return failure.kind();
        }
        return std::nullopt;
    }

    TempDir folder_;
};

TEST_F(ContactSheetRender, DrawsTheGridOnTheCanvasSize) {
    const std::vector<ContactSheet::Tile> tiles = makeFrames(3, "320x180");
    const std::vector<unsigned char> jpeg = ContactSheet::render(tiles, kWide);

    ASSERT_GE(jpeg.size(), 3U);
    EXPECT_EQ(jpeg[0], 0xFF);
    EXPECT_EQ(jpeg[1], 0xD8);
    EXPECT_EQ(jpeg[2], 0xFF);

    const Geometry geometry = ContactSheet::geometry(3, kWide);
    const VImage sheet = decoded(jpeg);
    EXPECT_EQ(sheet.width(), geometry.canvasWidth);
    EXPECT_EQ(sheet.height(), geometry.canvasHeight);
    EXPECT_EQ(sheet.bands(), 3);

    // The gaps: the outer margin, between the first two tiles, and under the labels.
    EXPECT_TRUE(isBackground(sheet, 3, 3));
    EXPECT_TRUE(isBackground(sheet, 8 + 320 + 4, 100));
    EXPECT_TRUE(isBackground(sheet, 500, geometry.canvasHeight - 3));
    // Each tile holds its picture: the test pattern is not a flat gray in the middle.
    for (int column = 0; column < 3; ++column) {
        const VImage tile = sheet.extract_area(8 + column * 328, 8, 320, 180);
        EXPECT_GT(tile.deviate(), 20.0) << column;
    }
    // The labels are light text in the strip, which is otherwise background.
    for (int column = 0; column < 3; ++column) {
        const VImage strip = sheet.extract_area(8 + column * 328, 8 + 180, 320, 20);
        EXPECT_GT(strip.max(), 150.0) << column;
        EXPECT_TRUE(isBackground(strip, 2, 10)) << column;
        EXPECT_TRUE(isBackground(strip, 317, 10)) << column;
    }
}

// A smaller frame is centred in its tile, a larger one shrunk to it.
TEST_F(ContactSheetRender, FitsEachFrameToItsTile) {
    const VImage small = decoded(ContactSheet::render(makeFrames(1, "160x90"), kWide));
    // The tile is 320x180 at (8, 8); the picture keeps its 160x90 at (88, 53).
    EXPECT_TRUE(isBackground(small, 8 + 40, 8 + 20));
    EXPECT_TRUE(isBackground(small, 8 + 300, 8 + 160));
    EXPECT_GT(small.extract_area(88 + 4, 53 + 4, 152, 82).deviate(), 20.0);

    const Geometry geometry = ContactSheet::geometry(2, kWide);
    const VImage large = decoded(ContactSheet::render(makeFrames(2, "1280x720"), kWide));
    EXPECT_EQ(large.width(), geometry.canvasWidth);
    EXPECT_EQ(large.height(), geometry.canvasHeight);
    EXPECT_GT(large.extract_area(8, 8, 320, 180).deviate(), 20.0);
    EXPECT_TRUE(isBackground(large, 8 + 320 + 4, 100));
}

TEST_F(ContactSheetRender, RendersFromSeveralThreadsAtOnce) {
    const std::vector<ContactSheet::Tile> tiles = makeFrames(4, "320x180");
    std::vector<std::vector<unsigned char>> sheets(3);
    std::vector<std::thread> threads;
    for (auto& sheet : sheets) {
        threads.emplace_back([&tiles, &sheet] {
            try {
                sheet = ContactSheet::render(tiles, kWide);
            } catch (const ContactSheet::Failure&) {
                sheet.clear();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const Geometry geometry = ContactSheet::geometry(4, kWide);
    for (const auto& sheet : sheets) {
        ASSERT_FALSE(sheet.empty());
        const VImage image = decoded(sheet);
        EXPECT_EQ(image.width(), geometry.canvasWidth);
        EXPECT_EQ(image.height(), geometry.canvasHeight);
    }
}

TEST_F(ContactSheetRender, RefusesFramesItCannotReadAndCountsItCannotDraw) {
    const std::vector<ContactSheet::Tile> frames = makeFrames(2, "320x180");
    const fs::path broken = folder_ / "broken.jpg";
    std::ofstream(broken) << "this is not a picture";
    const struct {
        const char* name;
        fs::path second;
    } unreadable[] = {{"not a picture", broken},
                      {"missing", folder_ / "missing.jpg"},
                      {"folder", folder_.path()}};
    for (const auto& row : unreadable) {
        std::vector<ContactSheet::Tile> tiles = frames;
        tiles[1].image = row.second;
        EXPECT_EQ(failureOf(tiles), Kind::unreadableFrame) << row.name;
    }
    EXPECT_EQ(failureOf({}), Kind::drawing);
    EXPECT_EQ(failureOf(std::vector<ContactSheet::Tile>(37, frames[0])), Kind::drawing);
}

}  // namespace
}  // namespace tessarin::engine
