// Jobs through the queue with the real tools on generated clips: order, failures, cancel, quit,
// destinations and notifications.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "app/destinations/OutputDestination.hpp"
#include "app/destinations/OutputDestinationTexts.hpp"
#include "app/queue/QueueJob.hpp"
#include "app/queue/QueueModel.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using test::countIn;
using test::urlsOf;
using test::waitFor;
using Kind = QueueItem::StateKind;

// Twenty seconds of 640x480: long enough to be cancelled mid-encode.
fs::path longClip() {
    return test::makeClip("queue-long.mp4",
                          {"-f", "lavfi", "-i", "testsrc2=size=640x480:rate=30:duration=20", "-c:v",
                           "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
}

std::vector<fs::path> filesIn(const fs::path& folder) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        files.push_back(entry.path().lexically_relative(folder));
    }
    std::sort(files.begin(), files.end());
    return files;
}

class QueueRunTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::ensureCoreApplication();
        auto tools = engine::Tools::inBundle(test::helperDirectory());
        ASSERT_TRUE(tools);
        queue = std::make_unique<QueueModel>(*tools);
        queue->isApplicationActive = [] { return false; };
        queue->postNotification = [this](const std::string& title, const std::string& body) {
            notifications.emplace_back(title, body);
        };
        queue->recordEngineError = [this](const std::string& text) { errors.push_back(text); };
        // No job may ever run beside another.
        QObject::connect(queue.get(), &QueueModel::itemsChanged, [this] {
            maxRunning = std::max(maxRunning, countIn(*queue, Kind::running));
            for (const QueueItem& item : queue->items()) {
                if (item.state.kind == Kind::running &&
                    (startOrder.empty() || startOrder.back() != item.source.filename())) {
                    startOrder.push_back(item.source.filename());
                }
            }
        });
    }

    void TearDown() override {
        queue.reset();
        // Nothing of a job's work may stay behind in the sources' folders.
        for (const auto& entry : fs::recursive_directory_iterator(dir.path())) {
            EXPECT_EQ(entry.path().filename().string().rfind(".tessarin-", 0), std::string::npos)
                << entry.path();
            EXPECT_EQ(entry.path().filename().string().rfind(".converting-", 0), std::string::npos)
                << entry.path();
        }
    }

    bool allFinished() const {
        return std::all_of(queue->items().begin(), queue->items().end(),
                           [](const QueueItem& item) { return item.isFinished(); });
    }

    test::TempDir dir;
    std::unique_ptr<QueueModel> queue;
    std::vector<std::pair<std::string, std::string>> notifications;
    std::vector<std::string> errors;
    std::size_t maxRunning = 0;
    std::vector<fs::path> startOrder;
};

TEST_F(QueueRunTest, JobsRunOneAtATimeInOrderAndAFailureDoesNotStopTheQueue) {
    const fs::path a = test::copyClip(test::testClip(test::TestClip::h264Aac), dir / "a.mp4");
    const fs::path broken = dir / "b.mp4";
    std::ofstream(broken) << "this is not a video";
    const fs::path c = test::copyClip(test::testClip(test::TestClip::h264NoAudio), dir / "c.mp4");

    ASSERT_TRUE(
        queue->intake(urlsOf({a, broken, c}), test::withAction(ActionID::preset("mp4-h264"))));
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));

    EXPECT_EQ(maxRunning, 1U);
    EXPECT_EQ(startOrder, (std::vector<fs::path>{"a.mp4", "b.mp4", "c.mp4"}));
    const auto& items = queue->items();
    ASSERT_EQ(items.size(), 3U);
    EXPECT_EQ(items[0].state.kind, Kind::done);
    EXPECT_EQ(items[0].stateLabel(), "Converted");
    EXPECT_EQ(items[0].state.output, dir / "a-h264_crf33.mp4");
    EXPECT_TRUE(fs::exists(items[0].state.output));
    EXPECT_EQ(items[0].outputBytes, static_cast<int64_t>(fs::file_size(items[0].state.output)));
    EXPECT_GT(items[0].sourceDurationSeconds.value_or(0), 0.5);
    EXPECT_EQ(items[1].state.kind, Kind::failed);
    EXPECT_EQ(items[1].stateLabel(), "Failed");
    ASSERT_TRUE(items[1].state.failure);
    EXPECT_FALSE(items[1].state.failure->wasCancelled);
    EXPECT_FALSE(items[1].state.failure->stderrTail.empty());
    EXPECT_EQ(items[2].state.kind, Kind::done);

    // Finished rows go with Clear Finished; notifications named the files only.
    EXPECT_EQ(notifications,
              (std::vector<std::pair<std::string, std::string>>{{"Conversion finished", "a.mp4"},
                                                                {"Conversion failed", "b.mp4"},
                                                                {"Conversion finished", "c.mp4"}}));
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(errors[0].find(dir.path().string()), std::string::npos) << errors[0];
    queue->clearFinished();
    EXPECT_TRUE(queue->items().empty());
}

TEST_F(QueueRunTest, CancelOfARunningRowEndsCancelledWithNothingLeft) {
    const fs::path source = test::copyClip(longClip(), dir / "long.mp4");
    ASSERT_TRUE(queue->intake(urlsOf({source}), test::withAction(ActionID::preset("mp4-h264"))));
    ASSERT_TRUE(waitFor([&] { return queue->items()[0].state.progress.value_or(0) > 0; }));
    queue->cancel(queue->items()[0].id);
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));
    const QueueItem& item = queue->items()[0];
    EXPECT_EQ(item.stateLabel(), "Cancelled");
    ASSERT_TRUE(item.state.failure);
    EXPECT_TRUE(item.state.failure->wasCancelled);
    EXPECT_TRUE(notifications.empty());
    EXPECT_TRUE(errors.empty());
    EXPECT_EQ(filesIn(dir.path()), (std::vector<fs::path>{"long.mp4"}));
}

TEST_F(QueueRunTest, QuitCancelsTheRunningJobAndDropsWaitingRows) {
    const fs::path first = test::copyClip(longClip(), dir / "first.mp4");
    const fs::path second = test::copyClip(test::testClip(test::TestClip::h264Aac), dir / "s.mp4");
    ASSERT_TRUE(
        queue->intake(urlsOf({first, second}), test::withAction(ActionID::preset("mp4-h264"))));
    ASSERT_TRUE(queue->intake(urlsOf({second}), {}));
    EXPECT_TRUE(queue->hasUnfinishedWork());
    ASSERT_TRUE(waitFor([&] { return queue->items()[0].state.kind == Kind::running; }));

    queue->prepareForQuit();
    ASSERT_EQ(queue->items().size(), 1U);
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));
    EXPECT_EQ(queue->items()[0].stateLabel(), "Cancelled");
    EXPECT_FALSE(queue->hasUnfinishedWork());
    EXPECT_EQ(filesIn(dir.path()), (std::vector<fs::path>{"first.mp4", "s.mp4"}));
}

TEST_F(QueueRunTest, AnUnusableCustomFolderFailsTheRowAtItsStartNotAtIntake) {
    const fs::path a = test::copyClip(test::testClip(test::TestClip::h264Aac), dir / "a.mp4");
    const fs::path b = test::copyClip(test::testClip(test::TestClip::h264Aac), dir / "b.mp4");
    test::ConfigHome home;
    OutputDestination destinations(test::openStore(home.standardFile()));
    queue->destinationResolver = destinations.destinationResolver();

    // Custom folder mode with no folder chosen yet.
    destinations.setMode(OutputMode::customFolder);
    ASSERT_TRUE(queue->intake(urlsOf({a}), {}));
    EXPECT_EQ(queue->items()[0].state.kind, Kind::needsPreset);
    // A chosen folder that is gone by the time the file starts.
    fs::create_directory(dir / "out");
    ASSERT_EQ(destinations.chooseFolder(dir / "out"), std::nullopt);
    fs::remove(dir / "out");
    ASSERT_TRUE(queue->intake(urlsOf({b}), {}));
    EXPECT_EQ(queue->items()[1].state.kind, Kind::needsPreset);

    queue->setSelectedActionID(ActionID::preset("mp4-h264"));
    queue->start();
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));
    ASSERT_TRUE(queue->items()[0].state.failure);
    EXPECT_EQ(queue->items()[0].state.failure->stderrTail, kNoOutputFolderSentence);
    ASSERT_TRUE(queue->items()[1].state.failure);
    EXPECT_EQ(queue->items()[1].state.failure->stderrTail, kOutputFolderUnavailableSentence);
    EXPECT_EQ(queue->items()[1].stateLabel(), "Failed");
}

TEST_F(QueueRunTest, SameNamedSourcesFromTwoFoldersLandFlattenedWithASuffix) {
    const fs::path clip = test::testClip(test::TestClip::h264Aac);
    (void)test::copyClip(clip, dir / "drop" / "one" / "clip.mp4");
    (void)test::copyClip(clip, dir / "drop" / "two" / "clip.mp4");
    fs::create_directory(dir / "out");
    queue->destinationResolver = [&](const std::optional<fs::path>&) {
        return OutputDestination::Resolution::inFolder(dir / "out");
    };
    ASSERT_TRUE(queue->intake(urlsOf({dir / "drop"}), test::withAction(ActionID::extractAudio())));
    ASSERT_TRUE(waitFor([&] { return queue->items().size() == 2 && allFinished(); }));
    EXPECT_EQ(queue->items()[0].stateLabel(), "Extracted");
    EXPECT_EQ(filesIn(dir / "out"), (std::vector<fs::path>{"clip-audio-2.m4a", "clip-audio.m4a"}));
}

// A job of another kind that ends at once with `output`.
class FinishedJob final : public QueueJob {
public:
    explicit FinishedJob(fs::path output) : output_(std::move(output)) {}
    fs::path run(const Callbacks&) override { return output_; }
    void cancel() override {}

private:
    fs::path output_;
};

TEST_F(QueueRunTest, OtherKindsOfJobComeFromTheirFactoryOrFailTheRowAtItsStart) {
    const std::vector<fs::path> videos = test::emptyVideos(dir.path(), 2);
    std::vector<fs::path> framesMadeFor;
    queue->framesJobFactory = [&](const QueueItem& item) {
        framesMadeFor.push_back(item.source);
        return std::make_shared<FinishedJob>(dir / "v-0-frames");
    };
    // Transcription may be chosen, but nothing makes its jobs.
    queue->transcriptionPrerequisites = [] {
        return TranscriptionPrerequisites{true, true, true, false, false};
    };
    ASSERT_TRUE(queue->intake(urlsOf({videos[0]}), test::withAction(ActionID::frames())));
    ASSERT_TRUE(queue->intake(urlsOf({videos[1]}), test::withAction(ActionID::transcribe())));
    ASSERT_TRUE(waitFor([this] { return allFinished(); }));

    EXPECT_EQ(framesMadeFor, std::vector<fs::path>{videos[0]});
    const auto& items = queue->items();
    ASSERT_EQ(items.size(), 2U);
    EXPECT_EQ(items[0].stateLabel(), "Frames exported");
    EXPECT_EQ(items[0].state.output, dir / "v-0-frames");
    ASSERT_TRUE(items[1].state.failure);
    EXPECT_EQ(items[1].state.failure->step, "start");
    EXPECT_EQ(items[1].state.failure->stderrTail,
              "This action is not available in this version of Tessarin. Nothing was saved; "
              "choose another action for this file.");
    ASSERT_EQ(notifications.size(), 2U);
    EXPECT_EQ(notifications[1].first, "Transcription failed");
    EXPECT_EQ(notifications[1].second, "v-1.mp4");
}

}  // namespace
}  // namespace tessarin::app
