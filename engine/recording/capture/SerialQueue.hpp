// A serial queue: one thread of its own runs posted work in order. Stands in for the named
// dispatch queues of the recording path ("com.tessarin.recording.sample-writer").
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>

namespace tessarin::engine {

class SerialQueue {
public:
    explicit SerialQueue(std::string name);
    // Runs what is queued, then joins.
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    // Any thread. Work must not throw.
    void post(std::function<void()> work);

    // Runs `work` on the queue and waits for its value (not from the queue itself).
    template <typename Work>
    auto sync(Work work) -> decltype(work()) {
        using Result = decltype(work());
        std::packaged_task<Result()> task(std::move(work));
        std::future<Result> result = task.get_future();
        post([&task] { task(); });
        return result.get();
    }

private:
    void run();

    std::string name_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> work_;  // guarded by mutex_
    bool closing_ = false;                    // guarded by mutex_
    std::thread thread_;
};

}  // namespace tessarin::engine
