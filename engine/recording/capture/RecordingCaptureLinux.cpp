// Chooses the platform capture: ximagesrc on an X11 session, the ScreenCast portal elsewhere.
#include <fmt/format.h>

#include <cstdlib>
#include <stdexcept>

#include "engine/recording/RecordingError.hpp"
#include "engine/recording/capture/GstRecordingCapture.hpp"
#include "engine/recording/capture/PortalScreenCast.hpp"
#include "engine/recording/capture/X11Sources.hpp"

namespace tessarin::engine {

namespace {

bool usesX11() {
    const char* display = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return display != nullptr && *display != '\0' && (wayland == nullptr || *wayland == '\0');
}

GstCaptureSource x11Source(const RecordingCaptureRequest& request) {
    installX11ConnectionLossHandler();
    const X11Sources sources;
    const std::optional<RecordingRect> bounds = sources.bounds(request.target);
    if (!bounds) {
        throw RecordingError(RecordingError::Case::sourceUnavailable);
    }
    const bool cursor = request.preferences.showsCursor;
    std::string element;
    if (request.target.mode == RecordingMode::window || request.target.mode == RecordingMode::app) {
        element = fmt::format("ximagesrc display-name=\"{}\" xid={} use-damage=false show-pointer={}",
                              sources.displayName(), *request.target.windowID, cursor);
    } else {
        element = fmt::format(
            "ximagesrc display-name=\"{}\" use-damage=false show-pointer={} startx={} starty={} "
            "endx={} endy={}",
            sources.displayName(), cursor, bounds->x, bounds->y, bounds->x + bounds->width - 1,
            bounds->y + bounds->height - 1);
    }
    return {element, {bounds->width, bounds->height}, true, nullptr};
}

}  // namespace

std::unique_ptr<RecordingCaptureControlling> makeRecordingCapture(RecordingCaptureRequest request) {
    GstCaptureSource source = usesX11() ? x11Source(request) : portalSource(request);
    return makeGstRecordingCapture(std::move(request), std::move(source));
}

}  // namespace tessarin::engine
