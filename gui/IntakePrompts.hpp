// What link intake needs from the window: raising it, and asking before a link from an unknown
// sender adds files ("Add" / "Cancel").
#pragma once

class QWidget;

namespace tessarin::app {
class URLIntake;
}

namespace tessarin::gui {

// Brings `window` to the front (showing it first when hidden or minimised).
void raiseWindow(QWidget& window);

// Wires `intake`'s bringToFront and confirmUntrusted to `window`, which must outlive `intake`'s
// use of them.
void connectIntakePrompts(app::URLIntake& intake, QWidget& window);

}  // namespace tessarin::gui
