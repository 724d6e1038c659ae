#include "engine/recording/capture/X11ConnectionLoss.hpp"

#include <X11/Xlib.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "engine/recording/capture/X11Sources.hpp"

namespace tessarin::engine {

namespace {

std::atomic<uint64_t> losses{0};

[[noreturn]] int parkOnConnectionLoss(Display*) {
    losses.fetch_add(1);
    // Returning would let Xlib exit the process; the thread's owner abandons it instead.
    for (;;) {
        ::pause();
    }
}

}  // namespace

uint64_t x11ConnectionLosses() { return losses.load(); }

void installX11ConnectionLossHandler() {
    static std::once_flag once;
    std::call_once(once, [] {
        XInitThreads();
        XSetIOErrorHandler(parkOnConnectionLoss);
    });
}

}  // namespace tessarin::engine
