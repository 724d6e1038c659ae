// A desktop of the test's own for screen recording: an Xvfb server on a free display (found by
// -displayfd) with a moving picture drawn into it, and a PulseAudio server on a private socket
// whose default output is a null sink playing a 440 Hz tone. Nothing touches the developer's
// display or sound server: every child gets the private DISPLAY, PULSE_SERVER and
// XDG_RUNTIME_DIR, and WAYLAND_DISPLAY is removed.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/TempDir.hpp"

namespace tessarin::test {

class PrivateDesktop {
public:
    // Starts both servers, the picture (a bouncing ball, 1280x720 at the top left) and the
    // tone; fails the test (and leaves `ready()` false) when one does not come up.
    explicit PrivateDesktop(int width = 1920, int height = 1080);
    ~PrivateDesktop();  // stops what it started, by process id
    PrivateDesktop(const PrivateDesktop&) = delete;
    PrivateDesktop& operator=(const PrivateDesktop&) = delete;

    [[nodiscard]] bool ready() const { return ready_; }
    [[nodiscard]] const std::string& display() const { return display_; }
    // "KEY=value" entries that point a child at this desktop.
    [[nodiscard]] std::vector<std::string> environment() const;
    // Points this process at the desktop (for in-process captures).
    void useInThisProcess() const;
    // Stops the X server, as when a display goes away.
    void killDisplay();

private:
    pid_t spawn(const std::vector<std::string>& arguments, int keepDescriptor = -1);
    void stop(pid_t& pid);

    TempDir home_;
    std::string display_;
    std::string pulseSocket_;
    pid_t xvfb_ = -1;
    pid_t picture_ = -1;
    pid_t pulse_ = -1;
    pid_t tone_ = -1;
    bool ready_ = false;
};

}  // namespace tessarin::test
