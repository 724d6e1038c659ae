// Turns Ctrl-C and SIGTERM into a cancel of the job that is running, with the user grace.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "engine/job/ConversionJob.hpp"

namespace tessarin::cli {

// Blocks SIGINT and SIGTERM in every thread (construct it before any other thread starts) and
// waits for them on a thread of its own. One instance per process.
class Interruption {
public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    // The job a signal cancels; a job that arrives after the signal is cancelled at once, so
    // nothing starts after Ctrl-C.
    void watch(const std::shared_ptr<engine::ConversionJob>& job);

    [[nodiscard]] bool interrupted() const { return interrupted_.load(); }

private:
    void waitForSignals();

    std::atomic<bool> interrupted_{false};
    std::mutex mutex_;
    std::weak_ptr<engine::ConversionJob> current_;  // guarded by mutex_
    std::thread watcher_;
};

}  // namespace tessarin::cli
