// Coalesces requests for a stale-helper scan (one per refused handoff peer): at most one scan is
// pending at a time, scans run one after another on the scheduler's own thread, and a scan
// starts no sooner than `spacing` after the previous one started. A burst of requests therefore
// costs one scan, or two when the burst outlasts the first.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace tessarin::engine {

class StaleScanScheduler {
public:
    // `scan` runs on the scheduler's thread; a request() from inside it marks another scan
    // pending.
    StaleScanScheduler(std::function<void()> scan, std::chrono::milliseconds spacing);
    // Waits for a running scan; a pending one is dropped.
    ~StaleScanScheduler();
    StaleScanScheduler(const StaleScanScheduler&) = delete;
    StaleScanScheduler& operator=(const StaleScanScheduler&) = delete;

    // Any thread; never blocks for long.
    void request();

private:
    void loop();

    const std::function<void()> scan_;
    const std::chrono::milliseconds spacing_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool pending_ = false;   // guarded by mutex_
    bool stopping_ = false;  // guarded by mutex_
    std::optional<std::chrono::steady_clock::time_point> lastStart_;  // worker thread only
    std::thread worker_;
};

}  // namespace tessarin::engine
