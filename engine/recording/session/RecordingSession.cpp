#include "engine/recording/session/RecordingSession.hpp"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>

#include "engine/log/Log.hpp"
#include "engine/recording/RecordingError.hpp"

namespace tessarin::engine {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const Logger& sessionLog() {
    static const Logger logger("com.tessarin.recording", "session");
    return logger;
}

// "Recording 2026-11-25T093012.mp4", local time.
std::string takeFileName() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return fmt::format("Recording {:%Y-%m-%dT%H%M%S}.mp4", local);
}

}  // namespace

RecordingSession::RecordingSession(RecordingSessionOperations operations, Listener listener)
    : operations_(std::move(operations)), listener_(std::move(listener)) {
    queue_ = std::make_unique<SerialQueue>("com.tessarin.recording.session");
    monitor_ = std::thread([this] { monitor(); });
    if (operations_.watchSleep) {
        sleepWatch_ = operations_.watchSleep([this] {
            uint64_t attempt = 0;
            {
                const std::lock_guard lock(mutex_);
                attempt = sessionID_;
            }
            queue_->post([this, attempt] { interrupt(kGoingToSleepSentence, attempt); });
        });
    }
}

RecordingSession::~RecordingSession() {
    sleepWatch_.reset();  // no more posts from the watcher's thread
    stop();
    (void)waitUntilSettled(std::chrono::minutes(1));
    queue_->post([this] { microphoneWatch_.reset(); });
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    monitor_.join();
    queue_.reset();  // runs what is queued, then joins
    if (quitWatcher_.joinable()) {
        quitWatcher_.join();
    }
}

void RecordingSession::select() {
    queue_->post([this] {
        const RecordingPhase phase = snapshot().phase;
        if (phase == RecordingPhase::idle) {
            setPhase(RecordingPhase::selecting);
        }
    });
}

void RecordingSession::start(RecordingTarget target, RecordingPreferences preferences) {
    uint64_t attempt = 0;
    {
        const std::lock_guard lock(mutex_);
        attempt = ++sessionID_;
    }
    queue_->post([this, target = std::move(target), preferences = std::move(preferences), attempt] {
        doStart(target, preferences, attempt);
    });
}

void RecordingSession::pause() { queue_->post([this] { doPause(); }); }
void RecordingSession::resume() { queue_->post([this] { doResume(); }); }
void RecordingSession::stop() { queue_->post([this] { doStop(std::nullopt); }); }

void RecordingSession::discard() { queue_->post([this] { doDiscard(); }); }

void RecordingSession::retrySaving() {
    queue_->post([this] {
        if (snapshot().phase != RecordingPhase::failed || !files_) {
            return;
        }
        {
            const std::lock_guard lock(mutex_);
            state_.errorMessage.clear();
            state_.needsStopRetry = false;
        }
        setPhase(RecordingPhase::finishing);
        finalize({});
    });
}

void RecordingSession::finalize(const std::string& captureFailure) {
    try {
        const RecordingFiles::Finalized done = operations_.finalizeTake(*files_);
        {
            const std::lock_guard lock(mutex_);
            state_.savedURL = done.published;
            state_.takeDirectory.reset();
            state_.elapsed = completedDuration_;
            state_.errorMessage = captureFailure;
            state_.recoveryDirectory.reset();
        }
        files_.reset();
        setPhase(RecordingPhase::saved);
    } catch (const RecordingError& error) {
        fail(error.message());
    } catch (const std::exception& error) {
        fail(captureFailure.empty() ? std::string(error.what()) : captureFailure);
    }
}

void RecordingSession::doDiscard() {
    const Snapshot now = snapshot();
    if (now.phase == RecordingPhase::countdown) {
        {
            const std::lock_guard lock(mutex_);
            ++sessionID_;  // the countdown's ticks are stale now
            state_ = Snapshot{};
        }
        setPhase(RecordingPhase::idle);
        return;
    }
    if (now.phase != RecordingPhase::recording && now.phase != RecordingPhase::paused) {
        return;
    }
    const std::shared_ptr<RecordingCaptureControlling> capture = beginFinishing();
    if (capture) {
        try {
            (void)capture->stop();
        } catch (const std::exception&) {
            // The take is being thrown away: what the writer said no longer matters.
        }
    }
    try {
        files_->trash();
    } catch (const RecordingError& error) {
        fail(error.message());
        return;
    }
    files_.reset();
    {
        const std::lock_guard lock(mutex_);
        state_ = Snapshot{};
    }
    setPhase(RecordingPhase::idle);
}

void RecordingSession::dismiss() {
    queue_->post([this] {
        const RecordingPhase phase = snapshot().phase;
        if (phase == RecordingPhase::saved || phase == RecordingPhase::failed) {
            files_.reset();  // lets go of a kept take's lease, so recovery can have it
            {
                const std::lock_guard lock(mutex_);
                state_.errorMessage.clear();
                state_.interruptionMessage.clear();
            }
            setPhase(RecordingPhase::idle);
        }
    });
}

RecordingSession::Snapshot RecordingSession::snapshot() const {
    Snapshot copy;
    std::shared_ptr<RecordingCaptureControlling> capture;
    double completed = 0;
    {
        const std::lock_guard lock(mutex_);
        copy = state_;
        capture = capture_;
        completed = completedDuration_;
    }
    if (capture) {  // outside the lock: the capture has locks of its own
        copy.audioLevels = capture->levels();
        if (copy.phase == RecordingPhase::recording) {
            copy.elapsed = completed + capture->runningTime();
        }
    }
    return copy;
}

bool RecordingSession::waitUntilSettled(std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return !isLive(state_.phase); });
}

bool RecordingSession::waitFor(RecordingPhase phase, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    const RecordingPhase atCall = state_.phase;
    changed_.wait_for(lock, timeout, [&] {
        const bool ended = state_.phase == RecordingPhase::saved ||
                           state_.phase == RecordingPhase::failed;
        return state_.phase == phase || (ended && state_.phase != atCall);
    });
    return state_.phase == phase;
}

void RecordingSession::setPhase(RecordingPhase phase) {
    {
        const std::lock_guard lock(mutex_);
        if (state_.phase == RecordingPhase::recording && capture_) {
            // Leaving `recording`: keep the time reached (runningTime reads atomics only).
            state_.elapsed = completedDuration_ + capture_->runningTime();
        }
        state_.phase = phase;
        if (!isLive(phase)) {
            state_.confirmation.reset();  // nothing left to discard, restart or stop
        }
    }
    sessionLog().info(fmt::format("phase={}", recordingPhaseName(phase)));
    changed_.notify_all();
    if (!isLive(phase)) {
        microphoneWatch_.reset();  // the monitors end with the take
    }
    answerPendingQuit();
    publish();
}

void RecordingSession::publish() {
    if (listener_) {
        listener_(snapshot());
    }
}

void RecordingSession::fail(std::string message) {
    {
        const std::lock_guard lock(mutex_);
        state_.errorMessage = std::move(message);
        if (files_) {
            state_.recoveryDirectory = files_->directory;
        }
        capture_.reset();
    }
    setPhase(RecordingPhase::failed);
}

fs::path RecordingSession::destinationFolder() const {
    const std::lock_guard lock(mutex_);
    return recordingDestination(*state_.activePreferences);
}

void RecordingSession::checkCanRecord(const RecordingTarget& target,
                                      const RecordingPreferences& preferences) {
    if (preferences.microphoneID && operations_.microphoneAvailable &&
        !operations_.microphoneAvailable(*preferences.microphoneID)) {
        throw RecordingError(RecordingError::Case::missingMicrophone);
    }
    if (target.mode == RecordingMode::area &&
        (!target.area || target.area->width < 16 || target.area->height < 16)) {
        throw RecordingError(RecordingError::Case::invalidArea);
    }
    if (operations_.sourceAvailability && !operations_.sourceAvailability(target)) {
        throw RecordingError(target.mode == RecordingMode::area
                                 ? RecordingError::Case::invalidArea
                                 : RecordingError::Case::sourceUnavailable);
    }
    const fs::path destination = recordingDestination(preferences);
    const RecordingStorageStatus status = operations_.storageCheck
                                              ? operations_.storageCheck(destination)
                                              : RecordingStorageStatus::unknown();
    switch (status.kind) {
        case RecordingStorageStatus::Kind::unavailable:
            throw RecordingError(RecordingError::Case::destinationUnavailable);
        case RecordingStorageStatus::Kind::unknown:
            throw RecordingError(RecordingError::Case::destinationCheckFailed);
        case RecordingStorageStatus::Kind::available:
            if (status.bytes < operations_.lowSpaceBytes) {
                throw RecordingError(RecordingError::Case::lowDiskSpace);
            }
            if (volumeID_ && *volumeID_ != status.volumeID) {
                throw RecordingError(RecordingError::Case::destinationUnavailable);
            }
            {
                const std::lock_guard lock(mutex_);
                volumeID_ = status.volumeID;
            }
            break;
    }
}

void RecordingSession::doStart(RecordingTarget target, RecordingPreferences preferences,
                               uint64_t attempt) {
    const Snapshot now = snapshot();
    if (now.phase != RecordingPhase::idle && now.phase != RecordingPhase::selecting &&
        now.phase != RecordingPhase::saved && now.phase != RecordingPhase::failed) {
        return;  // a live take: kLiveSessionReason, the interface doesn't offer start
    }
    {
        const std::lock_guard lock(mutex_);
        if (attempt != sessionID_) {
            return;
        }
        state_ = Snapshot{};
        state_.target = target;
        state_.activePreferences = preferences;
        volumeID_.reset();
    }
    files_.reset();
    {
        const std::lock_guard lock(mutex_);
        completedDuration_ = 0;
    }
    try {
        checkCanRecord(target, preferences);
    } catch (const RecordingError& error) {
        fail(error.message());
        return;
    }
    if (preferences.countdown > 0) {
        {
            const std::lock_guard lock(mutex_);
            state_.countdownRemaining = preferences.countdown;
        }
        setPhase(RecordingPhase::countdown);
        return;  // the monitor's ticks count down and begin the capture
    }
    beginCapture(attempt);
}

void RecordingSession::doCountdownTick(uint64_t attempt) {
    int64_t remaining = 0;
    {
        const std::lock_guard lock(mutex_);
        if (attempt != sessionID_ || state_.phase != RecordingPhase::countdown) {
            return;
        }
        remaining = --state_.countdownRemaining;
    }
    publish();
    if (remaining > 0) {
        return;
    }
    const Snapshot now = snapshot();
    if (operations_.sourceAvailability && !operations_.sourceAvailability(*now.target)) {
        fail("Recording cancelled before capture started. The selected source is no longer "
             "available. Choose a source again before recording.");
        return;
    }
    beginCapture(attempt);
}

void RecordingSession::startSegment() {
    const Snapshot now = snapshot();
    RecordingCaptureRequest request;
    request.target = *now.target;
    request.preferences = *now.activePreferences;
    request.url = files_->nextSegmentURL();
    request.excludedWindowIDs = operations_.excludedWindowIDs;
    request.outputSize = now.outputSize;
    std::shared_ptr<RecordingCaptureControlling> capture = operations_.captureFactory(request);
    uint64_t attempt = 0;
    {
        const std::lock_guard lock(mutex_);
        attempt = sessionID_;
        state_.segmentIndex = files_->startedSegments;
    }
    capture->setOnInterruption([this, attempt](std::optional<std::string> message) {
        // Called on a capture thread: only queue the work.
        queue_->post([this, attempt, message] {
            const Snapshot now = snapshot();
            interrupt(message.value_or(now.target ? sourceGoneSentence(now.target->mode)
                                                  : "The capture stream ended."),
                      attempt);
        });
    });
    capture->start();
    const std::lock_guard lock(mutex_);
    capture_ = std::move(capture);
    state_.outputSize = capture_->outputSize();
}

void RecordingSession::beginCapture(uint64_t attempt) {
    setPhase(RecordingPhase::starting);
    try {
        const Snapshot now = snapshot();
        const RecordingPreferences& preferences = *now.activePreferences;
        if (preferences.destinationPath.empty()) {
            ensureDefaultRecordingDestination();
        }
        const int64_t audioTracks =
            (preferences.systemAudio ? 1 : 0) + (preferences.microphoneID ? 1 : 0);
        files_ = RecordingFiles::create(operations_.recordingRoot(), destinationFolder(),
                                        takeFileName(), preferences.framesPerSecond, audioTracks);
        {
            const std::lock_guard lock(mutex_);
            state_.takeDirectory = files_->directory;
        }
        startSegment();
    } catch (const RecordingError& error) {
        discardEmptyTake();
        fail(error.message());
        return;
    } catch (const std::exception& error) {
        discardEmptyTake();
        fail(error.what());
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        if (attempt != sessionID_) {
            return;
        }
    }
    watchMicrophone(attempt);
    setPhase(RecordingPhase::recording);
}

void RecordingSession::watchMicrophone(uint64_t attempt) {
    const std::optional<RecordingPreferences> preferences = snapshot().activePreferences;
    if (!operations_.watchMicrophone || !preferences || !preferences->microphoneID) {
        return;
    }
    // Called on the watcher's thread: only queue the work.
    microphoneWatch_ = operations_.watchMicrophone(*preferences->microphoneID, [this, attempt] {
        queue_->post([this, attempt] { interrupt(kMicrophoneDisconnectedSentence, attempt); });
    });
}

void RecordingSession::discardEmptyTake() {
    if (!files_) {
        return;
    }
    try {
        for (const RecordingSegment& segment : files_->listSegments()) {
            if (std::filesystem::file_size(segment.path) > 0) {
                return;  // something was captured: it stays for recovery
            }
        }
    } catch (const std::exception&) {
        return;
    }
    // Nothing was captured: the take is not worth recovering. Without its manifest the folder
    // is no take, and the clean-up removes it under its lease.
    const fs::path directory = files_->directory;
    {
        const std::lock_guard lock(mutex_);
        state_.takeDirectory.reset();
    }
    std::error_code ignored;
    fs::remove(directory / RecordingFiles::kManifestName, ignored);
    files_.reset();
    (void)RecordingFiles::removeLeftOver(directory);
    publish();
}

void RecordingSession::doPause() {
    if (snapshot().phase != RecordingPhase::recording) {
        return;
    }
    setPhase(RecordingPhase::pausing);
    std::shared_ptr<RecordingCaptureControlling> capture;
    {
        const std::lock_guard lock(mutex_);
        capture = capture_;
    }
    try {
        const double duration = capture->stop();
        const std::lock_guard lock(mutex_);
        completedDuration_ += duration;
        state_.elapsed = completedDuration_;
        capture_.reset();
    } catch (const std::exception& error) {
        fail(error.what());
        return;
    }
    setPhase(RecordingPhase::paused);
}

void RecordingSession::doResume() {
    const Snapshot now = snapshot();
    if (now.phase != RecordingPhase::paused) {
        return;
    }
    setPhase(RecordingPhase::resuming);
    try {
        checkCanRecord(*now.target, *now.activePreferences);
        startSegment();
    } catch (const RecordingError& error) {
        fail(error.message());
        return;
    } catch (const std::exception& error) {
        fail(error.what());
        return;
    }
    setPhase(RecordingPhase::recording);
}

void RecordingSession::interrupt(std::string message, uint64_t attempt) {
    {
        const std::lock_guard lock(mutex_);
        if (attempt != sessionID_ || !isLive(state_.phase)) {
            return;
        }
        if (state_.interruptionMessage.empty()) {
            state_.interruptionMessage = message;
        }
    }
    sessionLog().notice("interrupted=1");
    doStop(std::move(message));
}

std::shared_ptr<RecordingCaptureControlling> RecordingSession::beginFinishing() {
    setPhase(RecordingPhase::finishing);
    const std::lock_guard lock(mutex_);
    return std::exchange(capture_, nullptr);
}

void RecordingSession::doStop(std::optional<std::string> interruption) {
    const Snapshot now = snapshot();
    if (now.phase == RecordingPhase::countdown) {
        std::string reason = interruption.value_or("The countdown was cancelled.");
        fail("Recording cancelled before capture started. " + reason);
        return;
    }
    if (now.phase != RecordingPhase::recording && now.phase != RecordingPhase::paused) {
        return;
    }
    const std::shared_ptr<RecordingCaptureControlling> capture = beginFinishing();
    std::string captureFailure;
    if (capture) {
        try {
            const double duration = capture->stop();
            const std::lock_guard lock(mutex_);
            completedDuration_ += duration;
        } catch (const RecordingError& error) {
            const std::lock_guard lock(mutex_);
            state_.needsStopRetry = error.kind == RecordingError::Case::timedOut;
            captureFailure = error.message();
        } catch (const std::exception& error) {
            captureFailure = error.what();
        }
    }
    finalize(captureFailure);
}

}  // namespace tessarin::engine
