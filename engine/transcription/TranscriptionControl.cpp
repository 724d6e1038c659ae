#include "engine/transcription/TranscriptionControl.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace tessarin::engine {

void TranscriptionControl::cancel() {
    std::map<std::uint64_t, std::function<void()>> stages;
    {
        const std::lock_guard guard(lock_);
        cancelled_ = true;
        stages.swap(stages_);
    }
    changed_.notify_all();
    for (auto& [token, onCancel] : stages) {
        onCancel();
    }
}

std::uint64_t TranscriptionControl::attach(std::function<void()> onCancel) {
    {
        const std::lock_guard guard(lock_);
        if (!cancelled_) {
            const std::uint64_t token = nextToken_++;
            stages_.emplace(token, std::move(onCancel));
            return token;
        }
    }
    onCancel();
    return 0;
}

void TranscriptionControl::detach(std::uint64_t token) {
    std::function<void()> released;
    {
        const std::lock_guard guard(lock_);
        const auto found = stages_.find(token);
        if (found == stages_.end()) {
            return;
        }
        released = std::move(found->second);
        stages_.erase(found);
    }
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
