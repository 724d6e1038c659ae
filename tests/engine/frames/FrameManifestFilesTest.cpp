// Naming the scratch pictures and writing frames.json into a staging folder, on the real file
// system.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string>

#include "engine/frames/FrameManifest.hpp"
#include "tests/support/Files.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::TempDir;
using test::writeFile;

FrameManifest twoFrames(FrameImageFormat format) {
    FrameManifest manifest;
    manifest.source = {.name = "clip.mp4",
                       .bytes = 10,
                       .modified = 1,
                       .durationSeconds = 3,
                       .width = 320,
                       .height = 180,
                       .videoCodec = std::nullopt};
    manifest.window = {.start = 0, .end = 3};
    manifest.decodedUntil = 3;
    manifest.settings.format = format;
    manifest.summary = {.candidates = 2, .kept = 2, .prunedByBudget = 0};
    for (int64_t index = 1; index <= 2; ++index) {
        const double time = 1.5 * static_cast<double>(index - 1);
        manifest.frames.push_back({.index = index,
                                   .file = frameFileName(index, time, format),
                                   .time = time,
                                   .pts = static_cast<int64_t>(time * 90000),
                                   .timeBase = "1/90000",
                                   .width = 320,
                                   .height = 180,
                                   .reason = index == 1 ? FrameReason::first : FrameReason::last,
                                   .changedCells = std::nullopt,
                                   .holdsUntil = time + 1.5,
                                   .followingSpanPruned = false});
    }
    return manifest;
}

// Runs `body` and gives the WriteFailure it threw, or nothing when it returned.
template <typename Body>
std::optional<FrameManifest::WriteFailure> writeFailure(Body body) {
    try {
        body();
    } catch (const FrameManifest::WriteFailure& failure) {
        return failure;
    }
    return std::nullopt;
}

class FrameFolderFiles : public testing::Test {
protected:
    // The modes below are the ones asked for, less a common umask.
    void SetUp() override { previousMask_ = ::umask(022); }
    void TearDown() override { ::umask(previousMask_); }

    TempDir staging_;
    fs::path json_ = staging_ / "frames.json";

private:
    mode_t previousMask_ = 0;
};

// Private unless privacy can't be enforced on the folder's file system.
TEST_F(FrameFolderFiles, WritesTheManifest) {
    const FrameManifest manifest = twoFrames(FrameImageFormat::jpeg);
    writeFramesJson(staging_.path(), manifest, true);
    EXPECT_EQ(readFile(json_), manifest.encodedText());
    EXPECT_EQ(FrameManifest::decodedText(readFile(json_)), manifest);
    EXPECT_EQ(test::fileMode(json_), 0600U);

    TempDir shared;
    writeFramesJson(shared.path(), manifest, false);
    EXPECT_EQ(test::fileMode(shared / "frames.json"), 0644U);
}

TEST_F(FrameFolderFiles, NeverReplacesAnExistingManifest) {
    const FrameManifest first = twoFrames(FrameImageFormat::jpeg);
    writeFramesJson(staging_.path(), first, true);

    const auto failure = writeFailure(
        [&] { writeFramesJson(staging_.path(), twoFrames(FrameImageFormat::png), true); });
    ASSERT_TRUE(failure.has_value());
    EXPECT_STREQ(failure->what(), "Could not write the frame list (errno 17).");
    EXPECT_EQ(failure->errorNumber, EEXIST);
    EXPECT_EQ(readFile(json_), first.encodedText());
}

TEST_F(FrameFolderFiles, RefusesALinkInThePlaceOfTheManifest) {
    const fs::path target = staging_ / "elsewhere.json";
    fs::create_symlink(target, json_);

    const auto failure = writeFailure(
        [&] { writeFramesJson(staging_.path(), twoFrames(FrameImageFormat::jpeg), true); });
    ASSERT_TRUE(failure.has_value());
    EXPECT_STREQ(failure->what(), "Could not write the frame list (errno 17).");
    EXPECT_FALSE(fs::exists(fs::symlink_status(target)));
    EXPECT_TRUE(fs::is_symlink(json_));
}

TEST_F(FrameFolderFiles, ReportsAMissingFolder) {
    const auto failure = writeFailure(
        [&] { writeFramesJson(staging_ / "gone", twoFrames(FrameImageFormat::jpeg), true); });
    ASSERT_TRUE(failure.has_value());
    EXPECT_STREQ(failure->what(), "Could not write the frame list (errno 2).");
}

TEST_F(FrameFolderFiles, ReportsAManifestThatCannotBeEncoded) {
    FrameManifest manifest = twoFrames(FrameImageFormat::jpeg);
    manifest.decodedUntil = std::numeric_limits<double>::quiet_NaN();

    const auto failure = writeFailure([&] { writeFramesJson(staging_.path(), manifest, true); });
    ASSERT_TRUE(failure.has_value());
    EXPECT_STREQ(failure->what(),
                 "Could not write the frame list (decodedUntil is not a finite number).");
    EXPECT_EQ(failure->errorNumber, std::nullopt);
    EXPECT_FALSE(fs::exists(json_));
}

TEST_F(FrameFolderFiles, NamesTheScratchPicturesInOrder) {
    const FrameManifest manifest = twoFrames(FrameImageFormat::png);
    writeFile(staging_ / "000001.png", "first");
    writeFile(staging_ / "000002.png", "second");

    nameFrames(staging_.path(), manifest, true);

    EXPECT_EQ(readFile(staging_ / "frame-001-0.000s.png"), "first");
    EXPECT_EQ(readFile(staging_ / "frame-002-1.500s.png"), "second");
    EXPECT_FALSE(fs::exists(staging_ / "000001.png"));
    EXPECT_FALSE(fs::exists(staging_ / "000002.png"));
    EXPECT_EQ(test::fileMode(staging_ / "frame-001-0.000s.png"), 0600U);
    EXPECT_EQ(test::fileMode(staging_ / "frame-002-1.500s.png"), 0600U);
}

TEST_F(FrameFolderFiles, LeavesPictureModesAloneWhenPrivacyCannotBeEnforced) {
    writeFile(staging_ / "000001.jpg", "first");
    writeFile(staging_ / "000002.jpg", "second");
    fs::permissions(staging_ / "000002.jpg", fs::perms(0640));

    nameFrames(staging_.path(), twoFrames(FrameImageFormat::jpeg), false);

    EXPECT_EQ(test::fileMode(staging_ / "frame-001-0.000s.jpg"), 0644U);
    EXPECT_EQ(test::fileMode(staging_ / "frame-002-1.500s.jpg"), 0640U);
}

TEST_F(FrameFolderFiles, NamingFailsOnAMissingPicture) {
    writeFile(staging_ / "000001.jpg", "first");

    const auto failure =
        writeFailure([&] { nameFrames(staging_.path(), twoFrames(FrameImageFormat::jpeg), true); });
    ASSERT_TRUE(failure.has_value());
    EXPECT_STREQ(failure->what(), "Could not name the frames (errno 2).");
    EXPECT_EQ(failure->errorNumber, ENOENT);
    EXPECT_TRUE(fs::exists(staging_ / "frame-001-0.000s.jpg"));
}

TEST_F(FrameFolderFiles, NamingNeverReplacesAFile) {
    writeFile(staging_ / "000001.jpg", "first");
    writeFile(staging_ / "frame-001-0.000s.jpg", "already here");

    const auto failure =
        writeFailure([&] { nameFrames(staging_.path(), twoFrames(FrameImageFormat::jpeg), true); });
    ASSERT_TRUE(failure.has_value());
    EXPECT_STREQ(failure->what(), "Could not name the frames (errno 17).");
    EXPECT_EQ(readFile(staging_ / "frame-001-0.000s.jpg"), "already here");
    EXPECT_EQ(readFile(staging_ / "000001.jpg"), "first");
}

TEST_F(FrameFolderFiles, NamingRefusesANameOutsideTheFolder) {
    FrameManifest manifest = twoFrames(FrameImageFormat::jpeg);
    manifest.frames.resize(1);
    manifest.frames[0].file = "../escaped.jpg";
    writeFile(staging_ / "000001.jpg", "first");

    const auto failure = writeFailure([&] { nameFrames(staging_.path(), manifest, true); });
    ASSERT_TRUE(failure.has_value());
    EXPECT_STREQ(failure->what(), "Could not name the frames (errno 22).");
    EXPECT_TRUE(fs::exists(staging_ / "000001.jpg"));
}

}  // namespace
}  // namespace tessarin::engine
