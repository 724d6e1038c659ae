#include "cli/Interruption.hpp"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <system_error>
#include <type_traits>

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

// Weak, so that a finished job or runner is not kept alive by the watcher. A frame export always
// gives its tools the user's grace.
template <typename Target>
std::function<void()> cancelling(const std::shared_ptr<Target>& target) {
    return [weak = std::weak_ptr<Target>(target)] {
        if (const std::shared_ptr<Target> alive = weak.lock()) {
            if constexpr (std::is_same_v<Target, engine::TranscriptionControl>) {
                alive->cancel();
            } else if constexpr (std::is_same_v<Target, engine::FrameExtractionJob>) {
                alive->cancel();
            } else {
                alive->cancel(engine::ConversionJob::kUserCancelGrace);
            }
        }
    };
}

}  // namespace

Interruption::Interruption() {
    signalled_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signalled_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    const sigset_t set = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    watcher_ = std::thread([this] { waitForSignals(); });
}

Interruption::~Interruption() {
    pthread_kill(watcher_.native_handle(), SIGUSR1);
    watcher_.join();
    ::close(signalled_);
}

void Interruption::watch(const std::shared_ptr<engine::ConversionJob>& job) {
    install(cancelling(job));
}

void Interruption::watch(const std::shared_ptr<engine::FrameExtractionJob>& job) {
    install(cancelling(job));
}

void Interruption::watch(const std::shared_ptr<engine::JoinedFastCut>& join) {
    install(cancelling(join));
}

void Interruption::watch(const std::shared_ptr<engine::ProcessRunner>& runner) {
    install(cancelling(runner));
}

void Interruption::watch(const std::shared_ptr<engine::TranscriptionControl>& control) {
    install(cancelling(control));
}

void Interruption::install(std::function<void()> cancel) {
    {
        const std::lock_guard lock(mutex_);
        cancelCurrent_ = cancel;
    }
    if (interrupted_.load()) {
        cancel();
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
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(signalled_, &one, sizeof one);
        std::function<void()> cancel;
        {
            const std::lock_guard lock(mutex_);
            cancel = cancelCurrent_;
        }
        if (cancel) {
            cancel();
        }
    }
}

}  // namespace tessarin::cli
