#include <gtest/gtest.h>
#include <unistd.h>

#include <set>

#include "engine/publish/OutputNames.hpp"
#include "tests/engine/publish/PublishTestSupport.hpp"

namespace tessarin::engine {
namespace {

using testing::TempDir;
using testing::writeFile;

TEST(OutputNaming, FollowsTheTaskKind) {
    const Preset& h264 = Preset::mp4H264();
    EXPECT_EQ(outputNaming(MediaTask::convert(h264)), (OutputNaming{"-h264_crf33", "mp4"}));
    EXPECT_EQ(outputNaming(MediaTask::join(h264, {Trim{"0", "1"}}, false)),
              (OutputNaming{"-h264_crf33-joined", "mp4"}));
    const auto audio = AudioExtractionOptions::make(AudioExtractionCodec::flac, 0, {}, {}, {},
                                                    OutputNaming{"-sound", "flac"});
    EXPECT_EQ(outputNaming(MediaTask::extractAudio(audio)), (OutputNaming{"-sound", "flac"}));
    EXPECT_EQ(outputNaming(MediaTask::fastCut(Trim{"1", "2"})), (OutputNaming{"-cut", "mp4"}));
}

TEST(FirstFreeName, CountsUpPastTakenNamesAndDanglingLinks) {
    TempDir dir;
    const auto source = dir / "a.mov";
    const OutputNaming naming = outputNaming(MediaTask::convert(Preset::mp4H264()));
    EXPECT_EQ(firstFreeName(source, naming.filenameSuffix, naming.fileExtension, std::nullopt),
              dir / "a-h264_crf33.mp4");

    writeFile(dir / "a-h264_crf33.mp4", "taken");
    EXPECT_EQ(firstFreeName(source, naming.filenameSuffix, naming.fileExtension, std::nullopt),
              dir / "a-h264_crf33-2.mp4");

    // A dangling link is not free: publishing there would write through it.
    ASSERT_EQ(::symlink("nowhere", (dir / "a-h264_crf33-2.mp4").c_str()), 0);
    EXPECT_EQ(firstFreeName(source, naming.filenameSuffix, naming.fileExtension, std::nullopt),
              dir / "a-h264_crf33-3.mp4");

    const OutputNaming joined =
        outputNaming(MediaTask::join(Preset::mp4H264(), {Trim{"0", "1"}}, false));
    EXPECT_EQ(firstFreeName(source, joined.filenameSuffix, joined.fileExtension, std::nullopt),
              dir / "a-h264_crf33-joined.mp4");
}

TEST(FirstFreeName, UsesTheOutputDirectoryWhenGiven) {
    TempDir dir;
    std::filesystem::create_directory(dir / "out");
    EXPECT_EQ(firstFreeName("/elsewhere/clip.final.mkv", "-cut", "mp4", dir / "out"),
              dir / "out" / "clip.final-cut.mp4");
}

TEST(WorkNames, CarryEightHexDigitsOrAUuidAndAreRecognisedExactly) {
    std::set<std::string> seen;
    for (int i = 0; i < 50; ++i) {
        const std::string uuid = newUuidText();
        ASSERT_EQ(uuid.size(), 36u);
        EXPECT_EQ(uuid[14], '4');  // version 4
        EXPECT_TRUE(seen.insert(uuid).second);
    }
    const std::string work = newWorkFolderName();
    EXPECT_TRUE(work.starts_with("tessarin-work-"));
    EXPECT_TRUE(isWorkFolderName(work));
    EXPECT_TRUE(isConvertingName(newConvertingName("a.mp4")));
    EXPECT_TRUE(newOptimizedName("a.gif").find("-opt-a.gif") == 20u);
    EXPECT_TRUE(isScratchName(newScratchName()));

    EXPECT_FALSE(isWorkFolderName("tessarin-work-1234567"));
    EXPECT_FALSE(isWorkFolderName("tessarin-work-123456789"));
    EXPECT_FALSE(isWorkFolderName("tessarin-work-1234567g"));
    EXPECT_TRUE(isWorkFolderName("tessarin-work-ABCDEF12"));
    EXPECT_FALSE(isConvertingName(".converting-1234567-a.mp4"));
    EXPECT_FALSE(isConvertingName(".converting-12345678a.mp4"));
    EXPECT_FALSE(isConvertingName("converting-12345678-a.mp4"));
    EXPECT_TRUE(isConvertingName(".converting-12345678-"));
    EXPECT_FALSE(isScratchName(".tessarin-scratch-not-a-uuid"));
}

}  // namespace
}  // namespace tessarin::engine
