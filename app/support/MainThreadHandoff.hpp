// Runs blocking work on a thread of its own and hands each result back to one QObject on the
// main thread.
//
// A finished work item leaves a completion in a mailbox guarded by a std::mutex and, while still
// holding it, asks the target by a queued call to collect. The target's slot calls take(), which
// takes the same mutex, so everything the worker did happens-before the completion runs. The
// distribution's Qt is not built for ThreadSanitizer and its own locks are invisible to it; this
// order keeps the hand-off visible all the same. Workers are plain std::threads for the same
// reason (thread creation is seen by the sanitizer, a pool's hand-over of a task is not).
//
// Shared by the target and its workers through shared_ptr. The target calls detach() before it
// goes away; from then on completions are dropped, and queued calls already posted die with the
// target.
#pragma once

#include <QObject>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "engine/log/Log.hpp"

namespace tessarin::app {

class MainThreadHandoff : public std::enable_shared_from_this<MainThreadHandoff> {
public:
    using Completion = std::function<void()>;
    using Work = std::function<Completion()>;

    // `deliveryMethod` names an invokable method of `target` (a slot) that calls take() and runs
    // what it returns. Both must outlive the handoff's use, up to detach().
    MainThreadHandoff(QObject* target, const char* deliveryMethod, engine::Logger log);

    // Runs `work` on a new thread; the completion it returns is handed back. Work that throws
    // is logged and hands back nothing. Throws std::system_error when no thread can be started.
    void start(Work work);

    // Hands `completion` back as if a work item had returned it: for events a worker reports
    // while it runs. Any thread; dropped once detached.
    void post(Completion completion) { deliver(std::move(completion)); }

    // The completions handed back so far, in arrival order. Main thread.
    [[nodiscard]] std::vector<Completion> take();

    // The target is going away: nothing is delivered from now on. Main thread.
    void detach();

    // Waits until no work runs, at most `limit`; true if none does.
    [[nodiscard]] bool waitUntilIdle(std::chrono::milliseconds limit);

private:
    void deliver(Completion completion);
    void finished();

    const char* deliveryMethod_;
    engine::Logger log_;
    std::mutex mutex_;
    std::condition_variable idle_;
    QObject* target_;                      // guarded by mutex_; null once detached
    std::vector<Completion> completions_;  // guarded by mutex_
    int running_ = 0;                      // guarded by mutex_
};

}  // namespace tessarin::app
