#include "engine/transcription/TranscriptionControl.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace tessarin::engine {

void TranscriptionControl::cancel() {
    {
        const std::lock_guard guard(lock_);
        cancelled_ = true;
    }
    changed_.notify_all();
}

bool TranscriptionControl::isCancelled() const {
    const std::lock_guard guard(lock_);
    return cancelled_;
}

bool TranscriptionControl::waitFor(double seconds) const {
    std::unique_lock guard(lock_);
    if (!std::isfinite(seconds) || seconds <= 0) {
        return !cancelled_;
    }
    const auto span = std::chrono::duration<double>(std::min(seconds, 86'400.0));
    changed_.wait_for(guard, std::chrono::duration_cast<std::chrono::nanoseconds>(span),
                      [this] { return cancelled_; });
    return !cancelled_;
}

}  // namespace tessarin::engine
