// Trims and joins: what reaches ffmpeg, what is refused before it runs, and what comes out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "engine/clips/ClipSelection.hpp"
#include "tests/engine/job/JobTestSupport.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::test {
namespace {

using namespace engine;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Three seconds of 160x120 pattern at 10 fps with a tone.
std::filesystem::path threeSecondClip() {
    return makeClip("three-seconds.mp4",
                    {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10:duration=3", "-f", "lavfi",
                     "-i", "sine=frequency=440:sample_rate=48000:duration=3", "-c:v", "libx264",
                     "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac", "-b:a", "64k"});
}

// The progress reports that came from the tool: all but the job's own two closing ones (the end
// of the encode and the publication) of a local job.
std::vector<std::optional<double>> toolFractions(const JobRecord& record) {
    std::vector<std::optional<double>> fractions;
    for (const auto& event : record.events) {
        if (!event.phase) {
            fractions.push_back(event.fraction);
        }
    }
    fractions.resize(fractions.size() >= 2 ? fractions.size() - 2 : 0);
    return fractions;
}

TEST(ConversionJobRanges, TrimEncodesOnlyTheRange) {
    JobSandbox sandbox;
    const auto source = sandbox.place(threeSecondClip(), "clip.mp4");
    auto job =
        makeJob(sandbox, source, MediaTask::convert(withTrim(Preset::mp4H264(), Trim{"1", "2.5"})));
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    EXPECT_EQ(countVideoFrames(*record.published), 15);
    const MediaInfo output = probeFile(*record.published);
    EXPECT_NEAR(output.durationSeconds.value_or(0), 1.5, 0.1);
    EXPECT_TRUE(output.hasAudio);
    // ffmpeg's last block is measured against the range, not the whole source.
    const auto fractions = toolFractions(record);
    ASSERT_FALSE(fractions.empty());
    EXPECT_GE(fractions.back().value_or(0), 0.9);
}

TEST(ConversionJobRanges, TrimPastTheEndIsRefusedBeforeFfmpegRuns) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    auto job =
        makeJob(sandbox, source, MediaTask::convert(withTrim(Preset::mp4H264(), Trim{"5", {}})));
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(*record.failure,
              JobFailure::sentence("trim",
                                   "Trim start (5) is at or past the source duration (1s) — the "
                                   "range selects no frames."));
    // Refused before naming: no scratch, no work folder, and no progress was ever reported.
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
    for (const auto& event : record.events) {
        EXPECT_FALSE(event.fraction.has_value());
    }
}

TEST(ConversionJobRanges, JoinOfThreeRangesKeepsAudio) {
    JobSandbox sandbox;
    const auto source = sandbox.place(threeSecondClip(), "clip.mp4");
    auto job =
        makeJob(sandbox, source,
                MediaTask::join(Preset::mp4H264(),
                                {Trim{"0", "0.5"}, Trim{"1", "1.5"}, Trim{"2", "2.5"}}, false));
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    EXPECT_EQ(record.published->filename(), "clip-h264_crf33-joined.mp4");
    EXPECT_EQ(countVideoFrames(*record.published), 15);
    const MediaInfo output = probeFile(*record.published);
    EXPECT_TRUE(output.hasAudio);
    EXPECT_NEAR(output.durationSeconds.value_or(0), 1.5, 0.1);
    const auto fractions = toolFractions(record);
    ASSERT_FALSE(fractions.empty());
    EXPECT_GE(fractions.back().value_or(0), 0.9);
    EXPECT_THAT(sandbox.leftovers({*record.published}), IsEmpty());
}

TEST(ConversionJobRanges, RemovingJoinKeepsTheRest) {
    JobSandbox sandbox;
    const auto source = sandbox.place(threeSecondClip(), "clip.mp4");
    auto job =
        makeJob(sandbox, source, MediaTask::join(Preset::gifFull(), {Trim{"0.5", "2"}}, true));
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    // 0-0.5 and 2-3 remain: 1.5 s at the GIF's 10 fps.
    EXPECT_EQ(countVideoFrames(*record.published), 15);
}

TEST(ConversionJobRanges, JoinRefusals) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");

    auto trimmed = makeJob(sandbox, source,
                           MediaTask::join(withTrim(Preset::mp4H264(), Trim{{}, "0.5"}),
                                           {Trim{"0", "0.2"}, Trim{"0.4", "0.6"}}, false));
    const JobRecord presetTrim = runJob(*trimmed);
    ASSERT_TRUE(presetTrim.failure);
    EXPECT_EQ(
        *presetTrim.failure,
        JobFailure::sentence("join", "A joined task cannot also specify a single preset trim."));

    auto everything =
        makeJob(sandbox, source, MediaTask::join(Preset::mp4H264(), {Trim{"0", "1"}}, true));
    const JobRecord removedAll = runJob(*everything);
    ASSERT_TRUE(removedAll.failure);
    EXPECT_EQ(removedAll.failure->step, "join");
    EXPECT_EQ(removedAll.failure->stderrTail,
              ClipSelection::Invalid::message(ClipSelection::Invalid::Kind::join));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJobRanges, EncodeWithoutFramesIsNotPublished) {
    JobSandbox sandbox;
    // One second of video under three seconds of audio: a start at 2 s passes the trim check
    // against the container's duration but leaves no picture.
    const auto source = sandbox.place(
        makeClip("short-video-long-audio.mp4",
                 {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10:duration=1", "-f", "lavfi",
                  "-i", "sine=frequency=440:sample_rate=48000:duration=3", "-c:v", "libx264",
                  "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac", "-b:a", "64k"}),
        "clip.mp4");
    auto job =
        makeJob(sandbox, source, MediaTask::convert(withTrim(Preset::mp4H264(), Trim{"2", {}})));
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(*record.failure,
              JobFailure::sentence("encode",
                                   "The encode produced no frames, so the output would have had "
                                   "no video stream. Check the trim range against the source "
                                   "duration."));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJobRanges, SourceWithoutDurationConvertsWithoutFractions) {
    JobSandbox sandbox;
    // A raw H.264 stream carries no container duration.
    const auto source = sandbox.place(
        makeClip("raw.h264", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10:duration=1",
                              "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"}),
        "clip.h264");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    ASSERT_TRUE(record.info);
    EXPECT_FALSE(record.info->durationSeconds);
    const auto fractions = toolFractions(record);
    ASSERT_FALSE(fractions.empty());
    for (const auto& fraction : fractions) {
        EXPECT_FALSE(fraction.has_value());
    }
    EXPECT_EQ(countVideoFrames(*record.published), 10);
}

}  // namespace
}  // namespace tessarin::test
