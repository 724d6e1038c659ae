// Desktop notifications through the freedesktop.org notification service on the session bus.
// Without a session bus or a notification daemon, a line is logged and nothing else happens.
#pragma once

#include <string>

namespace tessarin::app {

class DesktopNotifier {
public:
    // Main thread. Returns at once; the service's answer is not waited for.
    void post(const std::string& title, const std::string& body);
};

}  // namespace tessarin::app
