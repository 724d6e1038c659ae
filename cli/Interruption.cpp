#include "cli/Interruption.hpp"

#include <pthread.h>
#include <signal.h>

namespace tessarin::cli {

namespace {

// SIGUSR1 only ends the watcher when the command is done.
sigset_t watchedSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR1);
    return set;
}

}  // namespace

Interruption::Interruption() {
    const sigset_t set = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    watcher_ = std::thread([this] { waitForSignals(); });
}

Interruption::~Interruption() {
    pthread_kill(watcher_.native_handle(), SIGUSR1);
    watcher_.join();
}

void Interruption::watch(const std::shared_ptr<engine::ConversionJob>& job) {
    {
        const std::lock_guard lock(mutex_);
        current_ = job;
    }
    if (interrupted_.load()) {
        job->cancel(engine::ConversionJob::kUserCancelGrace);
    }
}

void Interruption::waitForSignals() {
    const sigset_t set = watchedSignals();
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0 || signal == SIGUSR1) {
            return;
        }
        interrupted_.store(true);
        std::shared_ptr<engine::ConversionJob> job;
        {
            const std::lock_guard lock(mutex_);
            job = current_.lock();
        }
        if (job) {
            job->cancel(engine::ConversionJob::kUserCancelGrace);
        }
    }
}

}  // namespace tessarin::cli
