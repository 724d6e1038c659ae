#include "gui/TrimTimeline.hpp"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPalette>
#include <algorithm>
#include <cmath>

#include "app/trim/TrimEditorTypes.hpp"

namespace tessarin::gui {

namespace {

constexpr int kMargin = 8;  // room for a handle at either end of the track
constexpr int kGrab = 6;    // how near a handle a press must land to take it
constexpr int kHandleWidth = 6;

QString secondsText(double seconds) {
    return QString::fromStdString(app::editorTimeText(seconds)) + QStringLiteral(" s");
}

}  // namespace

TrimTimeline::TrimTimeline(QWidget* parent) : QWidget(parent) {
    setFocusPolicy(Qt::StrongFocus);
    setMouseTracking(false);
    setAccessibleName(tr("Timeline"));
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    updateAccessibleText();
}

QSize TrimTimeline::sizeHint() const {
    return {400, 36};
}

QSize TrimTimeline::minimumSizeHint() const {
    return {120, 36};
}

void TrimTimeline::setDuration(std::optional<double> seconds) {
    if (seconds && !(std::isfinite(*seconds) && *seconds > 0)) {
        seconds.reset();
    }
    duration_ = seconds;
    const double length = duration_.value_or(0);
    playhead_ = std::clamp(playhead_, 0.0, length);
    start_ = std::clamp(start_, 0.0, length);
    end_ = std::clamp(end_, start_, length);
    updateAccessibleText();
    update();
}

void TrimTimeline::setPlayhead(double seconds) {
    playhead_ = std::clamp(seconds, 0.0, duration_.value_or(0));
    updateAccessibleText();
    update();
}

void TrimTimeline::setHandles(double start, double end) {
    const double length = duration_.value_or(0);
    start_ = std::clamp(start, 0.0, length);
    end_ = std::clamp(end, start_, length);
    updateAccessibleText();
    update();
}

void TrimTimeline::setHandlesEnabled(bool enabled) {
    handlesEnabled_ = enabled;
    if (!enabled) {
        active_ = Part::playhead;
        dragging_.reset();
    }
    updateAccessibleText();
    update();
}

void TrimTimeline::setFrameStep(double seconds) {
    if (std::isfinite(seconds) && seconds > 0) {
        frameStep_ = seconds;
    }
}

QRect TrimTimeline::track() const {
    return rect().adjusted(kMargin, 10, -kMargin, -10);
}

int TrimTimeline::xOf(double seconds) const {
    const QRect area = track();
    if (!duration_) {
        return area.left();
    }
    return area.left() +
           static_cast<int>(std::lround(seconds / *duration_ * std::max(area.width() - 1, 1)));
}

double TrimTimeline::secondsAt(int x) const {
    const QRect area = track();
    if (!duration_) {
        return 0;
    }
    const double fraction =
        static_cast<double>(x - area.left()) / static_cast<double>(std::max(area.width() - 1, 1));
    return std::clamp(fraction, 0.0, 1.0) * *duration_;
}

QPoint TrimTimeline::pointOf(Part part) const {
    return {xOf(valueOf(part)), track().center().y()};
}

double TrimTimeline::valueOf(Part part) const {
    switch (part) {
        case Part::start:
            return start_;
        case Part::end:
            return end_;
        case Part::playhead:
            break;
    }
    return playhead_;
}

void TrimTimeline::move(Part part, double seconds) {
    if (!duration_) {
        return;
    }
    const double length = *duration_;
    seconds = std::clamp(seconds, 0.0, length);
    switch (part) {
        case Part::playhead:
            playhead_ = seconds;
            emit playheadMoved(playhead_);
            break;
        case Part::start:
            start_ = std::min(seconds, end_);
            emit handlesMoved(start_, end_);
            break;
        case Part::end:
            end_ = std::max(seconds, start_);
            emit handlesMoved(start_, end_);
            break;
    }
    updateAccessibleText();
    update();
}

void TrimTimeline::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton || !duration_) {
        QWidget::mousePressEvent(event);
        return;
    }
    const int x = event->position().toPoint().x();
    Part part = Part::playhead;
    if (handlesEnabled_) {
        // The nearer handle wins, so that two handles at one place can still be pulled apart.
        const int toStart = std::abs(x - xOf(start_));
        const int toEnd = std::abs(x - xOf(end_));
        if (std::min(toStart, toEnd) <= kGrab) {
            part = toEnd < toStart || (toEnd == toStart && x > xOf(end_)) ? Part::end : Part::start;
        }
    }
    dragging_ = part;
    active_ = part;
    if (part == Part::playhead) {
        move(part, secondsAt(x));
    }
    update();
}

void TrimTimeline::mouseMoveEvent(QMouseEvent* event) {
    if (!dragging_) {
        QWidget::mouseMoveEvent(event);
        return;
    }
    move(*dragging_, secondsAt(event->position().toPoint().x()));
}

void TrimTimeline::mouseReleaseEvent(QMouseEvent* event) {
    if (dragging_) {
        move(*dragging_, secondsAt(event->position().toPoint().x()));
        dragging_.reset();
        return;
    }
    QWidget::mouseReleaseEvent(event);
}

void TrimTimeline::keyPressEvent(QKeyEvent* event) {
    if (!duration_) {
        QWidget::keyPressEvent(event);
        return;
    }
    const double step = event->modifiers().testFlag(Qt::ShiftModifier) ? 1.0 : frameStep_;
    switch (event->key()) {
        case Qt::Key_Up:
        case Qt::Key_Down: {
            if (!handlesEnabled_) {
                break;
            }
            const int forward = event->key() == Qt::Key_Down ? 1 : 2;
            active_ = static_cast<Part>((static_cast<int>(active_) + forward) % 3);
            updateAccessibleText();
            update();
            return;
        }
        case Qt::Key_Left:
            move(active_, valueOf(active_) - step);
            return;
        case Qt::Key_Right:
            move(active_, valueOf(active_) + step);
            return;
        case Qt::Key_Home:
            move(active_, 0);
            return;
        case Qt::Key_End:
            move(active_, *duration_);
            return;
        case Qt::Key_I:
            if (handlesEnabled_) {
                move(Part::start, playhead_);
                return;
            }
            break;
        case Qt::Key_O:
            if (handlesEnabled_) {
                move(Part::end, playhead_);
                return;
            }
            break;
        default:
            break;
    }
    QWidget::keyPressEvent(event);
}

void TrimTimeline::updateAccessibleText() {
    const QString part = active_ == Part::start ? tr("Start handle")
                         : active_ == Part::end ? tr("End handle")
                                                : tr("Playhead");
    setAccessibleDescription(
        tr("%1 selected. Playhead %2, start %3, end %4.")
            .arg(part, secondsText(playhead_), secondsText(start_), secondsText(end_)));
    setToolTip(
        tr("Drag the handles to choose the range, then click Trim. Keys: Up/Down choose "
           "playhead or handle, Left/Right step, I and O set start and end here."));
}

void TrimTimeline::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QPalette colours = palette();
    const QRect area = track();
    painter.setPen(Qt::NoPen);
    painter.setBrush(colours.color(QPalette::Mid));
    painter.drawRoundedRect(area, 3, 3);
    if (!duration_) {
        return;
    }
    const bool enabled = isEnabled() && handlesEnabled_;
    QColor range = colours.color(QPalette::Highlight);
    range.setAlpha(enabled ? 160 : 70);
    painter.setBrush(range);
    painter.drawRect(QRect(QPoint(xOf(start_), area.top()), QPoint(xOf(end_), area.bottom())));

    const auto drawHandle = [&](Part part) {
        const int x = xOf(valueOf(part));
        const bool focused = hasFocus() && active_ == part;
        painter.setBrush(enabled ? colours.color(QPalette::HighlightedText)
                                 : colours.color(QPalette::Midlight));
        painter.setPen(
            QPen(colours.color(focused ? QPalette::Highlight : QPalette::Dark), focused ? 2 : 1));
        painter.drawRect(
            QRect(x - kHandleWidth / 2, rect().top() + 4, kHandleWidth, rect().height() - 8));
    };
    drawHandle(Part::start);
    drawHandle(Part::end);

    const int x = xOf(playhead_);
    const bool focused = hasFocus() && active_ == Part::playhead;
    painter.setPen(QPen(colours.color(QPalette::WindowText), focused ? 3 : 2));
    painter.drawLine(x, rect().top() + 1, x, rect().bottom() - 1);
}

}  // namespace tessarin::gui
