#include "engine/recording/capture/PortalScreenCast.hpp"

#include <stdexcept>

namespace tessarin::engine {

GstCaptureSource portalSource(const RecordingCaptureRequest&) {
    throw std::runtime_error(
        "Screen sources could not be loaded. Recording on Wayland needs the desktop's screen "
        "sharing portal, which this build does not reach yet.");
}

}  // namespace tessarin::engine
