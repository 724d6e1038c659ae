// The sound sources PulseAudio (or PipeWire's PulseAudio server) offers, as GStreamer's device
// monitor sees them: whether a microphone chosen by name is there. Blocking (it asks the sound
// server); any thread but the interface's.
#pragma once

#include <string>

namespace tessarin::engine {

// Whether the source named `id` exists ("default": whether any input source exists). Monitors
// of outputs don't count as microphones.
[[nodiscard]] bool pulseSourceAvailable(const std::string& id);

}  // namespace tessarin::engine
