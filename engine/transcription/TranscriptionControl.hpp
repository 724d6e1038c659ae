// The cancellation shared by a transcription's caller and the stages that run for it. Cancelling
// may come from any thread at any moment, also before anything has started; waits made through
// the control end at once when it is cancelled.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
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

    // Registers a stage that must be told of a cancel (a running extraction or probe). When the
    // control is already cancelled, `onCancel` runs at once on the calling thread; otherwise
    // cancel() runs it once, outside the lock. The token undoes the registration; a stage that
    // has ended detaches itself so that nothing is kept alive for it.
    std::uint64_t attach(std::function<void()> onCancel);
    void detach(std::uint64_t token);

private:
    mutable std::mutex lock_;
    mutable std::condition_variable changed_;
    bool cancelled_ = false;                                  // guarded by lock_
    std::uint64_t nextToken_ = 1;                             // guarded by lock_
    std::map<std::uint64_t, std::function<void()>> stages_;  // guarded by lock_
};

}  // namespace tessarin::engine
