// Chapters as the real ffprobe reports them become clips, and their ranges join.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "engine/clips/ClipSelection.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

TEST(ClipSelectionChapters, ProbedChaptersBecomeClipsAndRemoveCleanly) {
    const std::optional<Tools> tools = Tools::inBundle(test::helperDirectory());
    ASSERT_TRUE(tools.has_value());
    ProcessRunner runner;
    const MediaInfo info = MediaProbe::probe(test::testClip(test::TestClip::chapters), *tools,
                                             MediaInputPolicy::unrestricted, runner,
                                             MediaProbe::kTimeoutSeconds, true);
    ASSERT_TRUE(info.durationSeconds.has_value());

    const std::vector<ClipSelection> clips =
        ClipSelection::fromChapters(info.chapters, info.durationSeconds);
    ASSERT_EQ(clips.size(), 3u);
    EXPECT_EQ(clips[0].name(), "Opening");
    EXPECT_EQ(clips[1].name(), "Middle part");
    EXPECT_EQ(clips[2].name(), "Finale");
    EXPECT_EQ(clips[1].trim(), (Trim{"1.000000", "2.000000"}));
    EXPECT_EQ(clips[1].fileSuffix(1), "-clip-002-middle-part");

    const std::vector<ClipSelection> middle = {clips[1]};
    EXPECT_THAT(ClipSelection::join(middle, info.durationSeconds, true),
                testing::ElementsAre(Trim{"0.000000", "1.000000"}, Trim{"2.000000", "3.000000"}));
    // Touching chapters merge back into the whole source.
    EXPECT_THAT(ClipSelection::join(clips, info.durationSeconds, false),
                testing::ElementsAre(Trim{"0.000000", "3.000000"}));
}

}  // namespace
}  // namespace tessarin::engine
