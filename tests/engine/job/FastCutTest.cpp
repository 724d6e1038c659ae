// Fast cuts on generated clips with a keyframe every 5 s: planning outward to keyframes, the
// review's text, who may be cut at all, and the job that copies a reviewed plan.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utime.h>

#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/FastCut.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "tests/engine/job/JobTestSupport.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::test {
namespace {

namespace fs = std::filesystem;
using namespace engine;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

fs::path keyframeClip() {
    return testClip(TestClip::keyframesEvery5s);
}

MediaInfo probeWithChapters(const fs::path& source) {
    ProcessRunner runner;
    return MediaProbe::probe(source, helperTools(), MediaInputPolicy::unrestricted, runner,
                             MediaProbe::kTimeoutSeconds, true);
}

FastCut::Plan planFor(const fs::path& source, const Trim& trim) {
    return FastCut::plan(source, trim, probeWithChapters(source), helperTools());
}

std::optional<FastCut::Failure::Kind> planFailure(const fs::path& source, const Trim& trim) {
    try {
        (void)planFor(source, trim);
    } catch (const FastCut::Failure& failure) {
        return failure.kind();
    }
    return std::nullopt;
}

TEST(FastCutPlan, SnapsOutwardToKeyframesAndSaysWhatItAdds) {
    const FastCut::Plan plan = planFor(keyframeClip(), Trim{"7", "13"});
    EXPECT_DOUBLE_EQ(plan.start, 5.0);
    EXPECT_DOUBLE_EQ(plan.end, 15.0);
    EXPECT_DOUBLE_EQ(plan.requestedStart, 7.0);
    EXPECT_DOUBLE_EQ(plan.requestedEnd, 13.0);
    EXPECT_EQ(plan.source, FastCut::SourceStamp::of(keyframeClip()));
    ASSERT_EQ(plan.retainedTracks.size(), 2U);
    EXPECT_EQ(plan.retainedTracks[0].codec, "h264");
    EXPECT_EQ(plan.retainedTracks[1].codec, "aac");
    EXPECT_THAT(plan.omittedTracks, IsEmpty());
    EXPECT_EQ(FastCut::summary(plan),
              "Selected 7.000–13.000 s · planned 5.000–15.000 s. Adds 2.000 s before and 2.000 s "
              "after. Keeps: video (h264); audio (aac).");
    EXPECT_FALSE(plan.keepsWholeVideo());
    EXPECT_EQ(FastCut::fromJson(FastCut::toJson(plan)), plan);

    // An end inside the last group of pictures ends at the video's length; a start of 0 needs
    // no search.
    const FastCut::Plan tail = planFor(keyframeClip(), Trim{"0", "17"});
    EXPECT_EQ(tail.start, 0.0);
    EXPECT_DOUBLE_EQ(tail.end, 20.0);
    EXPECT_TRUE(tail.keepsWholeVideo());
    EXPECT_DOUBLE_EQ(planFor(keyframeClip(), Trim{"10", std::nullopt}).start, 10.0);
}

TEST(FastCutPlan, RefusesWhatCantBeCopiedOrIsNoRange) {
    using Kind = FastCut::Failure::Kind;
    const fs::path mp3 = makeClip(
        "h264-mp3.mp4", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2", "-f",
                         "lavfi", "-i", "sine=duration=2", "-c:v", "libx264", "-preset",
                         "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "libmp3lame"});
    const fs::path late = makeClip(
        "h264-starts-late.mp4",
        {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2", "-c:v", "libx264",
         "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-output_ts_offset", "0.04"});
    for (const fs::path& source :
         {testClip(TestClip::vp9Opus), testClip(TestClip::hevc), testClip(TestClip::h264Opus),
          testClip(TestClip::offsetTimeline), mp3, late}) {
        EXPECT_EQ(planFailure(source, Trim{"0", "0.5"}), Kind::unsupported) << source;
    }
    EXPECT_EQ(planFailure(testClip(TestClip::h264NoAudio), Trim{"0", "0.5"}), std::nullopt);

    EXPECT_EQ(planFailure(keyframeClip(), Trim{"7", "25"}), Kind::range);
    EXPECT_EQ(planFailure(keyframeClip(), Trim{"20", std::nullopt}), Kind::range);
    EXPECT_THROW((void)planFor(keyframeClip(), Trim{"13", "7"}), ClipSelection::Invalid);
    EXPECT_THROW((void)planFor(keyframeClip(), Trim{"soon", "7"}), ClipSelection::Invalid);
}

TEST(FastCutPlan, CopyArgumentsDropPacketsOutsideThePlannedRange) {
    FastCut::Plan plan;
    plan.source.path = "/in/talk.mp4";
    plan.start = 5;
    plan.end = 15;
    EXPECT_EQ(FastCut::copyArguments(plan, true, "/out/.converting-x-talk-cut.mp4"),
              (std::vector<std::string>{
                  "-y",
                  "-nostdin",
                  "-v",
                  "error",
                  "-ss",
                  "5.000000",
                  "-i",
                  "/in/talk.mp4",
                  "-t",
                  "10.000000",
                  "-map",
                  "0:V:0",
                  "-map",
                  "0:a:0",
                  "-c",
                  "copy",
                  "-bsf:v",
                  "noise=amount=0:drop='lt(pts*tb,0)+gte(pts*tb,10.000000-0.000001)'",
                  "-map_metadata",
                  "0",
                  "-map_chapters",
                  "-1",
                  "-avoid_negative_ts",
                  "disabled",
                  "-movflags",
                  "+faststart",
                  "-progress",
                  "pipe:1",
                  "/out/.converting-x-talk-cut.mp4"}));
    EXPECT_THAT(FastCut::copyArguments(plan, false, "/out/x.mp4"),
                ::testing::Not(Contains("0:a:0")));
}

TEST(FastCutJob, CopiesTheReviewedRangeWithoutReEncoding) {
    JobSandbox sandbox;
    const fs::path source = sandbox.place(keyframeClip(), "talk.mp4");
    const FastCut::Plan plan = planFor(source, Trim{"7", "13"});
    auto job = makeJob(sandbox, source, MediaTask::fastCut(Trim{"7", "13"}));
    job->expectedFastCutPlan = plan;
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    ASSERT_TRUE(record.published);
    EXPECT_EQ(record.published->filename(), "talk-cut.mp4");
    EXPECT_THAT(record.warnings, Contains(HasSubstr("keyframe range 5.000–15.000s")));
    const bool checkedCut = std::any_of(record.events.begin(), record.events.end(),
                                        [](auto& e) { return e.phase == JobPhase::checkingCut; });
    EXPECT_TRUE(checkedCut);

    const MediaInfo cut = probeFile(*record.published);
    ASSERT_TRUE(cut.videoDuration);
    EXPECT_NEAR(*cut.videoDuration, 10.0, 0.05);
    EXPECT_EQ(cut.videoCodec, "h264");
    EXPECT_EQ(cut.audioCodec, "aac");
    // The copy holds the source's packets from 5 to 15 s (25 a second), byte for byte.
    const std::vector<std::string> packets = videoPacketHashes(source);
    ASSERT_EQ(packets.size(), 500U);
    EXPECT_EQ(videoPacketHashes(*record.published),
              std::vector<std::string>(packets.begin() + 125, packets.begin() + 375));
    EXPECT_THAT(sandbox.leftovers({*record.published}), IsEmpty());
}

TEST(FastCutJob, RefusesWhenTheSourceChangedAfterReview) {
    JobSandbox sandbox;
    const fs::path source = sandbox.place(keyframeClip(), "talk.mp4");
    const FastCut::Plan plan = planFor(source, Trim{"7", "13"});
    // Another file under the same name, as a re-export over the original would leave.
    fs::remove(source);
    fs::copy_file(makeClip("keyframes-every-5s-other.mp4",
                           {"-f", "lavfi", "-i", "testsrc=size=160x120:rate=25:duration=20", "-c:v",
                            "libx264", "-preset", "ultrafast", "-x264-params",
                            "keyint=125:min-keyint=125:scenecut=0", "-pix_fmt", "yuv420p"}),
                  source);
    auto job = makeJob(sandbox, source, MediaTask::fastCut(Trim{"7", "13"}));
    job->expectedFastCutPlan = plan;
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(
        *record.failure,
        JobFailure::sentence("cut", FastCut::Failure(FastCut::Failure::Kind::changed).what()));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());

    // Without a review a source that can't be cut says why, and nothing is written.
    const fs::path hevc = sandbox.place(testClip(TestClip::hevc), "phone.mp4");
    auto refused = makeJob(sandbox, hevc, MediaTask::fastCut(Trim{"0", "0.5"}));
    const JobRecord unsupported = runJob(*refused);
    ASSERT_TRUE(unsupported.failure);
    EXPECT_EQ(
        *unsupported.failure,
        JobFailure::sentence("cut", FastCut::Failure(FastCut::Failure::Kind::unsupported).what()));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

}  // namespace
}  // namespace tessarin::test
