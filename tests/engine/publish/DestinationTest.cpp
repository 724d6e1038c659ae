#include <gtest/gtest.h>
#include <sys/stat.h>

#include <vector>

#include "engine/publish/Destination.hpp"
#include "engine/publish/OutputNames.hpp"
#include "tests/engine/publish/PublishTestSupport.hpp"

namespace tessarin::engine {
namespace {

using testing::entryNames;
using testing::readFile;
using testing::ScopedMount;
using testing::TempDir;
using testing::writeFile;
namespace fs = std::filesystem;

JobFailure checkFailure(const fs::path& folder, bool lowSpace, const VolumeOverrides& overrides) {
    try {
        checkDestination(folder, lowSpace, overrides);
    } catch (const JobFailure& failure) {
        return failure;
    }
    return JobFailure::sentence("none", "");
}

TEST(FormatByteCount, UsesDecimalUnits) {
    EXPECT_EQ(formatByteCount(0), "Zero KB");
    EXPECT_EQ(formatByteCount(1), "1 byte");
    EXPECT_EQ(formatByteCount(999), "999 bytes");
    EXPECT_EQ(formatByteCount(1'499), "1 KB");
    EXPECT_EQ(formatByteCount(999'600), "1 MB");
    EXPECT_EQ(formatByteCount(1'048'576), "1 MB");
    EXPECT_EQ(formatByteCount(2'160'000), "2.2 MB");
    EXPECT_EQ(formatByteCount(4'380'000'000), "4.38 GB");
}

TEST(CheckDestination, ReportsMissingFolderUnwritableFolderAndLowSpace) {
    TempDir dir;
    EXPECT_EQ(checkFailure(dir / "missing", true, {}),
              JobFailure::sentence(
                  "preflight", "Destination folder does not exist: " + (dir / "missing").string()));
    writeFile(dir / "file", "x");
    EXPECT_EQ(checkFailure(dir / "file", false, {}).stderrTail,
              "Destination folder does not exist: " + (dir / "file").string());

    VolumeOverrides full;
    full.availableCapacityOverride = [](const fs::path&) { return int64_t{52'428'799}; };
    EXPECT_EQ(checkFailure(dir.path(), true, full),
              JobFailure::sentence("preflight",
                                   "Destination volume is critically low on free space (< 50 MB "
                                   "available): " +
                                       dir.path().string()));
    EXPECT_EQ(checkFailure(dir.path(), false, full).step, "none");
    VolumeOverrides enough;
    enough.availableCapacityOverride = [](const fs::path&) { return int64_t{52'428'800}; };
    EXPECT_EQ(checkFailure(dir.path(), true, enough).step, "none");
    VolumeOverrides unknown;
    unknown.availableCapacityOverride = [](const fs::path&) { return std::optional<int64_t>(); };
    EXPECT_EQ(checkFailure(dir.path(), true, unknown).step, "none");

    if (::geteuid() != 0) {  // root may write anywhere
        ASSERT_EQ(::mkdir((dir / "read-only").c_str(), 0555), 0);
        EXPECT_EQ(checkFailure(dir / "read-only", false, {}).stderrTail,
                  "Destination folder is not writable: " + (dir / "read-only").string());
    }
}

TEST(CheckDestination, SmallTmpfsIsCriticallyLow) {
    TempDir dir;
    const ScopedMount mount = ScopedMount::tmpfs(dir / "small", "1m");
    if (!mount.mounted()) {
        GTEST_SKIP() << mount.reason();
    }
    const std::optional<int64_t> capacity = availableCapacity(dir / "small");
    ASSERT_TRUE(capacity.has_value());
    EXPECT_LE(*capacity, 1'048'576);
    EXPECT_EQ(checkFailure(dir / "small", true, {}).stderrTail,
              "Destination volume is critically low on free space (< 50 MB available): " +
                  (dir / "small").string());
}

TEST(VolumeInfo, LocalFoldersAndOverrides) {
    TempDir dir;
    EXPECT_TRUE(isLocalVolume(dir.path()));
    EXPECT_TRUE(isLocalVolume("/nonexistent/unreadable"));  // unreadable counts as local
    const std::optional<VolumeFacts> facts = volumeFactsAt(dir.path());
    ASSERT_TRUE(facts.has_value());
    EXPECT_TRUE(facts->isLocal);
    EXPECT_FALSE(facts->ignoresOwnership);
    EXPECT_FALSE(isMsdosVolume(dir.path()));
    VolumeOverrides network;
    network.localVolumeOverride = [](const fs::path&) { return false; };
    EXPECT_FALSE(isLocalVolume(dir.path(), network));
    EXPECT_TRUE(availableCapacity(dir.path()).value_or(0) > 0);
    EXPECT_FALSE(availableCapacity("/nonexistent/unreadable").has_value());
}

class CopyToDestinationTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directory(dir_ / "work");
        fs::create_directory(dir_ / "out");
        content_.resize(kCopyChunkBytes * 2 + 123);
        for (std::size_t i = 0; i < content_.size(); ++i) {
            content_[i] = static_cast<char>('a' + i % 26);
        }
        writeFile(encoded(), content_);
    }
    fs::path encoded() const { return dir_ / "work" / ".converting-0000000a-a.mp4"; }
    fs::path out() const { return dir_ / "out"; }

    TempDir dir_;
    std::string content_;
};

TEST_F(CopyToDestinationTest, CopiesWithPhaseAndProgressFromTheTop) {
    std::vector<JobPhase> phases;
    std::vector<std::optional<double>> progress;
    const fs::path copy = copyToDestination(
        encoded(), out(), "a-h264_crf33.mp4", [] { return false; },
        [&](JobPhase phase) { phases.push_back(phase); },
        [&](std::optional<double> value) { progress.push_back(value); }, 0.9);
    EXPECT_EQ(copy.parent_path(), out());
    EXPECT_TRUE(isConvertingName(copy.filename().string()));
    EXPECT_TRUE(copy.filename().string().ends_with("-a-h264_crf33.mp4"));
    EXPECT_EQ(readFile(copy), content_);
    EXPECT_EQ(phases, std::vector<JobPhase>{JobPhase::copyingToDestination});
    ASSERT_GE(progress.size(), 2u);
    for (std::size_t i = 0; i < progress.size(); ++i) {
        ASSERT_TRUE(progress[i].has_value());
        EXPECT_GT(*progress[i], 0.9);
        EXPECT_LE(*progress[i], 1.0);
        if (i > 0) {
            EXPECT_GT(*progress[i], *progress[i - 1]);
        }
    }
    EXPECT_DOUBLE_EQ(*progress.back(), 1.0);
}

TEST_F(CopyToDestinationTest, CancellationAndMissingRoomLeaveNothingBehind) {
    int asked = 0;
    try {
        (void)copyToDestination(
            encoded(), out(), "a.mp4", [&] { return ++asked > 1; }, {}, {}, 0.9);
        FAIL() << "not cancelled";
    } catch (const JobFailure& failure) {
        EXPECT_EQ(failure, JobFailure::cancelled("copy"));
    }
    EXPECT_TRUE(entryNames(out()).empty());

    VolumeOverrides tight;
    tight.availableCapacityOverride = [](const fs::path&) { return int64_t{1'000'000}; };
    try {
        (void)copyToDestination(encoded(), out(), "a.mp4", {}, {}, {}, 0.9, tight);
        FAIL() << "no room was not noticed";
    } catch (const JobFailure& failure) {
        EXPECT_EQ(failure, JobFailure::sentence("destination",
                                                "The destination doesn't have room for this "
                                                "file: it needs 8.4 MB but only 1 MB is "
                                                "available."));
    }
    EXPECT_TRUE(entryNames(out()).empty());

    try {
        (void)copyToDestination(dir_ / "missing.mp4", out(), "a.mp4", {}, {}, {}, 0.9);
        FAIL() << "a missing encode was copied";
    } catch (const JobFailure& failure) {
        EXPECT_EQ(failure, JobFailure::sentence("copy", "could not open the encoded file"));
    }
}

TEST_F(CopyToDestinationTest, FullTmpfsFailsTheWriteAndRemovesTheTemporary) {
    const ScopedMount mount = ScopedMount::tmpfs(dir_ / "small", "1m");
    if (!mount.mounted()) {
        GTEST_SKIP() << mount.reason();
    }
    // The real reading stops the copy before it starts...
    try {
        (void)copyToDestination(encoded(), dir_ / "small", "a.mp4", {}, {}, {}, 0.9);
        FAIL() << "no room was not noticed";
    } catch (const JobFailure& failure) {
        EXPECT_EQ(failure.step, "destination");
        EXPECT_TRUE(failure.stderrTail.starts_with(
            "The destination doesn't have room for this file: it needs 8.4 MB but only "))
            << failure.stderrTail;
    }
    // ...and when the reading is wrong, the write itself fails cleanly.
    VolumeOverrides roomy;
    roomy.availableCapacityOverride = [](const fs::path&) { return int64_t{1} << 40; };
    try {
        (void)copyToDestination(encoded(), dir_ / "small", "a.mp4", {}, {}, {}, 0.9, roomy);
        FAIL() << "a copy to a full volume succeeded";
    } catch (const JobFailure& failure) {
        EXPECT_EQ(failure, JobFailure::sentence("copy", "write to the destination failed"));
    }
    EXPECT_TRUE(entryNames(dir_ / "small").empty());
}

}  // namespace
}  // namespace tessarin::engine
