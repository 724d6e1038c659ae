// Intake through the queue's public interface with real files: the hard limits, duplicates,
// confirmation of large batches, folder scans and their supersession.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "app/queue/QueueModel.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace {

// Every lstat of the process comes through here, so a test can see whether intake looked at
// a path at all.
std::atomic<int> watchedLstats{0};
std::mutex watchedPrefixMutex;
std::string watchedPrefix;

}  // namespace

extern "C" int lstat(const char* __restrict path, struct stat* __restrict status) noexcept {
    {
        std::lock_guard lock(watchedPrefixMutex);
        if (!watchedPrefix.empty() &&
            std::strncmp(path, watchedPrefix.c_str(), watchedPrefix.size()) == 0) {
            ++watchedLstats;
        }
    }
    return ::fstatat(AT_FDCWD, path, status, AT_SYMLINK_NOFOLLOW);
}

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using test::countIn;
using test::emptyVideos;
using test::urlsOf;
using test::waitFor;
using Kind = QueueItem::StateKind;

class QueueIntakeTest : public ::testing::Test {
protected:
    void SetUp() override { test::ensureCoreApplication(); }

    // A queue whose jobs never run: nothing selected, so every batch is staged.
    std::unique_ptr<QueueModel> makeQueue() {
        auto queue = std::make_unique<QueueModel>(engine::Tools{
            "/nonexistent/ffmpeg", "/nonexistent/ffprobe", "/nonexistent/gifsicle", {}});
        queue->transcriptionPrerequisites = [] {
            return TranscriptionPrerequisites{true, true, true, false, false};
        };
        return queue;
    }

    test::TempDir dir;
};

TEST_F(QueueIntakeTest, OverTheEntryLimitAddsNothingAndTouchesNoFile) {
    auto queue = makeQueue();
    const std::vector<fs::path> videos = emptyVideos(dir / "in", 1);
    QList<QUrl> urls;
    for (int i = 0; i < 30'001; ++i) {
        urls.push_back(QUrl::fromLocalFile(QString::fromStdString(videos[0].string())));
    }
    {
        std::lock_guard lock(watchedPrefixMutex);
        watchedPrefix = dir.path().string();
    }
    watchedLstats = 0;
    EXPECT_FALSE(queue->intake(urls, {}));
    EXPECT_EQ(watchedLstats.load(), 0);
    EXPECT_TRUE(queue->items().empty());
    EXPECT_EQ(queue->intakeNotice(),
              "This batch has more than 30,000 file and folder entries. No videos from this "
              "batch were added. Select fewer files or smaller folders and try again.");

    // The same file alone is looked at, so the watch above could have seen it.
    urls.resize(1);
    EXPECT_TRUE(queue->intake(urls, {}));
    EXPECT_GT(watchedLstats.load(), 0);
    {
        std::lock_guard lock(watchedPrefixMutex);
        watchedPrefix.clear();
    }
    EXPECT_EQ(queue->items().size(), 1U);
}

TEST_F(QueueIntakeTest, DirectVideoLimitIsAThousand) {
    auto queue = makeQueue();
    std::vector<fs::path> videos = emptyVideos(dir / "in", 1'001);
    EXPECT_FALSE(queue->intake(urlsOf(videos), {}));
    EXPECT_TRUE(queue->items().empty());
    EXPECT_FALSE(queue->pendingIntake());
    EXPECT_EQ(queue->intakeNotice(),
              "This batch has more than 1,000 video paths. No videos from this batch were added. "
              "Select fewer files or smaller folders and try again.");

    videos.pop_back();
    EXPECT_TRUE(queue->intake(urlsOf(videos), {}));
    ASSERT_TRUE(queue->pendingIntake());
    EXPECT_EQ(queue->pendingIntake()->title(), "Add 1000 Videos");
    queue->confirmPendingIntake();
    EXPECT_EQ(countIn(*queue, Kind::needsPreset), 1'000U);
    EXPECT_EQ(queue->items().front().stateLabel(), "Waiting for an action");
}

TEST_F(QueueIntakeTest, FolderWalksSpendWhatTheBatchLeftOfBothLimits) {
    auto queue = makeQueue();
    (void)emptyVideos(dir / "folder", 20);
    QList<QUrl> urls;
    // Entries that aren't files still count against the batch's entry budget.
    for (int i = 0; i < 29'990; ++i) {
        urls.push_back(QUrl("https://example.invalid/" + QString::number(i)));
    }
    urls.push_back(QUrl::fromLocalFile(QString::fromStdString((dir / "folder").string())));
    ASSERT_TRUE(queue->intake(urls, {}));
    ASSERT_TRUE(waitFor([&] { return !queue->isScanning(); }));
    EXPECT_TRUE(queue->items().empty());
    EXPECT_NE(queue->intakeNotice()->find("more than 30,000 file and folder entries"),
              std::string::npos);
    queue->dismissNotice();

    std::vector<fs::path> direct = emptyVideos(dir / "direct", 990);
    QList<QUrl> mixed = urlsOf(direct);
    mixed.push_back(QUrl::fromLocalFile(QString::fromStdString((dir / "folder").string())));
    ASSERT_TRUE(queue->intake(mixed, {}));
    ASSERT_TRUE(waitFor([&] { return !queue->isScanning(); }));
    EXPECT_TRUE(queue->items().empty());
    EXPECT_NE(queue->intakeNotice()->find("more than 1,000 video paths"), std::string::npos);
}

TEST_F(QueueIntakeTest, FolderWalkSkipsHiddenEntriesAndDoesNotFollowFolderLinks) {
    auto queue = makeQueue();
    (void)emptyVideos(dir / "tree" / "b", 2, "b");
    (void)emptyVideos(dir / "tree" / "a", 1, "a");
    (void)emptyVideos(dir / "tree" / ".hidden", 3);
    std::ofstream(dir / "tree" / ".secret.mp4").put('x');
    std::ofstream(dir / "tree" / "notes.txt").put('x');
    // A loop: the walk must neither hang nor take the videos twice.
    fs::create_directory_symlink(dir / "tree", dir / "tree" / "a" / "loop");

    ASSERT_TRUE(
        queue->intake({QUrl::fromLocalFile(QString::fromStdString((dir / "tree").string()))}, {}));
    ASSERT_TRUE(waitFor([&] { return !queue->isScanning(); }));
    std::vector<std::string> names;
    for (const QueueItem& item : queue->items()) {
        names.push_back(item.source.lexically_relative(dir.path()).string());
    }
    EXPECT_EQ(names,
              (std::vector<std::string>{"tree/a/a-0.mp4", "tree/b/b-0.mp4", "tree/b/b-1.mp4"}));

    fs::create_directory(dir / "empty");
    ASSERT_TRUE(
        queue->intake({QUrl::fromLocalFile(QString::fromStdString((dir / "empty").string()))}, {}));
    ASSERT_TRUE(waitFor([&] { return !queue->isScanning(); }));
    EXPECT_EQ(queue->intakeNotice(),
              "No videos found in the dropped folder. Videos inside Photos libraries and app "
              "bundles are skipped.");
}

TEST_F(QueueIntakeTest, OneFileUnderTwoNamesIsOneItem) {
    auto queue = makeQueue();
    const fs::path video = emptyVideos(dir / "in", 1)[0];
    fs::create_hard_link(video, dir / "in" / "twin.mp4");
    fs::create_symlink(video, dir / "in" / "link.mp4");

    EXPECT_TRUE(queue->intake(urlsOf({video, dir / "in" / "twin.mp4"}), {}));
    EXPECT_EQ(queue->items().size(), 1U);

    EXPECT_FALSE(queue->intake(urlsOf({dir / "in" / "link.mp4"}), {}));
    EXPECT_EQ(queue->items().size(), 1U);
    EXPECT_EQ(queue->intakeNotice(), "That video is already in the queue.");

    EXPECT_FALSE(queue->intake(urlsOf({video, dir / "in" / "twin.mp4"}), {}));
    EXPECT_EQ(queue->intakeNotice(),
              "That video is already in the queue.\nThose 2 videos are already in the queue.");
}

TEST_F(QueueIntakeTest, SameFileMayWaitUnderASecondActionButNotTheSameOneTwice) {
    auto queue = makeQueue();
    const fs::path video = emptyVideos(dir / "in", 1)[0];
    const IntakeOptions h264 = test::withAction(ActionID::preset("mp4-h264"));
    const IntakeOptions gif = test::withAction(ActionID::preset("gif-small"));
    // The first item runs (and fails on the missing tools) only once the event loop turns, so
    // it is running or waiting throughout.
    EXPECT_TRUE(queue->intake(urlsOf({video}), h264));
    EXPECT_TRUE(queue->intake(urlsOf({video}), gif));
    EXPECT_FALSE(queue->intake(urlsOf({video}), h264));
    EXPECT_EQ(queue->items().size(), 2U);

    // A finished row never blocks the file.
    ASSERT_TRUE(waitFor([&] { return countIn(*queue, Kind::failed) == 2; }));
    EXPECT_TRUE(queue->intake(urlsOf({video}), h264));
    EXPECT_EQ(queue->items().size(), 3U);
}

TEST_F(QueueIntakeTest, LargeBatchesAskFirstAndASecondOneReplacesTheFirst) {
    auto queue = makeQueue();
    const std::vector<fs::path> six = emptyVideos(dir / "t", 6, "t");
    const IntakeOptions transcribe = test::withAction(ActionID::transcribe());
    EXPECT_TRUE(queue->intake(urlsOf({six.begin(), six.begin() + 5}), transcribe));
    EXPECT_EQ(queue->items().size(), 5U);
    EXPECT_FALSE(queue->pendingIntake());
    queue->prepareForQuit();

    auto second = makeQueue();
    EXPECT_TRUE(second->intake(urlsOf(six), transcribe));
    EXPECT_TRUE(second->items().empty());
    ASSERT_TRUE(second->pendingIntake());
    EXPECT_EQ(second->pendingIntake()->title(), "Transcribe 6 Videos");
    EXPECT_EQ(second->pendingIntake()->message(),
              "6 videos selected. Each one is uploaded to the transcription provider configured "
              "in Settings ▸ Transcription, which uses your credit. Transcribe all?");

    std::vector<fs::path> many = emptyVideos(dir / "c", 502, "c");
    const IntakeOptions h264 = test::withAction(ActionID::preset("mp4-h264"));
    auto third = makeQueue();
    EXPECT_TRUE(third->intake(urlsOf({many.begin(), many.begin() + 500}), h264));
    EXPECT_EQ(third->items().size(), 500U);
    EXPECT_FALSE(third->pendingIntake());

    // 502 with one already staged: 501 left and one duplicate.
    auto fourth = makeQueue();
    EXPECT_TRUE(fourth->intake(urlsOf({many[0]}), {}));
    EXPECT_TRUE(fourth->intake(urlsOf(many), {}));
    ASSERT_TRUE(fourth->pendingIntake());
    EXPECT_EQ(fourth->pendingIntake()->message(),
              "501 videos found (1 duplicate skipped). Add all to the queue?");
    many.push_back(emptyVideos(dir / "d", 1, "d")[0]);
    EXPECT_TRUE(fourth->intake(urlsOf(many), {}));
    EXPECT_EQ(fourth->intakeNotice(),
              "Another batch replaced the pending confirmation for 501 videos. Select those "
              "files or folders again to add them.");
    EXPECT_EQ(fourth->pendingIntake()->identified.size(), 502U);
    fourth->dismissPendingIntake();
    EXPECT_EQ(fourth->items().size(), 1U);
}

TEST_F(QueueIntakeTest, ASecondFolderSupersedesARunningScan) {
    auto queue = makeQueue();
    (void)emptyVideos(dir / "first", 1, "first");
    (void)emptyVideos(dir / "second", 1, "second");

    std::mutex mutex;
    std::condition_variable released;
    bool release = false;
    queue->folderWalker = [&](const std::vector<fs::path>& folders, std::size_t entries,
                              std::size_t videos, const CancellationFlag& cancel) {
        if (folders.front().filename() == "first") {
            std::unique_lock lock(mutex);
            released.wait(lock, [&] { return release; });
            // A late answer that ignores the cancellation must still be dropped.
            return walkFolders(folders, entries, videos, CancellationFlag{});
        }
        return walkFolders(folders, entries, videos, cancel);
    };
    std::vector<std::pair<QueueModel::FolderResultDeliveryEvent, uint64_t>> events;
    std::mutex eventsMutex;
    queue->folderResultDeliveryObserver = [&](QueueModel::FolderResultDeliveryEvent event,
                                              uint64_t generation) {
        std::lock_guard lock(eventsMutex);
        events.emplace_back(event, generation);
    };

    ASSERT_TRUE(queue->intake(urlsOf({dir / "first"}), {}));
    ASSERT_TRUE(queue->intake(urlsOf({dir / "second"}), {}));
    EXPECT_EQ(queue->intakeNotice(),
              "Still scanning first when a new folder was dropped, so the earlier batch was "
              "skipped. Drop its files and folders again to add them.");
    ASSERT_TRUE(waitFor([&] { return queue->items().size() == 1; }));
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    released.notify_all();
    ASSERT_TRUE(queue->waitForBackgroundWork(std::chrono::seconds(10)));
    ASSERT_TRUE(waitFor([&] {
        std::lock_guard lock(eventsMutex);
        return events.size() == 4;
    }));
    ASSERT_EQ(queue->items().size(), 1U);
    EXPECT_EQ(queue->items()[0].source.filename(), "second-0.mp4");
    EXPECT_EQ(events.back(),
              std::make_pair(QueueModel::FolderResultDeliveryEvent::afterMainActor, uint64_t{1}));
}

TEST_F(QueueIntakeTest, ActionResolutionAndStagedStart) {
    auto queue = makeQueue();
    const std::vector<fs::path> videos = emptyVideos(dir / "in", 3);

    // Nothing selected: staged, and a start request says what to do.
    EXPECT_TRUE(queue->intake(urlsOf({videos[0]}), test::startRequested()));
    EXPECT_EQ(queue->intakeNotice(), "Choose an action above, then click Convert.");
    queue->dismissNotice();
    queue->start();
    EXPECT_EQ(queue->intakeNotice(), "Choose an action above, then click Convert.");

    // An external intake never inherits a selected transcription.
    queue->setSelectedActionID(ActionID::transcribe());
    EXPECT_TRUE(queue->intake(urlsOf({videos[1]}), test::external()));
    EXPECT_EQ(countIn(*queue, Kind::needsPreset), 2U);

    // HEVC without an encoder source is refused whole.
    EXPECT_FALSE(
        queue->intake(urlsOf({videos[2]}), test::withAction(ActionID::preset("mp4-h265"))));
    EXPECT_NE(queue->intakeNotice()->find(
                  "HEVC is not available in this build. Choose H.264, AV1, VP9, or GIF."),
              std::string::npos);

    // Convert assigns the selected action and its valid batch trim to the staged rows.
    queue->setSelectedActionID(ActionID::preset("gif-small"));
    queue->setTrim("1:75", "2");
    EXPECT_EQ(queue->trimValidationText(),
              "Not a time — use SS, MM:SS, or HH:MM:SS (ignored until fixed)");
    queue->setTrim("3", "2");
    EXPECT_EQ(queue->trimValidationText(), "Trim start must be before end (ignored until fixed)");
    queue->setTrim("0:01.5", "");
    EXPECT_EQ(queue->trimValidationText(), std::nullopt);
    queue->start();
    EXPECT_EQ(countIn(*queue, Kind::needsPreset), 0U);
    for (const QueueItem& item : queue->items()) {
        ASSERT_TRUE(item.kind);
        ASSERT_NE(item.kind->preset(), nullptr);
        EXPECT_EQ(item.kind->preset()->id, "gif-small");
        EXPECT_EQ(item.kind->preset()->options.trim.start, "0:01.5");
    }
}

TEST_F(QueueIntakeTest, TranscriptionPrerequisitesRefuseInOrder) {
    auto queue = makeQueue();
    const std::vector<fs::path> videos = emptyVideos(dir / "in", 1);
    TranscriptionPrerequisites prerequisites{true, false, false, true, false};
    queue->transcriptionPrerequisites = [&] { return prerequisites; };
    const IntakeOptions transcribe = test::withAction(ActionID::transcribe());

    EXPECT_FALSE(queue->intake(urlsOf(videos), transcribe));
    EXPECT_EQ(queue->intakeNotice(),
              "Transcription isn’t set up yet. Add an OpenRouter API key "
              "in Settings ▸ Transcription.");
    queue->dismissNotice();
    prerequisites.hasAPIKey = true;
    EXPECT_FALSE(queue->intake(urlsOf(videos), transcribe));
    EXPECT_EQ(queue->intakeNotice(),
              "That model uploads the whole video, which needs its own approval. Open Settings ▸ "
              "Transcription to review the video-upload notice.");
    queue->dismissNotice();
    prerequisites.hasUsableModel = false;
    EXPECT_FALSE(queue->intake(urlsOf(videos), transcribe));
    EXPECT_EQ(queue->intakeNotice(),
              "Review your transcription model in Settings ▸ Transcription. Choose a replacement "
              "or refresh the model list.");
    EXPECT_TRUE(queue->items().empty());
}

TEST_F(QueueIntakeTest, NoToolsOrShuttingDownTakesNothing) {
    test::ensureCoreApplication();
    QueueModel withoutTools(std::nullopt);
    const std::vector<fs::path> videos = emptyVideos(dir / "in", 2);
    EXPECT_FALSE(withoutTools.intake(urlsOf(videos), {}));
    EXPECT_TRUE(withoutTools.items().empty());

    auto queue = makeQueue();
    EXPECT_TRUE(queue->intake(urlsOf({videos[0]}), {}));
    queue->prepareForQuit();
    EXPECT_TRUE(queue->items().empty());
    EXPECT_FALSE(queue->intake(urlsOf({videos[1]}), {}));
}

}  // namespace
}  // namespace tessarin::app
