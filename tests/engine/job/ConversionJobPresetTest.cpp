// Every built-in preset family run end to end on a tiny clip, the output probed back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/engine/job/JobTestSupport.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::test {
namespace {

using namespace engine;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct PresetCase {
    const char* name;
    const Preset& (*preset)();
    TestClip clip;
    const char* container;  // a word of ffprobe's format_name
    const char* videoCodec;
    int64_t width;
    int64_t height;
    int64_t frames;
    std::optional<const char*> audioCodec;  // absent: no audio in the output
};

// The test clips are 160x120 at 10 fps, one second long.
const PresetCase kCases[] = {
    {"H264CopiesAac", &Preset::mp4H264, TestClip::h264Aac, "mp4", "h264", 160, 120, 10, "aac"},
    {"H264HalfTranscodesOpus", &Preset::mp4H264Half, TestClip::h264Opus, "mp4", "h264", 80, 60, 10,
     "aac"},
    {"H265WithoutAudio", &Preset::mp4H265, TestClip::h264NoAudio, "mp4", "hevc", 160, 120, 10,
     std::nullopt},
    {"AV1", &Preset::mp4AV1, TestClip::h264Aac, "mp4", "av1", 160, 120, 10, "aac"},
    {"VP9WebM", &Preset::webmVP9, TestClip::h264Aac, "webm", "vp9", 160, 120, 10, "opus"},
    {"GifSmall", &Preset::gifSmall, TestClip::h264Aac, "gif", "gif", 53, 40, 6, std::nullopt},
    {"GifFull", &Preset::gifFull, TestClip::h264Aac, "gif", "gif", 160, 120, 10, std::nullopt},
};

class ConversionJobPresets : public ::testing::TestWithParam<PresetCase> {};

TEST_P(ConversionJobPresets, PublishesWhatThePresetAsks) {
    const PresetCase& c = GetParam();
    JobSandbox sandbox;
    const std::filesystem::path source = sandbox.place(testClip(c.clip), "clip.mov");
    auto job = makeJob(sandbox, source, MediaTask::convert(c.preset()));
    const JobRecord record = runJob(*job);

    ASSERT_FALSE(record.failure) << record.failure->step << ": " << record.failure->stderrTail;
    const Preset& preset = c.preset();
    EXPECT_EQ(*record.published,
              sandbox.outputs() / ("clip" + preset.filenameSuffix + "." + preset.fileExtension));
    EXPECT_THAT(record.warnings, IsEmpty());
    EXPECT_THAT(sandbox.leftovers({*record.published}), IsEmpty());

    const MediaInfo output = probeFile(*record.published);
    EXPECT_THAT(output.container.value_or(""), HasSubstr(c.container));
    EXPECT_EQ(output.videoCodec, c.videoCodec);
    EXPECT_EQ(output.width, c.width);
    EXPECT_EQ(output.height, c.height);
    EXPECT_EQ(countVideoFrames(*record.published), c.frames);
    EXPECT_EQ(output.hasAudio, c.audioCodec.has_value());
    if (c.audioCodec) {
        EXPECT_EQ(output.audioCodec, *c.audioCodec);
    }
    // The source is never changed, and the last report is the whole.
    EXPECT_TRUE(std::filesystem::exists(source));
    ASSERT_FALSE(record.events.empty());
    EXPECT_EQ(record.events.back().fraction, 1.0);
    EXPECT_EQ(record.events.front().phase, JobPhase::encoding);
}

INSTANTIATE_TEST_SUITE_P(BuiltIns, ConversionJobPresets, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ConversionJob, GifIsOptimisedByGifsicle) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    Preset unoptimised = Preset::gifFull();
    unoptimised.options.optimizeGif = false;
    unoptimised.filenameSuffix = "-plain";
    auto plainJob = makeJob(sandbox, source, MediaTask::convert(unoptimised));
    const JobRecord plain = runJob(*plainJob);
    auto optimisedJob = makeJob(sandbox, source, MediaTask::convert(Preset::gifFull()));
    const JobRecord optimised = runJob(*optimisedJob);
    ASSERT_TRUE(plain.published && optimised.published);
    EXPECT_LT(std::filesystem::file_size(*optimised.published),
              std::filesystem::file_size(*plain.published));
}

TEST(ConversionJob, SecondOutputTakesTheNextFreeName) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "a.mov");
    std::ofstream(sandbox.outputs() / "a-h264_crf33.mp4") << "taken";
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.published);
    EXPECT_EQ(*record.published, sandbox.outputs() / "a-h264_crf33-2.mp4");
    std::ifstream taken(sandbox.outputs() / "a-h264_crf33.mp4");
    std::string text;
    taken >> text;
    EXPECT_EQ(text, "taken");
}

TEST(ConversionJob, EncoderGateRefusesBeforeAnyWork) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");

    ConversionJob hevc(source, MediaTask::convert(Preset::mp4H265()), helperTools(),
                       MediaInputPolicy::unrestricted,
                       EncoderCapabilityPolicy{SoftwareHEVCSource::unavailable}, sandbox.outputs());
    const JobRecord refused = runJob(hevc);
    ASSERT_TRUE(refused.failure);
    EXPECT_EQ(*refused.failure, JobFailure::sentence("encoder", kHEVCUnavailableSentence));

    ConversionJob external(source, MediaTask::convert(Preset::mp4H265()), helperTools(),
                           MediaInputPolicy::unrestricted,
                           EncoderCapabilityPolicy{SoftwareHEVCSource::external},
                           sandbox.outputs());
    const JobRecord untrusted = runJob(external);
    ASSERT_TRUE(untrusted.failure);
    EXPECT_EQ(untrusted.failure->step, "encoder");
    EXPECT_EQ(untrusted.failure->stderrTail,
              "The external software H.265 toolchain has no validated identity.");

    Tools pinned = helperTools();
    pinned.externalSoftwareHEVCIdentity =
        ExternalSoftwareHEVCToolchain{(sandbox.root() / "gone").string(), {}, {}};
    ConversionJob moved(source, MediaTask::convert(Preset::mp4H265()), pinned,
                        MediaInputPolicy::unrestricted,
                        EncoderCapabilityPolicy{SoftwareHEVCSource::external}, sandbox.outputs());
    const JobRecord distrusted = runJob(moved);
    ASSERT_TRUE(distrusted.failure);
    EXPECT_EQ(distrusted.failure->step, "encoder");
    EXPECT_THAT(distrusted.failure->stderrTail,
                ::testing::StartsWith("External software H.265 toolchain is no longer trusted: "));

    // No hardware encoder was found on this machine by the (here empty) start-up probe.
    auto hardware = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264Hardware()));
    const JobRecord noHardware = runJob(*hardware);
    ASSERT_TRUE(noHardware.failure);
    EXPECT_EQ(*noHardware.failure,
              JobFailure::sentence("encoder",
                                   *HardwareEncoderSupport{}.disabledReason(VideoCodec::h264VT)));

    EXPECT_TRUE(refused.events.empty());
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJob, MissingSourceIsAProbeFailure) {
    JobSandbox sandbox;
    auto job =
        makeJob(sandbox, sandbox.sources() / "gone.mp4", MediaTask::convert(Preset::mp4H264()));
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(record.failure->step, "probe");
    EXPECT_EQ(record.failure->exitCode, 1);
    EXPECT_THAT(record.failure->stderrTail, HasSubstr("No such file"));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

}  // namespace
}  // namespace tessarin::test
