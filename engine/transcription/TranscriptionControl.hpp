// The cancellation shared by a transcription's caller and the stages that run for it. Cancelling
// may come from any thread at any moment, also before anything has started; waits made through
// the control end at once when it is cancelled.
#pragma once

#include <condition_variable>
#include <mutex>

namespace tessarin::engine {

// Thread-safe; every member may be called from any thread. Shared by reference (usually a
// shared_ptr held by the job and the running stages).
class TranscriptionControl {
public:
    // Sets the flag and wakes every waiter. Idempotent.
    void cancel();
    [[nodiscard]] bool isCancelled() const;
    // Waits up to `seconds` (a negative or non-finite value waits not at all). Returns false when
    // the control was cancelled before or during the wait.
    [[nodiscard]] bool waitFor(double seconds) const;

private:
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    bool cancelled_ = false;  // guarded by lock_
};

}  // namespace tessarin::engine
