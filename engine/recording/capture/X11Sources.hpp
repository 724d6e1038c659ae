// The X11 sources a take can record: monitors from RandR, top-level windows from the window
// manager's _NET_CLIENT_LIST (with _NET_WM_PID and _NET_WM_NAME), and whether a chosen target is
// still there. Each call opens its own connection to the display and closes it again, so any
// thread may call; a display that can't be opened gives empty lists and `false`.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/recording/capture/RecordingTarget.hpp"

namespace tessarin::engine {

struct X11Display {
    uint32_t id = 0;  // index in the RandR monitor list
    std::string name;
    RecordingRect bounds;
};

struct X11Window {
    uint32_t id = 0;
    std::optional<int32_t> pid;
    std::string title;
    RecordingRect bounds;  // root coordinates
};

class X11Sources {
public:
    // `displayName` empty: $DISPLAY.
    explicit X11Sources(std::string displayName = {});

    [[nodiscard]] std::vector<X11Display> displays() const;
    [[nodiscard]] std::vector<X11Window> windows() const;
    // Whether the server answers and the target's monitor or window exists. An area must lie in
    // its display.
    [[nodiscard]] bool isAvailable(const RecordingTarget& target) const;
    // The pixels the target covers in root coordinates, when it is there.
    [[nodiscard]] std::optional<RecordingRect> bounds(const RecordingTarget& target) const;
    [[nodiscard]] const std::string& displayName() const { return displayName_; }

private:
    std::string displayName_;
};

// Makes Xlib report a lost server connection instead of ending the process (its default), so
// that a display that goes away ends a take rather than the program. Idempotent; any thread.
void installX11ConnectionLossHandler();

}  // namespace tessarin::engine
