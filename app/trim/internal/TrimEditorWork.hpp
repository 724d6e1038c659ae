// What the trim editor's threads share with it: whether it closed, and the runner of each kind
// of request now running, so that a newer request or closing stops it.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>

#include "app/trim/TrimEditor.hpp"
#include "engine/log/Log.hpp"
#include "engine/process/ProcessRunner.hpp"

namespace tessarin::app {

// A closed editor gives its tools this long beyond the cancel grace to end.
inline constexpr std::chrono::milliseconds kCloseWait{8000};

const engine::Logger& trimEditorLog();

struct TrimEditor::Work {
    enum class Slot { probe, keyframe, suggestions, waveform };

    std::mutex mutex;
    bool closed = false;                                             // guarded by mutex
    std::map<Slot, std::shared_ptr<engine::ProcessRunner>> runners;  // guarded by mutex

    // A fresh runner for `slot`; the one it replaces is cancelled. Cancelled at once after
    // closing.
    std::shared_ptr<engine::ProcessRunner> install(Slot slot) {
        auto runner = std::make_shared<engine::ProcessRunner>();
        std::shared_ptr<engine::ProcessRunner> previous;
        bool wasClosed = false;
        {
            std::lock_guard lock(mutex);
            previous = std::exchange(runners[slot], runner);
            wasClosed = closed;
        }
        if (previous) {
            previous->cancel(engine::ProcessRunner::kUserCancelGrace);
        }
        if (wasClosed) {
            runner->cancel(engine::ProcessRunner::kUserCancelGrace);
        }
        return runner;
    }

    void cancel(Slot slot) {
        std::shared_ptr<engine::ProcessRunner> runner;
        {
            std::lock_guard lock(mutex);
            runner = runners[slot];
        }
        if (runner) {
            runner->cancel(engine::ProcessRunner::kUserCancelGrace);
        }
    }

    void cancelAll() {
        std::map<Slot, std::shared_ptr<engine::ProcessRunner>> running;
        {
            std::lock_guard lock(mutex);
            closed = true;
            running = runners;
        }
        for (auto& [slot, runner] : running) {
            if (runner) {
                runner->cancel(engine::ProcessRunner::kUserCancelGrace);
            }
        }
    }
};

}  // namespace tessarin::app
