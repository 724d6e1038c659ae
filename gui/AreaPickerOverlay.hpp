// The area picker: a translucent full-screen layer over one display where a drag marks the area
// to record. Enter or a released drag accepts, Escape cancels. Coordinates are reported in the
// screen's pixels (the X11 root window's), as ximagesrc reads them.
#pragma once

#include <QRect>
#include <QWidget>

class QScreen;

namespace tessarin::gui {

class AreaPickerOverlay : public QWidget {
    Q_OBJECT
public:
    explicit AreaPickerOverlay(QScreen* screen, QWidget* parent = nullptr);

    // The marked area in the screen's device pixels; empty until one is marked.
    [[nodiscard]] QRect area() const;

signals:
    void picked(const QRect& area);
    void cancelled();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QScreen* screen_;
    QPoint anchor_;
    QRect selection_;  // widget coordinates
    bool dragging_ = false;
};

}  // namespace tessarin::gui
