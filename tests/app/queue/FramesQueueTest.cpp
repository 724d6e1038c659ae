// Frame exports through the queue with the real ffmpeg on generated clips: the Frames action
// exports to a done row whose output is the published folder, each row takes the settings of the
// moment it starts with its own trim, a cancel leaves nothing behind, and a file that can't be
// read fails with the export's own sentence.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/queue/QueueModel.hpp"
#include "app/settings/FramesSettings.hpp"
#include "engine/frames/FrameExtractionJob.hpp"
#include "engine/frames/FrameManifest.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using test::urlsOf;
using test::waitFor;
using ::testing::ElementsAre;
using Kind = QueueItem::StateKind;

// Three slides of two seconds each, 160x120 at 25 fps: red, blue, green.
fs::path slides() {
    return test::makeClip("queue-slides.mp4",
                          {"-f", "lavfi", "-i",
                           "color=c=red:s=160x120:r=25:d=2[a];color=c=blue:s=160x120:r=25:d=2[b];"
                           "color=c=green:s=160x120:r=25:d=2[c];[a][b][c]concat=n=3:v=1:a=0",
                           "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
}

// Twenty seconds of 640x480: long enough to be cancelled mid-export.
fs::path longClip() {
    return test::makeClip("queue-long.mp4",
                          {"-f", "lavfi", "-i", "testsrc2=size=640x480:rate=30:duration=20", "-c:v",
                           "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

engine::FrameManifest manifestIn(const fs::path& folder) {
    std::ifstream file(folder / engine::FrameManifest::kFileName);
    std::stringstream text;
    text << file.rdbuf();
    return engine::FrameManifest::decodedText(text.str());
}

class FramesQueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::ensureCoreApplication();
        tools = engine::Tools::inBundle(test::helperDirectory());
        ASSERT_TRUE(tools);
        queue = std::make_unique<QueueModel>(*tools);
        queue->isApplicationActive = [] { return false; };
        queue->postNotification = [this](const std::string& title, const std::string& body) {
            notifications.emplace_back(title, body);
        };
        // The window's wiring: the queue asks the stored choices at each start.
        queue->framesOptions = [this] { return settings.options(); };
    }

    void TearDown() override {
        queue.reset();
        // No staging folder or work file may stay behind beside the sources.
        for (const auto& entry : fs::recursive_directory_iterator(dir.path())) {
            EXPECT_EQ(entry.path().filename().string().rfind(".tessarin-", 0), std::string::npos)
                << entry.path();
        }
    }

    bool allFinished() const {
        return std::all_of(queue->items().begin(), queue->items().end(),
                           [](const QueueItem& item) { return item.isFinished(); });
    }

    test::ConfigHome home;
    FramesSettings settings{test::openStore(home.standardFile())};
    test::TempDir dir;
    std::optional<engine::Tools> tools;
    std::unique_ptr<QueueModel> queue;
    std::vector<std::pair<std::string, std::string>> notifications;
};

TEST_F(FramesQueueTest, TheFramesActionExportsToADoneRowWhoseOutputIsTheFolder) {
    const ActionDescriptor chip =
        fixedDescriptor(ActionID::Kind::frames, queue->actionAvailability());
    EXPECT_EQ(chip.disabledReason, std::nullopt);

    const fs::path source = test::copyClip(slides(), dir / "talk.mp4");
    std::vector<double> progress;
    QObject::connect(queue.get(), &QueueModel::itemChanged, [&] {
        const QueueItem& row = queue->items().at(0);
        if (row.state.kind == Kind::running && row.state.progress) {
            progress.push_back(*row.state.progress);
        }
    });
    ASSERT_TRUE(queue->intake(urlsOf({source}), test::withAction(ActionID::frames())));
    ASSERT_EQ(queue->items().size(), 1U);
    EXPECT_EQ(queue->items()[0].stateLabel(), "Exporting frames");
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));

    const QueueItem& row = queue->items()[0];
    ASSERT_EQ(row.state.kind, Kind::done)
        << (row.state.failure ? row.state.failure->stderrTail : "");
    EXPECT_EQ(row.stateLabel(), "Frames exported");
    EXPECT_EQ(row.state.output, dir / "talk-frames");
    ASSERT_TRUE(fs::is_directory(row.state.output));
    EXPECT_NEAR(row.sourceDurationSeconds.value_or(0), 6.0, 0.1);

    // Red at the start, then blue and green where the picture changes.
    const engine::FrameManifest manifest = manifestIn(row.state.output);
    std::vector<engine::FrameReason> reasons;
    std::vector<std::string> expected{"contact-sheet.jpg", "frames.json"};
    for (const engine::FrameManifest::Frame& frame : manifest.frames) {
        reasons.push_back(frame.reason);
        expected.push_back(frame.file);
        EXPECT_TRUE(frame.file.ends_with(".jpg")) << frame.file;
        EXPECT_EQ(frame.width, 160);
    }
    EXPECT_THAT(reasons, ElementsAre(engine::FrameReason::first, engine::FrameReason::change,
                                     engine::FrameReason::change));
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(namesIn(row.state.output), expected);
    EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"talk-frames", "talk.mp4"}));

    // One bar over both passes, never running backwards.
    ASSERT_FALSE(progress.empty());
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()))
        << ::testing::PrintToString(progress);
    EXPECT_LE(progress.back(), 1.0);
    EXPECT_EQ(
        notifications,
        (std::vector<std::pair<std::string, std::string>>{{"Conversion finished", "talk.mp4"}}));
}

TEST_F(FramesQueueTest, EachRowTakesTheSettingsOfItsStartAndItsOwnTrim) {
    const fs::path first = test::copyClip(slides(), dir / "first.mp4");
    const fs::path second = test::copyClip(slides(), dir / "second.mp4");
    ASSERT_TRUE(queue->intake(urlsOf({first}), test::withAction(ActionID::frames())));
    IntakeOptions trimmed = test::withAction(ActionID::frames());
    trimmed.trim = engine::Trim{"3", std::nullopt};
    ASSERT_TRUE(queue->intake(urlsOf({second}), trimmed));
    ASSERT_EQ(queue->items()[0].state.kind, Kind::running);
    ASSERT_EQ(queue->items()[1].state.kind, Kind::waiting);

    // Changed while the first row runs: only the second, which starts later, sees it.
    settings.setFormat(engine::FrameImageFormat::png);
    settings.setMaxSize(80);
    settings.setContactSheet(false);
    settings.setMode(engine::FrameSelectionMode::interval);
    settings.setMaxFrames(4);
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));
    const QueueItem& before = queue->items()[0];
    const QueueItem& after = queue->items()[1];
    ASSERT_EQ(before.state.kind, Kind::done);
    ASSERT_EQ(after.state.kind, Kind::done)
        << (after.state.failure ? after.state.failure->stderrTail : "");

    const engine::FrameManifest defaults = manifestIn(before.state.output);
    EXPECT_EQ(defaults.settings.format, engine::FrameImageFormat::jpeg);
    EXPECT_EQ(defaults.settings.mode, engine::FrameSelectionMode::changes);
    EXPECT_TRUE(defaults.contactSheets.has_value());
    EXPECT_DOUBLE_EQ(defaults.window.start, 0.0);

    const engine::FrameManifest changed = manifestIn(after.state.output);
    EXPECT_EQ(changed.settings.format, engine::FrameImageFormat::png);
    EXPECT_EQ(changed.settings.mode, engine::FrameSelectionMode::interval);
    EXPECT_EQ(changed.settings.maxFrames, 4);
    EXPECT_EQ(changed.settings.maxSize, 80);
    EXPECT_FALSE(changed.contactSheets.has_value());
    EXPECT_DOUBLE_EQ(changed.window.start, 3.0);
    ASSERT_FALSE(changed.frames.empty());
    for (const engine::FrameManifest::Frame& frame : changed.frames) {
        EXPECT_TRUE(frame.file.ends_with(".png")) << frame.file;
        EXPECT_EQ(frame.width, 80);
        EXPECT_GE(frame.time, 3.0 - 1e-6);
        EXPECT_TRUE(fs::is_regular_file(after.state.output / frame.file)) << frame.file;
    }
    EXPECT_EQ(after.trimLabel, "3–end");
    ASSERT_TRUE(after.kind);
    const auto* kind = std::get_if<JobKind::Frames>(&after.kind->value);
    ASSERT_NE(kind, nullptr);
    EXPECT_EQ(kind->options.format, engine::FrameImageFormat::png);
    EXPECT_EQ(kind->options.trim, (engine::Trim{"3", std::nullopt}));
}

TEST_F(FramesQueueTest, CancelMidExportEndsCancelledWithNoFolderLeft) {
    const fs::path source = test::copyClip(longClip(), dir / "long.mp4");
    ASSERT_TRUE(queue->intake(urlsOf({source}), test::withAction(ActionID::frames())));
    ASSERT_TRUE(waitFor([&] { return queue->items()[0].state.progress.value_or(0) > 0; }));
    queue->cancel(queue->items()[0].id);
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));

    const QueueItem& row = queue->items()[0];
    EXPECT_EQ(row.stateLabel(), "Cancelled");
    ASSERT_TRUE(row.state.failure);
    EXPECT_TRUE(row.state.failure->wasCancelled);
    EXPECT_TRUE(notifications.empty());
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"long.mp4"});
}

TEST_F(FramesQueueTest, AFileThatCannotBeReadFailsWithTheExportsSentence) {
    const fs::path broken = dir / "broken.mp4";
    std::ofstream(broken) << "this is not a video";
    const fs::path gone = test::copyClip(slides(), dir / "gone.mp4");

    // What the export alone says of the broken file.
    std::optional<engine::JobFailure> direct;
    {
        test::TempDir elsewhere;
        const fs::path copy = elsewhere / "broken.mp4";
        fs::copy_file(broken, copy);
        engine::FrameExtractionJob job(copy, {}, std::nullopt, *tools);
        try {
            (void)job.run();
        } catch (const engine::JobFailure& failure) {
            direct = failure;
        }
    }
    ASSERT_TRUE(direct);

    // The second file is staged, then goes away before Frames starts it.
    ASSERT_TRUE(queue->intake(urlsOf({broken}), test::withAction(ActionID::frames())));
    ASSERT_TRUE(queue->intake(urlsOf({gone}), {}));
    ASSERT_TRUE(waitFor([this] { return queue->items()[0].isFinished(); }));
    fs::remove(gone);
    queue->setSelectedActionID(ActionID::frames());
    queue->start();
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));

    const QueueItem& unreadable = queue->items()[0];
    EXPECT_EQ(unreadable.stateLabel(), "Failed");
    ASSERT_TRUE(unreadable.state.failure);
    EXPECT_EQ(unreadable.state.failure->step, direct->step);
    EXPECT_EQ(unreadable.state.failure->exitCode, direct->exitCode);
    EXPECT_EQ(unreadable.state.failure->stderrTail, direct->stderrTail);
    EXPECT_TRUE(unreadable.state.failure->stderrTail.starts_with("broken.mp4: "))
        << unreadable.state.failure->stderrTail;

    const QueueItem& missing = queue->items()[1];
    EXPECT_EQ(missing.stateLabel(), "Failed");
    ASSERT_TRUE(missing.state.failure);
    EXPECT_EQ(missing.state.failure->stderrTail,
              "The video can't be read: it is missing or not a regular file.");
    EXPECT_EQ(notifications,
              (std::vector<std::pair<std::string, std::string>>{
                  {"Frame export failed", "broken.mp4"}, {"Frame export failed", "gone.mp4"}}));
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"broken.mp4"});
}

}  // namespace
}  // namespace tessarin::app
