// Turns Ctrl-C and SIGTERM into a cancel of the job or tool run that is running, with the user
// grace.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "engine/frames/FrameExtractionJob.hpp"
#include "engine/job/ConversionJob.hpp"
#include "engine/job/JoinedFastCut.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/transcription/TranscriptionControl.hpp"

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
    void watch(const std::shared_ptr<engine::FrameExtractionJob>& job);
    void watch(const std::shared_ptr<engine::JoinedFastCut>& join);
    // The same for a tool run outside a job (a probe, a plan, the copy that joins cuts).
    void watch(const std::shared_ptr<engine::ProcessRunner>& runner);
    // The same for requests to the transcription service.
    void watch(const std::shared_ptr<engine::TranscriptionControl>& control);

    [[nodiscard]] bool interrupted() const { return interrupted_.load(); }

    // A descriptor that becomes readable once a signal has arrived, so that a blocking wait
    // (a question on the terminal) can end on Ctrl-C too. Owned by this object.
    [[nodiscard]] int descriptor() const { return signalled_; }

private:
    void install(std::function<void()> cancel);
    void waitForSignals();

    std::atomic<bool> interrupted_{false};
    int signalled_ = -1;  // an eventfd, written once per signal
    std::mutex mutex_;
    std::function<void()> cancelCurrent_;  // guarded by mutex_; holds its target weakly
    std::thread watcher_;
};

}  // namespace tessarin::cli
