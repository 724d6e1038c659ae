// The session's phases with a capture that writes a ready-made segment per start (the platform
// capture is the one thing replaced): countdown, pause and resume by segments, stop during the
// countdown, a drive that fills up, and a take that can't be saved; the monitors of the recorded
// app and the microphone; discard, restart and quit with their confirmations.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include "engine/recording/RecordingError.hpp"
#include "engine/recording/internal/Posix.hpp"
#include "engine/recording/session/RecordingSession.hpp"
#include "tests/engine/recording/RecordingTestSupport.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;

// Writes the two-second test segment on start, as a real capture writes its file.
class SegmentCapture final : public RecordingCaptureControlling {
public:
    explicit SegmentCapture(RecordingCaptureRequest request,
                            std::chrono::milliseconds stopDelay = {})
        : request_(std::move(request)), stopDelay_(stopDelay) {}
    void start() override { fs::copy_file(test::fragmentedSegment(), request_.url); }
    [[nodiscard]] double stop() override {
        std::this_thread::sleep_for(stopDelay_);
        return 2.0;
    }
    [[nodiscard]] RecordingSize outputSize() const override {
        return request_.outputSize.value_or(RecordingSize{160, 120});
    }
    [[nodiscard]] double runningTime() const override { return 0.5; }
    [[nodiscard]] RecordingAudioLevels levels() const override { return {}; }
    void setOnInterruption(std::function<void(std::optional<std::string>)>) override {}

private:
    RecordingCaptureRequest request_;
    std::chrono::milliseconds stopDelay_;
};

struct Fixture {
    test::RecordingPlace place;
    std::mutex mutex;
    std::vector<RecordingCaptureRequest> requests;  // guarded by mutex
    std::atomic<int64_t> freeBytes{int64_t{8} << 30};
    std::chrono::milliseconds stopDelay{0};  // how long each capture takes to stop

    RecordingSessionOperations operations() {
        RecordingSessionOperations operations;
        operations.captureFactory = [this](RecordingCaptureRequest request) {
            const std::lock_guard lock(mutex);
            requests.push_back(request);
            return std::make_unique<SegmentCapture>(std::move(request), stopDelay);
        };
        RecordingWork work;
        work.tools = *Tools::inBundle(test::helperDirectory());
        operations.finalizeTake = [work](RecordingFiles& files) { return files.finalize(work); };
        operations.sourceAvailability = [](const RecordingTarget&) { return true; };
        operations.microphoneAvailable = [](const std::string&) { return true; };
        operations.storageCheck = [this](const fs::path&) {
            return RecordingStorageStatus::available(freeBytes.load(), 7);
        };
        operations.storageInterval = 100ms;
        operations.recordingRoot = [this] { return place.root; };
        return operations;
    }

    RecordingPreferences preferences(int64_t countdown) const {
        RecordingPreferences preferences;
        preferences.countdown = countdown;
        preferences.destinationPath = place.destination.string();
        return preferences;
    }
};

RecordingTarget display() { return RecordingTarget{}; }

// A quit's answer, delivered once from a session thread.
struct QuitAnswer {
    std::promise<bool> promise;
    std::future<bool> future = promise.get_future();
    std::function<void(bool)> reply() {
        return [this](bool mayQuit) { promise.set_value(mayQuit); };
    }
    bool ready(std::chrono::milliseconds within) {
        return future.wait_for(within) == std::future_status::ready;
    }
};

bool waitForConfirmation(const RecordingSession& session) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (session.snapshot().confirmation != RecordingSession::Confirmation::quit) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

TEST(RecordingSession, CountsDownRecordsPausesBySegmentsAndSaves) {
    Fixture f;
    fs::create_directories(f.place.destination);
    RecordingSession session(f.operations());
    session.start(display(), f.preferences(1));
    ASSERT_TRUE(session.waitFor(RecordingPhase::countdown, 5s));
    EXPECT_EQ(session.snapshot().countdownRemaining, 1);
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s)) << session.snapshot().errorMessage;
    session.pause();
    ASSERT_TRUE(session.waitFor(RecordingPhase::paused, 5s));
    EXPECT_DOUBLE_EQ(session.snapshot().elapsed, 2.0);
    session.resume();
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    EXPECT_DOUBLE_EQ(session.snapshot().elapsed, 2.5);  // a finished segment and the running one
    session.stop();
    ASSERT_TRUE(session.waitFor(RecordingPhase::saved, 30s)) << session.snapshot().errorMessage;

    const RecordingSession::Snapshot done = session.snapshot();
    ASSERT_TRUE(done.savedURL);
    EXPECT_EQ(done.savedURL->parent_path(), f.place.destination);
    EXPECT_THAT(done.savedURL->filename().string(), ::testing::StartsWith("Recording "));
    EXPECT_NEAR(test::videoSeconds(*done.savedURL), 4.0, 0.1);
    EXPECT_DOUBLE_EQ(done.elapsed, 4.0);
    const std::lock_guard lock(f.mutex);
    ASSERT_EQ(f.requests.size(), 2u);
    EXPECT_FALSE(f.requests[0].outputSize);
    // The resumed segment is made at the first one's size, so that they join.
    EXPECT_EQ(f.requests[1].outputSize, (RecordingSize{160, 120}));
    EXPECT_NE(f.requests[0].url, f.requests[1].url);
}

TEST(RecordingSession, StopDuringTheCountdownCancelsBeforeAnythingIsMade) {
    Fixture f;
    fs::create_directories(f.place.destination);
    RecordingSession session(f.operations());
    session.start(display(), f.preferences(10));
    ASSERT_TRUE(session.waitFor(RecordingPhase::countdown, 5s));
    session.stop();
    ASSERT_TRUE(session.waitFor(RecordingPhase::failed, 5s));
    EXPECT_THAT(session.snapshot().errorMessage,
                ::testing::StartsWith("Recording cancelled before capture started. "));
    EXPECT_FALSE(fs::exists(f.place.root) && !fs::is_empty(f.place.root));
    const std::lock_guard lock(f.mutex);
    EXPECT_TRUE(f.requests.empty());
}

TEST(RecordingSession, AFillingDriveStopsTheTakeAndSavesIt) {
    Fixture f;
    fs::create_directories(f.place.destination);
    RecordingSession session(f.operations());
    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s)) << session.snapshot().errorMessage;
    f.freeBytes = 100 << 20;
    ASSERT_TRUE(session.waitFor(RecordingPhase::saved, 30s)) << session.snapshot().errorMessage;
    const RecordingSession::Snapshot done = session.snapshot();
    EXPECT_EQ(done.interruptionMessage, RecordingError(RecordingError::Case::lowDiskSpace).message());
    ASSERT_TRUE(done.savedURL);
    EXPECT_TRUE(fs::is_regular_file(*done.savedURL));

    // And a drive that is already full refuses the next take before it begins.
    session.dismiss();
    ASSERT_TRUE(session.waitFor(RecordingPhase::idle, 5s));
    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::failed, 5s));
    EXPECT_EQ(session.snapshot().errorMessage,
              RecordingError(RecordingError::Case::lowDiskSpace).message());
}

TEST(RecordingSession, SleepStopsTheTakeAndSavesIt) {
    Fixture f;
    fs::create_directories(f.place.destination);
    RecordingSessionOperations operations = f.operations();
    auto announce = std::make_shared<std::function<void()>>();
    operations.watchSleep = [announce](std::function<void()> onSleep) {
        *announce = std::move(onSleep);
        return std::make_shared<int>(0);
    };
    RecordingSession session(std::move(operations));
    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    ASSERT_TRUE(*announce);
    std::thread([announce] { (*announce)(); }).join();  // as from the watcher's own thread
    ASSERT_TRUE(session.waitFor(RecordingPhase::saved, 30s)) << session.snapshot().errorMessage;
    EXPECT_EQ(session.snapshot().interruptionMessage, "The computer is going to sleep.");
    EXPECT_TRUE(session.snapshot().savedURL && fs::is_regular_file(*session.snapshot().savedURL));
}

TEST(RecordingSession, ATakeThatCannotBeSavedIsKeptForRecovery) {
    Fixture f;
    fs::create_directories(f.place.destination);
    RecordingSessionOperations operations = f.operations();
    auto refusals = std::make_shared<std::atomic<int>>(2);
    const auto realFinalize = operations.finalizeTake;
    operations.finalizeTake = [refusals, realFinalize](RecordingFiles& files) {
        if (refusals->fetch_sub(1) > 0) {
            throw RecordingError(RecordingError::Case::destinationUnavailable);
        }
        return realFinalize(files);
    };
    RecordingSession session(std::move(operations));
    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    session.stop();
    ASSERT_TRUE(session.waitFor(RecordingPhase::failed, 30s));
    const RecordingSession::Snapshot failed = session.snapshot();
    EXPECT_EQ(failed.errorMessage,
              RecordingError(RecordingError::Case::destinationUnavailable).message());
    ASSERT_TRUE(failed.recoveryDirectory);
    EXPECT_TRUE(fs::is_regular_file(*failed.recoveryDirectory / "segment-00000.mp4"));
    // Retry saving fails once more and keeps the take again...
    ASSERT_EQ(refusals->load(), 1);
    session.retrySaving();
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!(refusals->load() == 0 && session.snapshot().phase == RecordingPhase::failed) &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_EQ(refusals->load(), 0);
    EXPECT_EQ(session.snapshot().phase, RecordingPhase::failed);
    EXPECT_TRUE(fs::is_directory(*failed.recoveryDirectory));
    // ...and once the session lets it go, the take is what recovery offers.
    session.dismiss();
    ASSERT_TRUE(session.waitFor(RecordingPhase::idle, 5s));
    EXPECT_TRUE(RecordingNamespace::isUnfinishedTake(*failed.recoveryDirectory));
}

TEST(RecordingSession, RetrySavingPublishesATakeThatFailedToSave) {
    Fixture f;
    fs::create_directories(f.place.destination);
    RecordingSessionOperations operations = f.operations();
    auto refusals = std::make_shared<std::atomic<int>>(1);
    const auto realFinalize = operations.finalizeTake;
    operations.finalizeTake = [refusals, realFinalize](RecordingFiles& files) {
        if (refusals->fetch_sub(1) > 0) {
            throw RecordingError(RecordingError::Case::destinationUnavailable);
        }
        return realFinalize(files);
    };
    RecordingSession session(std::move(operations));
    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    session.stop();
    ASSERT_TRUE(session.waitFor(RecordingPhase::failed, 30s));
    const std::optional<fs::path> kept = session.snapshot().recoveryDirectory;
    ASSERT_TRUE(kept);
    session.retrySaving();
    ASSERT_TRUE(session.waitFor(RecordingPhase::saved, 30s)) << session.snapshot().errorMessage;
    const RecordingSession::Snapshot saved = session.snapshot();
    ASSERT_TRUE(saved.savedURL);
    EXPECT_NEAR(test::videoSeconds(*saved.savedURL), 2.0, 0.1);
    EXPECT_FALSE(saved.recoveryDirectory);
    EXPECT_FALSE(fs::exists(*kept));
}

TEST(RecordingSession, DiscardEndsTheTakeAndMovesItToTheTrash) {
    Fixture f;
    fs::create_directories(f.place.destination);
    ::setenv("XDG_DATA_HOME", (f.place.temp / "data").c_str(), 1);  // the Trash
    RecordingSession session(f.operations());
    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    const std::optional<fs::path> take = session.snapshot().takeDirectory;
    ASSERT_TRUE(take && fs::is_directory(*take));
    session.discard();
    ASSERT_TRUE(session.waitFor(RecordingPhase::idle, 10s)) << session.snapshot().errorMessage;
    EXPECT_FALSE(fs::exists(*take));
    EXPECT_TRUE(fs::is_directory(f.place.temp / "data/Trash/files" / take->filename()));
    EXPECT_TRUE(fs::is_empty(f.place.destination));
}

TEST(RecordingSession, TheRecordedAppQuittingOrTheMicrophoneLeavingEndsAndSavesTheTake) {
    Fixture f;
    fs::create_directories(f.place.destination);
    RecordingSessionOperations operations = f.operations();
    auto appRunning = std::make_shared<std::atomic<bool>>(true);
    operations.applicationRunning = [appRunning](int32_t pid) {
        return pid == 4242 && appRunning->load();
    };
    auto microphoneGone = std::make_shared<std::function<void()>>();
    auto watched = std::make_shared<std::string>();
    operations.watchMicrophone = [microphoneGone, watched](const std::string& id,
                                                           std::function<void()> onGone) {
        *watched = id;
        *microphoneGone = std::move(onGone);
        return std::make_shared<int>(0);
    };
    RecordingSession session(std::move(operations));
    RecordingTarget window;
    window.mode = RecordingMode::window;
    window.windowID = 7;
    window.applicationPID = 4242;
    session.start(window, f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    EXPECT_FALSE(*microphoneGone);  // no microphone in this take: nothing watched
    appRunning->store(false);
    ASSERT_TRUE(session.waitFor(RecordingPhase::saved, 30s)) << session.snapshot().errorMessage;
    EXPECT_EQ(session.snapshot().interruptionMessage, "The selected app quit.");
    EXPECT_TRUE(session.snapshot().savedURL && fs::is_regular_file(*session.snapshot().savedURL));

    session.dismiss();
    ASSERT_TRUE(session.waitFor(RecordingPhase::idle, 5s));
    RecordingPreferences withMicrophone = f.preferences(0);
    withMicrophone.microphoneID = "usb_mic";
    session.start(display(), withMicrophone);
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    session.pause();  // a paused take is watched too
    ASSERT_TRUE(session.waitFor(RecordingPhase::paused, 5s));
    ASSERT_TRUE(*microphoneGone);
    EXPECT_EQ(*watched, "usb_mic");
    std::thread(*microphoneGone).join();  // as from the watcher's own thread
    ASSERT_TRUE(session.waitFor(RecordingPhase::saved, 30s)) << session.snapshot().errorMessage;
    EXPECT_EQ(session.snapshot().interruptionMessage,
              "The selected microphone disconnected. Tessarin did not switch to another "
              "microphone.");
    EXPECT_TRUE(session.snapshot().savedURL && fs::is_regular_file(*session.snapshot().savedURL));
}

TEST(RecordingSession, ARecordedProcessCountsAsQuitOnceItExitsEvenBeforeItIsReaped) {
    EXPECT_TRUE(internal::processRunning(getpid()));
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        _exit(0);
    }
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (internal::processRunning(child) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_FALSE(internal::processRunning(child));  // a zombie until reaped below
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_FALSE(internal::processRunning(child));
}

TEST(RecordingSession, RestartAndDiscardWaitForTheirConfirmation) {
    Fixture f;
    fs::create_directories(f.place.destination);
    ::setenv("XDG_DATA_HOME", (f.place.temp / "data").c_str(), 1);  // the Trash
    RecordingSession session(f.operations());
    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    const std::optional<fs::path> first = session.snapshot().takeDirectory;
    ASSERT_TRUE(first);

    session.requestDiscard();
    session.dismissConfirmation();  // changed their mind: nothing happens to the take
    session.requestRestart();
    const auto asked = [&] {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (session.snapshot().confirmation != RecordingSession::Confirmation::restart &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(10ms);
        }
        return session.snapshot().confirmation == RecordingSession::Confirmation::restart;
    };
    ASSERT_TRUE(asked());
    EXPECT_TRUE(fs::is_directory(*first));
    EXPECT_EQ(session.snapshot().phase, RecordingPhase::recording);
    session.confirm();
    // The first take goes to the Trash and a new one of the same target records.
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!(session.snapshot().phase == RecordingPhase::recording &&
             session.snapshot().takeDirectory && session.snapshot().takeDirectory != first) &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
    }
    const RecordingSession::Snapshot second = session.snapshot();
    ASSERT_EQ(second.phase, RecordingPhase::recording) << second.errorMessage;
    ASSERT_TRUE(second.takeDirectory);
    EXPECT_NE(second.takeDirectory, first);
    EXPECT_FALSE(second.confirmation);
    EXPECT_FALSE(fs::exists(*first));
    EXPECT_TRUE(fs::is_directory(f.place.temp / "data/Trash/files" / first->filename()));
    {
        const std::lock_guard lock(f.mutex);
        ASSERT_EQ(f.requests.size(), 2u);
        EXPECT_EQ(f.requests[1].target, display());
    }

    session.requestDiscard();
    session.confirm();
    ASSERT_TRUE(session.waitFor(RecordingPhase::idle, 10s)) << session.snapshot().errorMessage;
    EXPECT_FALSE(fs::exists(*second.takeDirectory));
    EXPECT_TRUE(fs::is_empty(f.place.destination));  // nothing was published
}

TEST(RecordingSession, QuitAsksFirstAndAnswersOnceTheTakeIsSaved) {
    Fixture f;
    fs::create_directories(f.place.destination);
    RecordingSession session(f.operations());
    QuitAnswer idle;
    session.handleQuit(idle.reply());
    ASSERT_TRUE(idle.ready(5s));
    EXPECT_TRUE(idle.future.get());  // nothing running: no question

    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    QuitAnswer kept;
    session.handleQuit(kept.reply());
    ASSERT_TRUE(waitForConfirmation(session));
    EXPECT_FALSE(kept.ready(300ms));  // not before the user answers
    session.dismissConfirmation();  // keep recording
    ASSERT_TRUE(kept.ready(5s));
    EXPECT_FALSE(kept.future.get());
    EXPECT_EQ(session.snapshot().phase, RecordingPhase::recording);
    EXPECT_FALSE(session.snapshot().confirmation);

    QuitAnswer saved;
    session.handleQuit(saved.reply());
    ASSERT_TRUE(waitForConfirmation(session));
    session.confirm();  // stop, save and quit
    ASSERT_TRUE(saved.ready(30s));
    EXPECT_TRUE(saved.future.get());
    const RecordingSession::Snapshot done = session.snapshot();
    EXPECT_EQ(done.phase, RecordingPhase::saved) << done.errorMessage;
    ASSERT_TRUE(done.savedURL);
    EXPECT_TRUE(fs::is_regular_file(*done.savedURL));
}

TEST(RecordingSession, AQuitWhoseTakeOutlastsTheWaitLeavesTheApplicationUp) {
    Fixture f;
    fs::create_directories(f.place.destination);
    f.stopDelay = 1500ms;
    RecordingSession session(f.operations());
    session.start(display(), f.preferences(0));
    ASSERT_TRUE(session.waitFor(RecordingPhase::recording, 5s));
    QuitAnswer answer;
    session.handleQuit(answer.reply(), 200ms);
    ASSERT_TRUE(waitForConfirmation(session));
    session.confirm();
    ASSERT_TRUE(answer.ready(5s));
    EXPECT_FALSE(answer.future.get());
    // The take still ends saved; only the quit gave up waiting for it.
    ASSERT_TRUE(session.waitFor(RecordingPhase::saved, 30s)) << session.snapshot().errorMessage;
}

}  // namespace
}  // namespace tessarin::engine
