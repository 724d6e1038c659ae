// The interface scale (100–200 %): multiplies every font size and the spacing of layouts. It
// never affects output. Main thread only.
#pragma once

class QWidget;

namespace tessarin::gui {

// The scale last applied; 1.0 until applyUIScale is called.
[[nodiscard]] double currentUIScale();

// `pixels` at the current scale, rounded.
[[nodiscard]] int scaled(int pixels);

// Sets the application font to the platform font times `scale`, and scales the margins and
// spacing of every layout under each top-level window. The unscaled values are remembered on
// first sight, so applying again never compounds.
void applyUIScale(double scale);

// Scales the layouts and role fonts under `root` to the current scale: for widgets made after
// the last applyUIScale (queue rows, rebuilt chips).
void scaleWidgetTree(QWidget* root);

// Gives `widget` a font relative to the application font (a heading: 1.3, bold), kept across
// scale changes.
void setFontRole(QWidget* widget, double sizeFactor, bool bold);

}  // namespace tessarin::gui
