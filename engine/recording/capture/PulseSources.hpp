// The sound sources PulseAudio (or PipeWire's PulseAudio server) offers, as GStreamer's device
// monitor sees them: whether a microphone chosen by name is there. Blocking (it asks the sound
// server); any thread but the interface's.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace tessarin::engine {

// Whether the source named `id` exists ("default": whether any input source exists). Monitors
// of outputs don't count as microphones.
[[nodiscard]] bool pulseSourceAvailable(const std::string& id);

// Calls `onGone` (once, from a thread of its own) when the sound server's device list changes
// and the source `id` is no longer in it, for as long as the returned handle lives. Releasing
// the handle waits for that thread.
[[nodiscard]] std::shared_ptr<void> watchPulseSource(const std::string& id,
                                                     std::function<void()> onGone);

}  // namespace tessarin::engine
