// The trim editor's timeline: one track over the source's length with the playhead and two
// handles, start and end, that mark the range to keep. Dragging a handle moves it; pressing or
// dragging anywhere else moves the playhead. From the keyboard, Up and Down choose the playhead,
// the start handle or the end handle; Left and Right move it by one frame (with Shift, by one
// second), Home and End to either end; I and O put the start or end handle at the playhead.
// The handles are not a value of the editor until its Trim control confirms them.
#pragma once

#include <QWidget>
#include <optional>

namespace tessarin::gui {

class TrimTimeline : public QWidget {
    Q_OBJECT

public:
    enum class Part { playhead, start, end };

    explicit TrimTimeline(QWidget* parent = nullptr);

    // Nothing until the length is known; the timeline then takes no input.
    void setDuration(std::optional<double> seconds);
    void setPlayhead(double seconds);
    // Places the handles without telling anyone (the editor's confirmed range).
    void setHandles(double start, double end);
    // While visual editing is off the handles are shown but can't be moved.
    void setHandlesEnabled(bool enabled);
    // One keyboard step, one frame of the source.
    void setFrameStep(double seconds);

    [[nodiscard]] std::optional<double> duration() const { return duration_; }
    [[nodiscard]] double playhead() const { return playhead_; }
    [[nodiscard]] double start() const { return start_; }
    [[nodiscard]] double end() const { return end_; }
    [[nodiscard]] Part activePart() const { return active_; }
    // Where a part is drawn, in this widget's coordinates: for a pointer, or a test, to grab it.
    [[nodiscard]] QPoint pointOf(Part part) const;

    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override;

signals:
    // The user moved the playhead.
    void playheadMoved(double seconds);
    // The user moved a handle; start stays at or before end.
    void handlesMoved(double start, double end);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    [[nodiscard]] QRect track() const;
    [[nodiscard]] double secondsAt(int x) const;
    [[nodiscard]] int xOf(double seconds) const;
    [[nodiscard]] double valueOf(Part part) const;
    // Moves `part` to `seconds` (kept within the length, the handles in order) and signals.
    void move(Part part, double seconds);
    void updateAccessibleText();

    std::optional<double> duration_;
    double playhead_ = 0;
    double start_ = 0;
    double end_ = 0;
    double frameStep_ = 0.04;
    bool handlesEnabled_ = true;
    Part active_ = Part::playhead;
    std::optional<Part> dragging_;
};

}  // namespace tessarin::gui
