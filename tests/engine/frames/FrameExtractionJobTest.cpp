// Frame exports of generated videos through the real ffmpeg: slides found once each with their
// reasons, even spacing, the manifest against the pictures, and failures and cancellations that
// leave nothing behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "engine/frames/FrameExtractionJob.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "tests/support/Files.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Six slides at 25 fps, 320x180: red 0-2 s, blue 2-4 s, green for only 0.6 s, a white card with
// text 4.6-6.6 s, a one-second fade to black, then black to 9 s.
const fs::path& slideshow() {
    static const fs::path clip = test::makeClip(
        "slideshow.mp4",
        {"-f", "lavfi", "-i",
         "color=c=red:s=320x180:r=25:d=2[a];color=c=blue:s=320x180:r=25:d=2[b];"
         "color=c=green:s=320x180:r=25:d=0.6[c];"
         "color=c=white:s=320x180:r=25:d=3,drawtext=text='Step 3':fontsize=40:x=40:y=60,"
         "fade=t=out:st=2:d=1[d];color=c=black:s=320x180:r=25:d=1.4[e];"
         "[a][b][c][d][e]concat=n=5:v=1:a=0",
         "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    return clip;
}

struct Outcome {
    std::optional<FrameExtractionResult> result;
    std::optional<JobFailure> failure;
    std::vector<FrameWarning> warnings;
    std::vector<FrameExtractionPhase> phases;
};

Outcome runJob(FrameExtractionJob& job) {
    Outcome outcome;
    FrameExtractionJob::Callbacks callbacks;
    callbacks.onWarning = [&](FrameWarning warning) { outcome.warnings.push_back(warning); };
    callbacks.onPhase = [&](FrameExtractionPhase phase) { outcome.phases.push_back(phase); };
    try {
        outcome.result = job.run(callbacks);
    } catch (const JobFailure& failure) {
        outcome.failure = failure;
    }
    return outcome;
}

// A source in a folder of its own, exports into another, TMPDIR pointed at a third.
class FramesSandbox : public test::Sandbox {
public:
    [[nodiscard]] std::unique_ptr<FrameExtractionJob> job(const fs::path& source,
                                                          FrameExtractionOptions options) const {
        return std::make_unique<FrameExtractionJob>(source, std::move(options), outputs(),
                                                    test::helperTools());
    }
};

TEST(FrameExtractionJob, FindsEachSlideOnceWithItsReason) {
    FramesSandbox sandbox;
    const fs::path source = sandbox.place(slideshow(), "talk 100% final.mp4");
    auto job = sandbox.job(source, FrameExtractionOptions{});
    const Outcome outcome = runJob(*job);
    ASSERT_FALSE(outcome.failure) << outcome.failure->step << ": " << outcome.failure->stderrTail;
    const FrameExtractionResult& result = *outcome.result;
    EXPECT_EQ(result.directory, sandbox.outputs() / "talk 100% final-frames");
    EXPECT_THAT(outcome.phases,
                ElementsAre(FrameExtractionPhase::analyzing, FrameExtractionPhase::extracting,
                            FrameExtractionPhase::publishing));

    std::vector<FrameReason> reasons;
    std::vector<double> times;
    for (const FrameManifest::Frame& frame : result.manifest.frames) {
        reasons.push_back(frame.reason);
        times.push_back(frame.time);
    }
    // Red at the start; blue, the short green, the card and black each once: the first frame
    // of each picture that then held still (the encoder takes a few frames to sharpen the card).
    ASSERT_THAT(reasons, ElementsAre(FrameReason::first, FrameReason::change, FrameReason::change,
                                     FrameReason::change, FrameReason::change))
        << ::testing::PrintToString(times);
    EXPECT_THAT(times, ElementsAre(0.0, 2.0, 4.0, ::testing::DoubleNear(4.75, 0.15),
                                   ::testing::DoubleNear(7.6, 0.05)));

    // The folder holds exactly the pictures, the sheet and the list, and the list reads back.
    std::vector<std::string> expected;
    for (const FrameManifest::Frame& frame : result.manifest.frames) {
        expected.push_back(frame.file);
    }
    expected.push_back("contact-sheet.jpg");
    expected.push_back("frames.json");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(test::treeEntries(result.directory), expected);
    std::ifstream in(result.directory / "frames.json");
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(FrameManifest::decodedText(text), result.manifest);
    for (const FrameManifest::Frame& frame : result.manifest.frames) {
        ProcessRunner runner;
        const MediaInfo picture =
            MediaProbe::probe(result.directory / frame.file, test::helperTools(),
                              MediaInputPolicy::unrestricted, runner);
        EXPECT_EQ(picture.width, frame.width) << frame.file;
        EXPECT_EQ(picture.height, frame.height) << frame.file;
    }
    EXPECT_THAT(test::treeEntries(sandbox.temporary()), IsEmpty());

    // A second export of the same source takes the next name.
    auto again = sandbox.job(source, FrameExtractionOptions{});
    const Outcome second = runJob(*again);
    ASSERT_TRUE(second.result);
    EXPECT_EQ(second.result->directory, sandbox.outputs() / "talk 100% final-frames-2");
}

TEST(FrameExtractionJob, IntervalModeSpacesFramesEvenly) {
    FramesSandbox sandbox;
    const fs::path source = sandbox.place(
        test::makeClip("testsrc-10s.mp4",
                       {"-f", "lavfi", "-i", "testsrc=size=160x120:rate=25:d=10", "-c:v", "libx264",
                        "-preset", "ultrafast", "-pix_fmt", "yuv420p"}),
        "clock.mp4");
    FrameExtractionOptions options;
    options.mode = FrameSelectionMode::interval;
    options.maxFrames = 3;
    options.format = FrameImageFormat::png;
    options.contactSheet = false;
    auto job = sandbox.job(source, options);
    const Outcome outcome = runJob(*job);
    ASSERT_TRUE(outcome.result) << outcome.failure->stderrTail;
    const FrameManifest& manifest = outcome.result->manifest;
    ASSERT_EQ(manifest.frames.size(), 3U);
    EXPECT_DOUBLE_EQ(manifest.frames[0].time, 0.0);
    EXPECT_DOUBLE_EQ(manifest.frames[1].time, 5.0);
    EXPECT_DOUBLE_EQ(manifest.frames[2].time, 9.96);
    EXPECT_EQ(manifest.frames[2].file, "frame-003-9.960s.png");
    EXPECT_FALSE(manifest.contactSheets);
}

TEST(FrameExtractionJob, RefusesAVideoThatChangesSizeAndLeavesNothing) {
    FramesSandbox sandbox;
    // Two parts of different sizes copied into one stream, as a re-encoded screen share may be.
    const auto part = [](const std::string& size) {
        return test::makeClip("part-" + size + ".mp4",
                              {"-f", "lavfi", "-i", "testsrc=size=" + size + ":rate=25:d=1", "-c:v",
                               "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    };
    const fs::path list = sandbox.temporary() / "parts.txt";
    std::ofstream(list) << "file '" << part("160x120").string() << "'\nfile '"
                        << part("200x120").string() << "'\n";
    const fs::path source = sandbox.sources() / "resized.mkv";
    ProcessRunner joiner;
    ASSERT_EQ(
        joiner
            .run(test::helperTools().ffmpeg, {"-v", "error", "-f", "concat", "-safe", "0", "-i",
                                              list.string(), "-c", "copy", source.string()})
            .exitCode,
        0);
    fs::remove(list);
    auto job = sandbox.job(source, FrameExtractionOptions{});
    const Outcome outcome = runJob(*job);
    ASSERT_TRUE(outcome.failure);
    EXPECT_EQ(*outcome.failure,
              JobFailure::sentence("analysis",
                                   "This video changes size partway through, so frames can't be "
                                   "taken from it. Nothing was saved."));
    EXPECT_THAT(test::treeEntries(sandbox.outputs()), IsEmpty());
    EXPECT_THAT(test::treeEntries(sandbox.temporary()), IsEmpty());
}

TEST(FrameExtractionJob, CancellingAtAnyPointLeavesNothing) {
    FramesSandbox sandbox;
    const fs::path source = sandbox.place(slideshow(), "talk.mp4");
    enum class When { analysing, betweenPasses, extracting, beforePublishing };
    for (const When when :
         {When::analysing, When::betweenPasses, When::extracting, When::beforePublishing}) {
        auto job = sandbox.job(source, FrameExtractionOptions{});
        FrameExtractionJob* raw = job.get();
        bool cancelledInLine = false;
        job->analysisLineHook = [&](std::string_view line) {
            if (when == When::analysing && !cancelledInLine &&
                line.find("n:  10") != std::string_view::npos) {
                cancelledInLine = true;
                raw->cancel();
            }
        };
        job->betweenPassesHook = [&] {
            if (when == When::betweenPasses) {
                raw->cancel();
            }
        };
        job->prePublishHook = [&] {
            if (when == When::beforePublishing) {
                raw->cancel();
            }
        };
        FrameExtractionJob::Callbacks callbacks;
        callbacks.onProgress = [&](double fraction) {
            if (when == When::extracting && fraction > 0.5) {
                raw->cancel();
            }
        };
        std::optional<JobFailure> failure;
        try {
            (void)job->run(callbacks);
        } catch (const JobFailure& caught) {
            failure = caught;
        }
        ASSERT_TRUE(failure) << static_cast<int>(when);
        EXPECT_TRUE(failure->wasCancelled) << static_cast<int>(when) << " " << failure->stderrTail;
        EXPECT_THAT(test::treeEntries(sandbox.outputs()), IsEmpty()) << static_cast<int>(when);
        EXPECT_THAT(test::treeEntries(sandbox.temporary()), IsEmpty()) << static_cast<int>(when);
    }
}

TEST(FrameExtractionJob, ChecksOptionsAndTheRangeFirst) {
    FramesSandbox sandbox;
    const fs::path source = sandbox.place(slideshow(), "talk.mp4");
    FrameExtractionOptions tooMany;
    tooMany.maxFrames = 1001;
    EXPECT_EQ(runJob(*sandbox.job(source, tooMany)).failure,
              JobFailure::sentence("preflight", "Choose between 2 and 1000 frames."));
    FrameExtractionOptions tiny;
    tiny.maxSize = 32;
    EXPECT_EQ(
        runJob(*sandbox.job(source, tiny)).failure,
        JobFailure::sentence("preflight", "Choose a maximum size between 64 and 2576 pixels."));
    FrameExtractionOptions late;
    late.trim = Trim{"20", std::nullopt};
    EXPECT_EQ(runJob(*sandbox.job(source, late)).failure->step, "trim");
    EXPECT_EQ(runJob(*sandbox.job(sandbox.sources() / "missing.mp4", {})).failure,
              JobFailure::sentence(
                  "probe", "The video can't be read: it is missing or not a regular file."));
    // ffprobe only sees a link in the work folder; its complaint names the user's file.
    const fs::path text = sandbox.sources() / "notes.mp4";
    std::ofstream(text) << "not a video\n";
    const std::optional<JobFailure> unreadable = runJob(*sandbox.job(text, {})).failure;
    ASSERT_TRUE(unreadable);
    EXPECT_EQ(unreadable->step, "probe");
    EXPECT_THAT(unreadable->stderrTail, ::testing::HasSubstr("notes.mp4"));
    EXPECT_THAT(unreadable->stderrTail, ::testing::Not(::testing::HasSubstr("tessarin-work")));
    EXPECT_THAT(test::treeEntries(sandbox.outputs()), IsEmpty());
    EXPECT_EQ(automaticFrameBudget(60), 24);
    EXPECT_EQ(automaticFrameBudget(4000), 800);
    EXPECT_EQ(automaticFrameBudget(10000), 1000);
}

}  // namespace
}  // namespace tessarin::engine
