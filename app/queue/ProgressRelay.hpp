// Carries a job's progress from its thread to the main thread without flooding the event loop:
// a report only stores the newest value and schedules one hop unless one is already on its way;
// the hop takes the newest value. So a job may report at any rate, and the view sees the latest
// value once per turn of the main loop.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "app/support/MainThreadHandoff.hpp"

namespace tessarin::app {

class ProgressRelay : public std::enable_shared_from_this<ProgressRelay> {
public:
    // `deliver` runs on the main thread, through `handoff`; nothing is delivered once the
    // handoff is detached.
    ProgressRelay(std::shared_ptr<MainThreadHandoff> handoff,
                  std::function<void(std::optional<double>)> deliver)
        : handoff_(std::move(handoff)), deliver_(std::move(deliver)) {}

    // Any thread. `value` is a fraction from 0 to 1, or nothing when none is known.
    void report(std::optional<double> value) {
        {
            std::lock_guard lock(mutex_);
            pending_ = value;
            if (scheduled_) {
                return;
            }
            scheduled_ = true;
        }
        handoff_->post([self = shared_from_this()] { self->deliverPending(); });
    }

private:
    void deliverPending() {
        std::optional<std::optional<double>> value;
        {
            std::lock_guard lock(mutex_);
            value.swap(pending_);
            scheduled_ = false;
        }
        if (value) {
            deliver_(*value);
        }
    }

    const std::shared_ptr<MainThreadHandoff> handoff_;
    const std::function<void(std::optional<double>)> deliver_;
    std::mutex mutex_;
    std::optional<std::optional<double>> pending_;  // guarded by mutex_
    bool scheduled_ = false;                        // guarded by mutex_
};

}  // namespace tessarin::app
