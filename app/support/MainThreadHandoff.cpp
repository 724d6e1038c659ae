#include "app/support/MainThreadHandoff.hpp"

#include <QMetaObject>
#include <exception>
#include <thread>
#include <utility>

namespace tessarin::app {

MainThreadHandoff::MainThreadHandoff(QObject* target, const char* deliveryMethod,
                                     engine::Logger log)
    : deliveryMethod_(deliveryMethod), log_(std::move(log)), target_(target) {}

void MainThreadHandoff::start(Work work) {
    {
        std::lock_guard lock(mutex_);
        ++running_;
    }
    try {
        std::thread([self = shared_from_this(), work = std::move(work)]() mutable {
            Completion completion;
            try {
                completion = work();
            } catch (const std::exception& error) {
                self->log_.error(engine::KeyValues()
                                     .add("event", "background work failed")
                                     .add("error", error.what())
                                     .str());
            } catch (...) {
                self->log_.error("event=\"background work failed\"");
            }
            // The work's captures die here, on the worker, before the target is told.
            work = nullptr;
            if (completion) {
                self->deliver(std::move(completion));
            }
            self->finished();
        }).detach();
    } catch (...) {
        finished();
        throw;
    }
}

void MainThreadHandoff::deliver(Completion completion) {
    std::lock_guard lock(mutex_);
    if (target_ == nullptr) {
        return;
    }
    const bool wasEmpty = completions_.empty();
    completions_.push_back(std::move(completion));
    // One queued call collects everything waiting; it is posted under the lock (see above).
    if (wasEmpty) {
        QMetaObject::invokeMethod(target_, deliveryMethod_, Qt::QueuedConnection);
    }
}

void MainThreadHandoff::finished() {
    std::lock_guard lock(mutex_);
    --running_;
    if (running_ == 0) {
        idle_.notify_all();
    }
}

std::vector<MainThreadHandoff::Completion> MainThreadHandoff::take() {
    std::lock_guard lock(mutex_);
    return std::exchange(completions_, {});
}

void MainThreadHandoff::detach() {
    std::vector<Completion> dropped;
    {
        std::lock_guard lock(mutex_);
        target_ = nullptr;
        dropped.swap(completions_);
    }
}

bool MainThreadHandoff::waitUntilIdle(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return idle_.wait_for(lock, limit, [this] { return running_ == 0; });
}

}  // namespace tessarin::app
