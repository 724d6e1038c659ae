#include "engine/recording/capture/RecordingCaptureEvents.hpp"

namespace tessarin::engine {

RecordingCaptureEvents::Result RecordingCaptureEvents::wait(Event event,
                                                            std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    ++waiters_[event];
    // The deadline is this waiter's own: another waiter of the event timing out leaves it be.
    const bool answered =
        changed_.wait_for(lock, timeout, [&] { return results_.contains(event); });
    --waiters_[event];
    if (!answered) {
        return {Result::Kind::timedOut, {}, 0};
    }
    return results_.at(event);
}

bool RecordingCaptureEvents::complete(Event event, Result result) {
    {
        const std::lock_guard lock(mutex_);
        if (!results_.emplace(event, std::move(result)).second) {
            return false;  // the first result wins
        }
    }
    changed_.notify_all();
    return true;
}

void RecordingCaptureEvents::rejectStart(const std::string& message) {
    {
        const std::lock_guard lock(mutex_);
        streamStartRejected_ = true;
        results_.emplace(Event::started, Result::failure(message));
        results_.emplace(Event::finished, Result{Result::Kind::noOutput, message, 0});
    }
    changed_.notify_all();
}

bool RecordingCaptureEvents::streamStartRejected() const {
    const std::lock_guard lock(mutex_);
    return streamStartRejected_;
}

int64_t RecordingCaptureEvents::waiting(Event event) const {
    const std::lock_guard lock(mutex_);
    const auto found = waiters_.find(event);
    return found == waiters_.end() ? 0 : found->second;
}

}  // namespace tessarin::engine
