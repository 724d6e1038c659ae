// The session's monitor thread: the countdown's seconds, the recorded time, and the drive, the
// source and the recorded window's process polled while a take runs. What it finds is queued to
// the session like a command.
#include "engine/recording/RecordingError.hpp"
#include "engine/recording/session/RecordingSession.hpp"

namespace tessarin::engine {

using namespace std::chrono_literals;

void RecordingSession::monitor() {
    auto nextTick = std::chrono::steady_clock::now() + 1s;
    auto nextStorage = std::chrono::steady_clock::now() + operations_.storageInterval;
    auto nextSource = std::chrono::steady_clock::now() + 1s;
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait_for(lock, 100ms);
        if (closing_) {
            return;
        }
        const RecordingPhase phase = state_.phase;
        const uint64_t attempt = sessionID_;
        const std::optional<RecordingTarget> target = state_.target;
        const std::optional<RecordingPreferences> preferences = state_.activePreferences;
        const std::optional<uint64_t> volume = volumeID_;
        const auto now = std::chrono::steady_clock::now();
        lock.unlock();
        if (phase == RecordingPhase::countdown) {
            if (now >= nextTick) {
                nextTick = now + 1s;
                queue_->post([this, attempt] { doCountdownTick(attempt); });
            }
        } else {
            nextTick = now + 1s;
        }
        if (phase == RecordingPhase::recording || phase == RecordingPhase::paused) {
            if (phase == RecordingPhase::recording) {
                publish();  // elapsed and levels
            }
            if (now >= nextStorage && operations_.storageCheck && preferences) {
                nextStorage = now + operations_.storageInterval;
                const RecordingStorageStatus status =
                    operations_.storageCheck(recordingDestination(*preferences));
                if (status.kind == RecordingStorageStatus::Kind::available) {
                    if (status.bytes < operations_.lowSpaceBytes) {
                        const std::string text =
                            RecordingError(RecordingError::Case::lowDiskSpace).message();
                        queue_->post([this, text, attempt] { interrupt(text, attempt); });
                    } else if (volume && *volume != status.volumeID) {
                        const std::string text =
                            RecordingError(RecordingError::Case::destinationUnavailable).message();
                        queue_->post([this, text, attempt] { interrupt(text, attempt); });
                    }
                } else if (status.kind == RecordingStorageStatus::Kind::unavailable) {
                    const std::string text =
                        RecordingError(RecordingError::Case::destinationUnavailable).message();
                    queue_->post([this, text, attempt] { interrupt(text, attempt); });
                }
            }
            const bool watchesApplication =
                target && target->applicationPID && operations_.applicationRunning &&
                (target->mode == RecordingMode::window || target->mode == RecordingMode::app);
            if (now >= nextSource && watchesApplication &&
                !operations_.applicationRunning(*target->applicationPID)) {
                nextSource = now + 1s;
                queue_->post([this, attempt] { interrupt(kApplicationQuitSentence, attempt); });
            } else if (now >= nextSource && operations_.sourceAvailability && target) {
                nextSource = now + 1s;
                if (!operations_.sourceAvailability(*target)) {
                    const std::string text = sourceGoneSentence(target->mode);
                    queue_->post([this, text, attempt] { interrupt(text, attempt); });
                }
            }
        }
        lock.lock();
    }
}

}  // namespace tessarin::engine
