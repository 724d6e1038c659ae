// What the user is asked to confirm about a running take: discarding it, restarting it, or
// quitting with it. Quitting's answer waits until the take is saved (or a minute passes), so
// that quitting never loses footage silently.
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

void RecordingSession::requestDiscard() { queue_->post([this] { ask(Confirmation::discard); }); }

void RecordingSession::requestRestart() { queue_->post([this] { ask(Confirmation::restart); }); }

void RecordingSession::ask(Confirmation confirmation) {
    const RecordingPhase phase = snapshot().phase;
    if (phase != RecordingPhase::countdown && phase != RecordingPhase::recording &&
        phase != RecordingPhase::paused) {
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        if (state_.confirmation == Confirmation::quit) {
            return;  // the quit's question stands
        }
        state_.confirmation = confirmation;
    }
    publish();
}

void RecordingSession::confirm() {
    queue_->post([this] {
        std::optional<Confirmation> pending;
        {
            const std::lock_guard lock(mutex_);
            pending = std::exchange(state_.confirmation, std::nullopt);
        }
        if (pending == Confirmation::discard) {
            doDiscard();
            return;
        }
        if (pending == Confirmation::restart) {
            const Snapshot before = snapshot();
            doDiscard();
            if (snapshot().phase != RecordingPhase::idle || !before.target ||
                !before.activePreferences) {
                return;  // the take could not be moved away: it stays, with the reason
            }
            uint64_t attempt = 0;
            {
                const std::lock_guard lock(mutex_);
                attempt = ++sessionID_;
            }
            doStart(*before.target, *before.activePreferences, attempt);
            return;
        }
        if (!quitReply_) {
            publish();
            return;
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
