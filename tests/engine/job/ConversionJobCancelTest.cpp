// Cancellation at every stage, from another thread, waiting on real events; and the failures of
// the tools the job runs (a failing gifsicle, an unreadable finished encode).
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "tests/engine/job/JobTestSupport.hpp"
#include "tests/support/FakeTools.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::test {
namespace {

namespace fs = std::filesystem;
using namespace engine;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// Runs `job` on a thread of its own and cancels it from this one once `ready` holds.
JobRecord runAndCancelWhen(ConversionJob& job, const std::function<bool()>& ready) {
    JobRecord record;
    std::thread worker([&] { record = runJob(job); });
    const bool reached = waitUntil(ready);
    job.cancel();
    worker.join();
    EXPECT_TRUE(reached) << "the job never reached the awaited step";
    return record;
}

void expectCancelledIn(const JobRecord& record, const std::string& step) {
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(record.failure->step, step);
    EXPECT_TRUE(record.failure->wasCancelled);
    EXPECT_FALSE(record.published);
}

TEST(ConversionJobCancel, BeforeRunNothingStarts) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    job->cancel();
    EXPECT_TRUE(job->isCancelled());
    const JobRecord record = runJob(*job);
    expectCancelledIn(record, "probe");
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJobCancel, DuringTheProbe) {
    JobSandbox sandbox;
    // ffprobe blocks opening a FIFO until a writer comes; a non-blocking open for writing
    // succeeds exactly when a reader is there, which tells that the probe is running.
    const fs::path source = sandbox.sources() / "pipe.mp4";
    ASSERT_EQ(::mkfifo(source.c_str(), 0600), 0);
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    int writer = -1;
    const JobRecord record = runAndCancelWhen(*job, [&] {
        writer = ::open(source.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        return writer >= 0;
    });
    if (writer >= 0) {
        ::close(writer);
    }
    expectCancelledIn(record, "probe");
    EXPECT_EQ(record.failure->stderrTail, "");
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJobCancel, DuringTheEncode) {
    JobSandbox sandbox;
    const auto source = sandbox.place(longClip(), "long.mp4");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    const JobRecord record =
        runAndCancelWhen(*job, [&] { return findEncodeTarget(sandbox.outputs()).has_value(); });
    expectCancelledIn(record, "ffmpeg");
    EXPECT_THAT(record.failure->stderrTail, StartsWith("cancelled"));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJobCancel, DuringGifsicle) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    const fs::path toolsFolder = sandbox.root() / "tools";
    const fs::path gate = sandbox.root() / "gate";
    const fs::path started = sandbox.root() / "gifsicle-started";
    fs::create_directories(toolsFolder);
    ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
    // Blocks opening the FIFO, which nobody writes, until the job's cancel ends it.
    const Tools tools =
        fakeTools(toolsFolder, std::nullopt,
                  ": > '" + started.string() + "'\nread line < '" + gate.string() + "'");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::gifSmall()),
                       MediaInputPolicy::unrestricted, tools);
    const JobRecord record = runAndCancelWhen(*job, [&] { return fs::exists(started); });
    expectCancelledIn(record, "gifsicle");
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJobCancel, BetweenVerificationAndPublication) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()));
    bool hookRan = false;
    job->prePublishHook = [&] {
        hookRan = true;
        EXPECT_TRUE(findEncodeTarget(sandbox.outputs()).has_value());
        job->cancel();
    };
    const JobRecord record = runJob(*job);
    EXPECT_TRUE(hookRan);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(*record.failure, JobFailure("publish", std::nullopt, "cancelled", true));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJobFailures, FailingGifsiclePublishesTheUnoptimisedGif) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    const Tools tools = fakeTools(sandbox.root() / "tools", std::nullopt,
                                  "echo 'gifsicle: out of luck' >&2\nexit 3");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::gifFull()),
                       MediaInputPolicy::unrestricted, tools);
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    EXPECT_THAT(record.warnings,
                ::testing::ElementsAre(
                    "GIF optimization failed (gifsicle exit 3); kept the unoptimized GIF"));
    std::ifstream published(*record.published, std::ios::binary);
    std::string head(6, '\0');
    published.read(head.data(), 6);
    EXPECT_EQ(head, "GIF89a");
    EXPECT_EQ(countVideoFrames(*record.published), 10);
    EXPECT_THAT(sandbox.leftovers({*record.published}), IsEmpty());
}

TEST(ConversionJobFailures, GifsicleOutputThatIsNoGifIsDropped) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    // Writes something else to the file after "-o".
    const Tools tools = fakeTools(sandbox.root() / "tools", std::nullopt,
                                  "while [ \"$1\" != -o ]; do shift; done\necho junk > \"$2\"");
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::gifFull()),
                       MediaInputPolicy::unrestricted, tools);
    const JobRecord record = runJob(*job);
    ASSERT_FALSE(record.failure) << record.failure->stderrTail;
    EXPECT_THAT(record.warnings, IsEmpty());
    EXPECT_EQ(countVideoFrames(*record.published), 10);
    EXPECT_THAT(sandbox.leftovers({*record.published}), IsEmpty());
}

struct VerifyCase {
    const char* name;
    const char* ffprobeOnOutput;  // the fake ffprobe's body for the finished encode
    JobFailure expected;
};

// The fake ffprobe runs the real one on the source and misbehaves on the finished encode.
const VerifyCase kVerifyCases[] = {
    {"Unreadable", "echo 'moov atom not found' >&2; exit 1",
     JobFailure("verify", 1,
                "ffprobe could not read the finished encode; the container may be corrupt. It "
                "was not published.")},
    {"Malformed", "echo 'this is not json'",
     JobFailure::sentence("verify",
                          "ffprobe returned malformed metadata for the finished encode. It was "
                          "not published.")},
    {"NoVideo", "echo '{\"streams\": [], \"format\": {}}'",
     JobFailure::sentence("encode",
                          "The finished encode contains no video stream, so it would not have "
                          "played. Check the trim range against the source duration.")},
};

class ConversionJobVerification : public ::testing::TestWithParam<VerifyCase> {};

TEST_P(ConversionJobVerification, BadFinishedEncodeIsNotPublished) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    const std::string body = std::string("for last; do :; done\ncase \"$last\" in\n") +
                             "  */.converting-*) " + GetParam().ffprobeOnOutput + " ;;\n" +
                             "  *) exec \"$REAL\" \"$@\" ;;\nesac";
    const Tools tools = fakeTools(sandbox.root() / "tools", body, std::nullopt);
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()),
                       MediaInputPolicy::unrestricted, tools);
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(*record.failure, GetParam().expected);
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Rows, ConversionJobVerification, ::testing::ValuesIn(kVerifyCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ConversionJobFailures, FfmpegErrorCarriesItsTail) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    // A trim end that ffmpeg cannot read passes the job's check and fails in ffmpeg.
    auto job =
        makeJob(sandbox, source, MediaTask::convert(withTrim(Preset::mp4H264(), Trim{{}, "x"})));
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(record.failure->step, "ffmpeg");
    EXPECT_FALSE(record.failure->wasCancelled);
    ASSERT_TRUE(record.failure->exitCode);
    EXPECT_NE(*record.failure->exitCode, 0);
    EXPECT_THAT(record.failure->stderrTail, HasSubstr("x"));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

TEST(ConversionJobFailures, FfmpegThatCannotStart) {
    JobSandbox sandbox;
    const auto source = sandbox.place(testClip(TestClip::h264Aac), "clip.mp4");
    Tools tools = helperTools();
    tools.ffmpeg = sandbox.root() / "no-ffmpeg-here";
    auto job = makeJob(sandbox, source, MediaTask::convert(Preset::mp4H264()),
                       MediaInputPolicy::unrestricted, tools);
    const JobRecord record = runJob(*job);
    ASSERT_TRUE(record.failure);
    EXPECT_EQ(*record.failure, JobFailure("ffmpeg", -1,
                                          "no-ffmpeg-here could not be started (No such file or "
                                          "directory)."));
    EXPECT_THAT(sandbox.leftovers(), IsEmpty());
}

}  // namespace
}  // namespace tessarin::test
