#include "engine/desktop/StaleScanScheduler.hpp"

#include "engine/log/Log.hpp"

namespace tessarin::engine {

StaleScanScheduler::StaleScanScheduler(std::function<void()> scan,
                                       std::chrono::milliseconds spacing)
    : scan_(std::move(scan)), spacing_(spacing), worker_([this] { loop(); }) {}

StaleScanScheduler::~StaleScanScheduler() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    worker_.join();
}

void StaleScanScheduler::request() {
    {
        const std::lock_guard lock(mutex_);
        pending_ = true;
    }
    wake_.notify_all();
}

void StaleScanScheduler::loop() {
    std::unique_lock lock(mutex_);
    while (true) {
        wake_.wait(lock, [this] { return pending_ || stopping_; });
        if (stopping_) {
            return;
        }
        if (lastStart_) {
            const auto due = *lastStart_ + spacing_;
            if (wake_.wait_until(lock, due, [this] { return stopping_; })) {
                return;
            }
        }
        pending_ = false;
        lastStart_ = std::chrono::steady_clock::now();
        lock.unlock();
        try {
            scan_();
        } catch (const std::exception& error) {
            Logger("com.tessarin.app", "registrar").error(logLine({{"event", "scan-failed"}}));
        }
        lock.lock();
    }
}

}  // namespace tessarin::engine
