// Quitting with a take running: the application asks first, and its answer waits until the
// take is saved (or a minute passes), so that quitting never loses footage silently.
#include "engine/recording/session/RecordingSession.hpp"

namespace tessarin::engine {

void RecordingSession::handleQuit(std::function<void(bool)> reply,
                                  std::chrono::milliseconds limit) {
    queue_->post([this, reply = std::move(reply), limit]() mutable {
        if (!isLive(snapshot().phase)) {
            reply(true);
            return;
        }
        if (quitReply_) {
            std::exchange(quitReply_, nullptr)(false);  // superseded by the newer request
        }
        quitReply_ = std::move(reply);
        quitLimit_ = limit;
        {
            const std::lock_guard lock(mutex_);
            state_.confirmation = Confirmation::quit;
        }
        publish();
    });
}

void RecordingSession::confirm() {
    queue_->post([this] {
        if (!quitReply_) {
            return;
        }
        {
            const std::lock_guard lock(mutex_);
            state_.confirmation.reset();
        }
        if (quitWatcher_.joinable()) {
            quitWatcher_.join();
        }
        // The watcher runs beside the queue: the stop below may take long, and the deadline is
        // the watcher's, not the stop's.
        quitWatcher_ = std::thread([this, reply = std::exchange(quitReply_, nullptr),
                                    limit = quitLimit_] { reply(waitUntilSettled(limit)); });
        doStop(std::nullopt);
        publish();
    });
}

void RecordingSession::dismissConfirmation() {
    queue_->post([this] {
        {
            const std::lock_guard lock(mutex_);
            state_.confirmation.reset();
        }
        if (quitReply_) {
            std::exchange(quitReply_, nullptr)(false);
        }
        publish();
    });
}

void RecordingSession::answerPendingQuit() {
    if (!quitReply_ || isLive(snapshot().phase)) {
        return;
    }
    // The take ended on its own while the question was open: nothing holds the quit any more.
    {
        const std::lock_guard lock(mutex_);
        state_.confirmation.reset();
    }
    std::exchange(quitReply_, nullptr)(true);
}

}  // namespace tessarin::engine
