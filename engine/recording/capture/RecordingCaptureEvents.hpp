// The waiting room of one capture's three one-shot events: the stream `started` (its first frame
// is in the file), the writer `finished` the file, the stream `stopped` (the pipeline is down).
// The first result of an event is kept and answers every wait, past and future; later results
// are ignored. Each wait has its own deadline, which ends only that wait.
//
// Threads: any. complete() is called from stream, bus and writer threads, wait() from the
// session's; a lock makes them race safely.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace tessarin::engine {

class RecordingCaptureEvents {
public:
    enum class Event { started, finished, stopped };

    struct Result {
        enum class Kind {
            succeeded,
            failed,    // `message` says why
            timedOut,  // this wait's deadline passed first
            noOutput,  // the platform refused the start: nothing will be finished
        };
        Kind kind = Kind::succeeded;
        std::string message;
        double duration = 0;  // for `finished`: the file's length in seconds

        [[nodiscard]] static Result success(double duration = 0) {
            return {Kind::succeeded, {}, duration};
        }
        [[nodiscard]] static Result failure(std::string message) {
            return {Kind::failed, std::move(message), 0};
        }
    };

    // The stored result at once, or the first one to come within `timeout`; `timedOut` when
    // none came.
    [[nodiscard]] Result wait(Event event, std::chrono::milliseconds timeout);
    // Stores `result` unless `event` already has one; wakes every waiter of it. Whether stored.
    bool complete(Event event, Result result);
    // The platform refused the start: `started` fails with `message`, and `finished` ends with
    // no output, so that nobody waits for a file that will never be written.
    void rejectStart(const std::string& message);

    [[nodiscard]] bool streamStartRejected() const;
    // The waits of `event` now under way.
    [[nodiscard]] int64_t waiting(Event event) const;

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<Event, Result> results_;
    std::map<Event, int64_t> waiters_;
    bool streamStartRejected_ = false;
};

}  // namespace tessarin::engine
