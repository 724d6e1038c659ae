#include "gui/AreaPickerOverlay.hpp"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QScreen>
#include <algorithm>
#include <cstdlib>

namespace tessarin::gui {

namespace {

// The pixels between two corners of a drag: from 40 to 240 is 200 wide, not QRect's 201.
QRect spanned(QPoint from, QPoint to) {
    return QRect(QPoint(std::min(from.x(), to.x()), std::min(from.y(), to.y())),
                 QSize(std::abs(to.x() - from.x()), std::abs(to.y() - from.y())));
}

}  // namespace

AreaPickerOverlay::AreaPickerOverlay(QScreen* screen, QWidget* parent)
    : QWidget(parent, Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint),
      screen_(screen) {
    setObjectName("areaPicker");
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_DeleteOnClose);
    setCursor(Qt::CrossCursor);
    setAccessibleName(tr("Drag to choose the area to record"));
    setGeometry(screen->geometry());
}

QRect AreaPickerOverlay::area() const {
    if (selection_.isEmpty()) {
        return {};
    }
    const double ratio = screen_->devicePixelRatio();
    const QPoint origin = screen_->geometry().topLeft();
    const QRect global = selection_.translated(origin);
    return QRect(qRound(global.x() * ratio), qRound(global.y() * ratio),
                 qRound(global.width() * ratio), qRound(global.height() * ratio));
}

void AreaPickerOverlay::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), QColor(0, 0, 0, 90));
    if (!selection_.isEmpty()) {
        painter.setCompositionMode(QPainter::CompositionMode_Clear);
        painter.fillRect(selection_, Qt::transparent);
        painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
        painter.setPen(QPen(QColor(255, 80, 60), 2));
        painter.drawRect(selection_.adjusted(0, 0, -1, -1));
        const QRect pixels = area();
        painter.setPen(Qt::white);
        painter.drawText(selection_.topLeft() + QPoint(6, -6),
                         QStringLiteral("%1 × %2").arg(pixels.width()).arg(pixels.height()));
    }
    painter.setPen(Qt::white);
    painter.drawText(rect().adjusted(0, 24, 0, 0), Qt::AlignHCenter | Qt::AlignTop,
                     tr("Drag to choose an area. Enter records it, Esc cancels."));
}

void AreaPickerOverlay::mousePressEvent(QMouseEvent* event) {
    anchor_ = event->position().toPoint();
    selection_ = QRect(anchor_, QSize());
    dragging_ = true;
    update();
}

void AreaPickerOverlay::mouseMoveEvent(QMouseEvent* event) {
    if (dragging_) {
        selection_ = spanned(anchor_, event->position().toPoint());
        update();
    }
}

void AreaPickerOverlay::mouseReleaseEvent(QMouseEvent* event) {
    if (!dragging_) {
        return;
    }
    dragging_ = false;
    selection_ = spanned(anchor_, event->position().toPoint());
    update();
    if (selection_.width() >= 16 && selection_.height() >= 16) {
        emit picked(area());
        close();
    }
}

void AreaPickerOverlay::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Escape) {
        emit cancelled();
        close();
    } else if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) &&
               !selection_.isEmpty()) {
        emit picked(area());
        close();
    } else {
        QWidget::keyPressEvent(event);
    }
}

}  // namespace tessarin::gui
