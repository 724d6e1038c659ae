// The network path: encode into a private work folder in the temporary directory, then copy to
// the destination with progress from 0.9 to 1.0; and the room checks on both sides.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "engine/publish/OutputNames.hpp"
#include "tests/engine/job/JobTestSupport.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::test {
namespace {

namespace fs = std::filesystem;
using namespace engine;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr int64_t kPlenty = int64_t{1} << 40;

TEST(ConversionJobNetwork, EncodesLocallyThenCopiesWithProgress) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    bool sawWorkFolder = false;
    job->localVolumeOverride = [&](const fs::path& folder) {
        EXPECT_EQ(folder, sandbox.outputs());
        return false;
    };
    job->prePublishHook = [&] {
        for (const auto& entry : fs::directory_iterator(sandbox.temporary())) {
            sawWorkFolder |= isWorkFolderName(entry.path().filename().string());
        }
    };
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->step << ": " << record.failure->stderrTail;
    EXPECT_TRUE(sawWorkFolder);

    // Everything before the copy phase stays at or below 0.9 and ends there; the copy goes on to
    // 1.0.
    std::size_t copyPhase = record.events.size();
    for (std::size_t i = 0; i < record.events.size(); ++i) {
        if (record.events[i].phase == JobPhase::copyingToDestination) {
            copyPhase = i;
        }
    }
    ASSERT_LT(copyPhase, record.events.size());
    std::optional<double> lastBeforeCopy;
    for (std::size_t i = 0; i < copyPhase; ++i) {
        if (const auto& fraction = record.events[i].fraction) {
            EXPECT_LE(*fraction, 0.9);
            lastBeforeCopy = fraction;
        }
    }
    EXPECT_EQ(lastBeforeCopy, 0.9);
    ASSERT_GT(record.events.size(), copyPhase + 1);
    for (std::size_t i = copyPhase + 1; i < record.events.size(); ++i) {
        EXPECT_GE(record.events[i].fraction.value_or(0), 0.9);
    }
    EXPECT_EQ(record.events.back().fraction, 1.0);

    EXPECT_EQ(probeFile(*record.published).videoCodec, "h264");
    EXPECT_THAT(sandbox.leftovers({*record.published}), IsEmpty());
}

TEST(ConversionJobNetwork, GifUsesTheNetworkWorkFolder) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::gifSmall()));
    job->localVolumeOverride = [](const fs::path&) { return false; };
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->step << ": " << record.failure->stderrTail;
    EXPECT_EQ(countVideoFrames(*record.published), 6);
    EXPECT_THAT(sandbox.leftovers({*record.published}), IsEmpty());
}

TEST(ConversionJobNetwork, RoomChecks) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");

    // A destination that is full from the start is refused before any work.
    auto full = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    full->localVolumeOverride = [](const fs::path&) { return false; };
    full->availableCapacityOverride = [](const fs::path&) { return std::optional<int64_t>(1000); };
    const JobRecord refused = runJob(*full);
    ASSERT_TRUE(refused.failure);
    EXPECT_EQ(refused.failure->step, "preflight");
    EXPECT_THAT(refused.failure->stderrTail,
                StartsWith("Destination volume is critically low on free space (< 50 MB "
                           "available): "));

    // A destination that fills up while the encode runs is found out by the copy.
    auto fillsUp = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    std::atomic<int> destinationReadings = 0;
    fillsUp->localVolumeOverride = [](const fs::path&) { return false; };
    fillsUp->availableCapacityOverride = [&](const fs::path& path) -> std::optional<int64_t> {
        if (path == sandbox.outputs() && ++destinationReadings > 1) {
            return 10;
        }
        return kPlenty;
    };
    const JobRecord noRoom = runJob(*fillsUp);
    ASSERT_TRUE(noRoom.failure);
    EXPECT_EQ(noRoom.failure->step, "destination");
    EXPECT_THAT(noRoom.failure->stderrTail,
                ::testing::MatchesRegex("The destination doesn't have room for this file: it needs "
                                        ".* but only 10 bytes is available\\."));

    // The startup disk holds the network job's encode, so it needs room too.
    auto startupFull = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    startupFull->localVolumeOverride = [](const fs::path&) { return false; };
    startupFull->availableCapacityOverride = [&](const fs::path& path) -> std::optional<int64_t> {
        return path == sandbox.temporary() ? 1'000'000 : kPlenty;
    };
    const JobRecord noScratch = runJob(*startupFull);
    ASSERT_TRUE(noScratch.failure);
    EXPECT_EQ(*noScratch.failure,
              JobFailure::sentence("scratch",
                                   "The startup disk is out of free space. Saving to a network "
                                   "destination encodes to the startup disk first, so it needs "
                                   "room there even when the destination has plenty."));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

}  // namespace
}  // namespace tessarin::test
