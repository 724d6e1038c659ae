#include "engine/recording/capture/X11Sources.hpp"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "engine/recording/capture/X11ConnectionLoss.hpp"

namespace tessarin::engine {

namespace {

struct DisplayCloser {
    void operator()(Display* display) const { XCloseDisplay(display); }
};
using DisplayHandle = std::unique_ptr<Display, DisplayCloser>;

// Protocol errors (a window that vanished between listing and asking) are answered per call.
int ignoreProtocolError(Display*, XErrorEvent*) { return 0; }

DisplayHandle open(const std::string& name) {
    installX11ConnectionLossHandler();
    return DisplayHandle(XOpenDisplay(name.empty() ? nullptr : name.c_str()));
}

std::optional<std::vector<unsigned long>> cardinals(Display* display, Window window,
                                                    const char* property, Atom type) {
    const Atom atom = XInternAtom(display, property, True);
    if (atom == None) {
        return std::nullopt;
    }
    Atom actualType = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(display, window, atom, 0, 4096, False, type, &actualType, &format,
                           &count, &remaining, &data) != Success ||
        data == nullptr) {
        return std::nullopt;
    }
    std::vector<unsigned long> values;
    if (format == 32) {
        const auto* items = reinterpret_cast<const unsigned long*>(data);
        values.assign(items, items + count);
    }
    XFree(data);
    return values;
}

std::string windowTitle(Display* display, Window window) {
    const Atom utf8 = XInternAtom(display, "UTF8_STRING", False);
    const Atom netName = XInternAtom(display, "_NET_WM_NAME", False);
    Atom actualType = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* data = nullptr;
    std::string title;
    if (XGetWindowProperty(display, window, netName, 0, 1024, False, utf8, &actualType, &format,
                           &count, &remaining, &data) == Success &&
        data != nullptr) {
        title.assign(reinterpret_cast<const char*>(data), count);
        XFree(data);
    }
    if (title.empty()) {
        char* name = nullptr;
        if (XFetchName(display, window, &name) != 0 && name != nullptr) {
            title = name;
            XFree(name);
        }
    }
    return title;
}

std::optional<RecordingRect> windowBounds(Display* display, Window window) {
    XWindowAttributes attributes{};
    if (XGetWindowAttributes(display, window, &attributes) == 0) {
        return std::nullopt;
    }
    int x = 0;
    int y = 0;
    Window child = None;
    XTranslateCoordinates(display, window, DefaultRootWindow(display), 0, 0, &x, &y, &child);
    return RecordingRect{x, y, attributes.width, attributes.height};
}

std::vector<X11Display> monitors(Display* display) {
    std::vector<X11Display> result;
    int count = 0;
    XRRMonitorInfo* info = XRRGetMonitors(display, DefaultRootWindow(display), True, &count);
    for (int i = 0; info != nullptr && i < count; ++i) {
        char* name = info[i].name != None ? XGetAtomName(display, info[i].name) : nullptr;
        result.push_back({static_cast<uint32_t>(i), name != nullptr ? name : "",
                          {info[i].x, info[i].y, info[i].width, info[i].height}});
        if (name != nullptr) {
            XFree(name);
        }
    }
    if (info != nullptr) {
        XRRFreeMonitors(info);
    }
    if (result.empty()) {
        // A server without RandR monitors (some virtual ones) still has its root window.
        const Screen* screen = DefaultScreenOfDisplay(display);
        result.push_back({0, "screen", {0, 0, screen->width, screen->height}});
    }
    return result;
}

bool inside(const RecordingRect& inner, const RecordingRect& outer) {
    return inner.width > 0 && inner.height > 0 && inner.x >= outer.x && inner.y >= outer.y &&
           inner.x + inner.width <= outer.x + outer.width &&
           inner.y + inner.height <= outer.y + outer.height;
}

}  // namespace

const char* recordingModeName(RecordingMode mode) {
    switch (mode) {
        case RecordingMode::display: return "display";
        case RecordingMode::window: return "window";
        case RecordingMode::app: return "app";
        case RecordingMode::area: return "area";
    }
    return "display";
}

X11Sources::X11Sources(std::string displayName) : displayName_(std::move(displayName)) {
    if (displayName_.empty()) {
        if (const char* value = std::getenv("DISPLAY")) {
            displayName_ = value;
        }
    }
}

std::vector<X11Display> X11Sources::displays() const {
    const DisplayHandle display = open(displayName_);
    return display ? monitors(display.get()) : std::vector<X11Display>{};
}

std::vector<X11Window> X11Sources::windows() const {
    std::vector<X11Window> result;
    const DisplayHandle display = open(displayName_);
    if (!display) {
        return result;
    }
    const auto previous = XSetErrorHandler(ignoreProtocolError);
    const Window root = DefaultRootWindow(display.get());
    const auto clients = cardinals(display.get(), root, "_NET_CLIENT_LIST", XA_WINDOW);
    for (const unsigned long id : clients.value_or(std::vector<unsigned long>{})) {
        const auto bounds = windowBounds(display.get(), id);
        if (!bounds) {
            continue;
        }
        X11Window window{static_cast<uint32_t>(id), std::nullopt, windowTitle(display.get(), id),
                         *bounds};
        const auto pid = cardinals(display.get(), id, "_NET_WM_PID", XA_CARDINAL);
        if (pid && !pid->empty()) {
            window.pid = static_cast<int32_t>(pid->front());
        }
        result.push_back(std::move(window));
    }
    XSync(display.get(), False);
    XSetErrorHandler(previous);
    return result;
}

std::optional<RecordingRect> X11Sources::bounds(const RecordingTarget& target) const {
    const DisplayHandle display = open(displayName_);
    if (!display) {
        return std::nullopt;
    }
    if (target.mode == RecordingMode::window || target.mode == RecordingMode::app) {
        if (!target.windowID) {
            return std::nullopt;
        }
        const auto previous = XSetErrorHandler(ignoreProtocolError);
        auto result = windowBounds(display.get(), *target.windowID);
        XSync(display.get(), False);
        XSetErrorHandler(previous);
        return result;
    }
    for (const X11Display& monitor : monitors(display.get())) {
        if (monitor.id != target.displayID) {
            continue;
        }
        if (target.mode == RecordingMode::area) {
            if (!target.area || !inside(*target.area, monitor.bounds)) {
                return std::nullopt;
            }
            return target.area;
        }
        return monitor.bounds;
    }
    return std::nullopt;
}

bool X11Sources::isAvailable(const RecordingTarget& target) const {
    return bounds(target).has_value();
}

}  // namespace tessarin::engine
