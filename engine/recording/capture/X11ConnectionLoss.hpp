// Xlib ends the process when a display connection breaks, unless its fatal-error handler never
// returns. Ours records the loss and parks the thread that found it (a capture's streaming
// thread, or a source check), so that the take can end and be saved instead.
#pragma once

#include <cstdint>

namespace tessarin::engine {

// How many connections were lost since the process started. Any thread.
[[nodiscard]] uint64_t x11ConnectionLosses();

}  // namespace tessarin::engine
