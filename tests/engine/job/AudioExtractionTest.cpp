// Audio extraction through the job: codecs probed back, trims, naming, and the transcription
// input policy.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/engine/job/JobTestSupport.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::test {
namespace {

namespace fs = std::filesystem;
using namespace engine;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct AudioCase {
    const char* name;
    AudioExtractionCodec codec;
    const char* fileName;
    const char* container;
    const char* audioCodec;
};

const AudioCase kAudioCases[] = {
    {"Aac", AudioExtractionCodec::aac, "a-audio.m4a", "mov", "aac"},
    {"Wav", AudioExtractionCodec::pcmS16LE, "a-audio.wav", "wav", "pcm_s16le"},
    {"Flac", AudioExtractionCodec::flac, "a-audio.flac", "flac", "flac"},
};

class AudioExtraction : public ::testing::TestWithParam<AudioCase> {};

TEST_P(AudioExtraction, WritesTheFirstAudioTrack) {
    const AudioCase& c = GetParam();
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "a.mov");
    auto job = makeJob(sandbox, source,
                       MediaTask::extractAudio(AudioExtractionOptions::make(c.codec, 128)));
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->step << ": " << record.failure->stderrTail;
    EXPECT_EQ(*record.published, sandbox.outputs() / c.fileName);
    const MediaInfo output = probeFile(*record.published);
    EXPECT_THAT(output.container.value_or(""), HasSubstr(c.container));
    EXPECT_EQ(output.audioCodec, c.audioCodec);
    EXPECT_FALSE(output.width);
    EXPECT_NEAR(output.durationSeconds.value_or(0), 1.0, 0.1);
    EXPECT_THAT(sandbox.leftovers({*record.published}), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Codecs, AudioExtraction, ::testing::ValuesIn(kAudioCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(AudioExtractionJob, TrimRateAndChannels) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    auto job = makeJob(sandbox, source,
                       MediaTask::extractAudio(AudioExtractionOptions::make(
                           AudioExtractionCodec::pcmS16LE, 128, 16000, 1, Trim{"0.25", "0.75"})));
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    EXPECT_NEAR(probeFile(*record.published).durationSeconds.value_or(0), 0.5, 0.05);
    // 0.5 s of 16 kHz mono 16-bit samples after a 44-byte header.
    EXPECT_NEAR(static_cast<double>(fs::file_size(*record.published)), 44 + 16000, 400);
}

TEST(AudioExtractionJob, SourceWithoutAudioIsRefused) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264NoAudio), "clip.mp4");
    auto job = makeJob(
        sandbox, source,
        MediaTask::extractAudio(AudioExtractionOptions::make(AudioExtractionCodec::aac, 128)));
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(*record.failure,
              JobFailure::sentence("preflight",
                                   "This video has no audio track, so there is nothing to "
                                   "extract."));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(AudioExtractionJob, TranscriptionPolicyReadsAllowedFormats) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Opus), "clip.mkv");
    auto job = makeJob(
        sandbox, source,
        MediaTask::extractAudio(AudioExtractionOptions::make(AudioExtractionCodec::flac, 128)),
        MediaInputPolicy::transcription);
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    EXPECT_EQ(probeFile(*record.published).audioCodec, "flac");
}

TEST(AudioExtractionJob, TranscriptionPolicyRefusesOtherFormats) {
    JobSandbox sandbox;
    // SoX's native format is not on the allow-list.
    const auto source = sandbox.place(
        makeClip("tone.sox",
                 {"-f", "lavfi", "-i", "sine=frequency=440:sample_rate=8000:duration=1"}),
        "tone.sox");
    auto job = makeJob(
        sandbox, source,
        MediaTask::extractAudio(AudioExtractionOptions::make(AudioExtractionCodec::aac, 128)),
        MediaInputPolicy::transcription);
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(record.failure->step, "probe");
    EXPECT_FALSE(record.failure->wasCancelled);
    EXPECT_THAT(record.failure->stderrTail, HasSubstr("not on whitelist"));

    // The same file is fine without the policy.
    auto unrestricted = makeJob(
        sandbox, source,
        MediaTask::extractAudio(AudioExtractionOptions::make(AudioExtractionCodec::aac, 128)));
    const JobRecord accepted = runJob(*unrestricted);
    ASSERT_FALSE(accepted.failure) << accepted.failure->stderrTail;
    EXPECT_EQ(accepted.published->filename(), "tone-audio.m4a");
}

}  // namespace
}  // namespace tessarin::test
