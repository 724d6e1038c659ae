#include "gui/ElidedLabel.hpp"

#include <QFontMetrics>
#include <QResizeEvent>

namespace tessarin::gui {

ElidedLabel::ElidedLabel(Qt::TextElideMode mode, QWidget* parent) : QLabel(parent), mode_(mode) {
    setTextFormat(Qt::PlainText);
    setWordWrap(false);
    setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
}

void ElidedLabel::setFullText(const QString& text) {
    fullText_ = text;
    setToolTip(text);
    refresh();
    updateGeometry();
}

bool ElidedLabel::isElided() const {
    return text() != fullText_;
}

QSize ElidedLabel::minimumSizeHint() const {
    return {fontMetrics().horizontalAdvance(QStringLiteral("W…")),
            QLabel::minimumSizeHint().height()};
}

QSize ElidedLabel::sizeHint() const {
    return {fontMetrics().horizontalAdvance(fullText_) + 2, QLabel::sizeHint().height()};
}

void ElidedLabel::resizeEvent(QResizeEvent* event) {
    QLabel::resizeEvent(event);
    refresh();
}

void ElidedLabel::refresh() {
    setText(fontMetrics().elidedText(fullText_, mode_, std::max(contentsRect().width(), 0)));
}

}  // namespace tessarin::gui
