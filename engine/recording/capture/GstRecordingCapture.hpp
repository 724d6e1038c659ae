// The GStreamer capture: a pipeline whose video source is given as gst-launch text (ximagesrc
// for X11, pipewiresrc for a portal stream), plus pulsesrc branches for sound, each ending in an
// appsink whose samples are handed to the writer's serial queue. A bus thread of ours reports a
// stream that ends by itself.
#pragma once

#include <memory>
#include <string>

#include "engine/recording/capture/RecordingCapture.hpp"

namespace tessarin::engine {

struct GstCaptureSource {
    std::string videoSource;  // gst-launch text of the element(s) producing raw video
    RecordingSize contentSize;  // the pixels that source produces
    // Whether a lost X11 connection ends this source (its thread is then abandoned, not joined).
    bool usesX11 = false;
    // What must live as long as the capture (the portal's session), released after it.
    std::shared_ptr<void> keepAlive;
};

[[nodiscard]] std::unique_ptr<RecordingCaptureControlling> makeGstRecordingCapture(
    RecordingCaptureRequest request, GstCaptureSource source);

}  // namespace tessarin::engine
