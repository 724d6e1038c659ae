// The Wayland road: asks the desktop's ScreenCast portal (org.freedesktop.portal.ScreenCast over
// the session bus) for a stream of the chosen kind, and captures it with pipewiresrc on the
// PipeWire descriptor and node the portal hands over.
#pragma once

#include "engine/recording/capture/GstRecordingCapture.hpp"

namespace tessarin::engine {

// Throws std::runtime_error ("Screen sources could not be loaded. …") when there is no portal,
// the user refused, or the portal gave no stream.
[[nodiscard]] GstCaptureSource portalSource(const RecordingCaptureRequest& request);

}  // namespace tessarin::engine
