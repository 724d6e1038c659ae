#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "engine/encoders/EncoderInventory.hpp"
#include "tests/engine/encoders/EncodersTestSupport.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using test::installFakeTool;
using test::ScratchFolder;
using test::setBehaviour;
using ::testing::ElementsAre;

TEST(EncoderInventory, ParsesTheRowsUnderTheRuleOnly) {
    const char* output =
        "Encoders:\n"
        " V..... = Video\n"
        " A..... = Audio\n"
        " ------\n"
        " V....D libx264              libx264 H.264 / AVC (codec h264)\n"
        " A....D aac                  AAC (Advanced Audio Coding)\n"
        "\n"
        " V..... h264_qsv             H.264 (Intel Quick Sync Video acceleration)";
    EXPECT_THAT(EncoderInventory::parseEncoderList(output),
                ElementsAre("aac", "h264_qsv", "libx264"));
    EXPECT_TRUE(EncoderInventory::parseEncoderList("libx265 libx265\n").empty());
}

TEST(EncoderInventory, HelperFFmpegOffersSoftwareHEVC) {
    EncoderInventory inventory;
    const auto names = inventory.encoders(test::helperTool("ffmpeg"));
    ASSERT_TRUE(names.has_value());
    EXPECT_TRUE((*names)->contains("libx264"));
    EXPECT_TRUE((*names)->contains("libx265"));
    EXPECT_FALSE((*names)->contains("libx265rgb"));
    EXPECT_EQ(bundledSoftwareHEVCSource(inventory, test::helperTool("ffmpeg")),
              SoftwareHEVCSource::privateBundled);
}

class CountingInventory : public ::testing::Test {
protected:
    std::atomic<int> runs{0};
    EncoderInventory inventory{
        [this](const fs::path& executable, const std::vector<std::string>& arguments) {
            ++runs;
            return EncoderInventory::runQuery(executable, arguments);
        }};
    ScratchFolder scratch;
};

TEST_F(CountingInventory, AsksOncePerToolIdentityAndAgainWhenTheFileChanges) {
    const fs::path ffmpeg =
        installFakeTool(scratch.path(), "ffmpeg",
                        "name=ffmpeg\nversion=1\nmode=normal\nencoders=libx264 libx265rgb\n");
    const fs::path link = scratch.path() / "link-to-ffmpeg";
    fs::create_symlink(ffmpeg, link);

    EXPECT_EQ(bundledSoftwareHEVCSource(inventory, ffmpeg), SoftwareHEVCSource::unavailable);
    EXPECT_EQ(bundledSoftwareHEVCSource(inventory, link), SoftwareHEVCSource::unavailable);
    EXPECT_EQ(runs.load(), 1);

    // A new build of the tool at the same path: the behaviour changes and so does the stamp.
    setBehaviour(ffmpeg, "name=ffmpeg\nversion=2\nmode=normal\nencoders=libx264 libx265\n");
    fs::last_write_time(ffmpeg, fs::last_write_time(ffmpeg) + std::chrono::seconds(5));
    EXPECT_EQ(bundledSoftwareHEVCSource(inventory, ffmpeg), SoftwareHEVCSource::privateBundled);
    EXPECT_EQ(runs.load(), 2);
}

TEST_F(CountingInventory, FailuresAreNotRemembered) {
    const fs::path ffmpeg = installFakeTool(scratch.path(), "ffmpeg", "name=ffmpeg\nmode=fail\n");
    EXPECT_FALSE(inventory.encoders(ffmpeg).has_value());
    EXPECT_EQ(bundledSoftwareHEVCSource(inventory, ffmpeg), SoftwareHEVCSource::unavailable);
    EXPECT_EQ(runs.load(), 2);
    EXPECT_FALSE(inventory.encoders(scratch.path() / "absent").has_value());
    EXPECT_EQ(runs.load(), 2);
}

TEST_F(CountingInventory, ConcurrentCallersAgree) {
    const fs::path ffmpeg =
        installFakeTool(scratch.path(), "ffmpeg", test::healthyBehaviour("ffmpeg"));
    std::vector<std::thread> callers;
    std::atomic<int> found{0};
    for (int index = 0; index < 4; ++index) {
        callers.emplace_back([&] {
            if (inventory.hasEncoder(ffmpeg, "libx265")) {
                ++found;
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(found.load(), 4);
    EXPECT_GE(runs.load(), 1);
    EXPECT_LE(runs.load(), 4);
    EXPECT_TRUE(inventory.hasEncoder(ffmpeg, "aac"));
    const int settled = runs.load();
    EXPECT_TRUE(inventory.hasEncoder(ffmpeg, "libx264"));
    EXPECT_EQ(runs.load(), settled);
}

}  // namespace
}  // namespace tessarin::engine
