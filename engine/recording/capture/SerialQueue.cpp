#include "engine/recording/capture/SerialQueue.hpp"

#include <pthread.h>

namespace tessarin::engine {

SerialQueue::SerialQueue(std::string name) : name_(std::move(name)) {
    thread_ = std::thread([this] { run(); });
}

SerialQueue::~SerialQueue() {
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void SerialQueue::post(std::function<void()> work) {
    {
        const std::lock_guard lock(mutex_);
        work_.push_back(std::move(work));
    }
    wake_.notify_one();
}

void SerialQueue::run() {
    // Thread names have 15 characters at most; the tail of the queue's name is the telling part.
    const std::string shortName = name_.size() > 15 ? name_.substr(name_.size() - 15) : name_;
    pthread_setname_np(pthread_self(), shortName.c_str());
    for (;;) {
        std::function<void()> next;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return closing_ || !work_.empty(); });
            if (work_.empty()) {
                return;
            }
            next = std::move(work_.front());
            work_.pop_front();
        }
        next();
    }
}

}  // namespace tessarin::engine
