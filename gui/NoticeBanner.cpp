#include "gui/NoticeBanner.hpp"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QToolButton>

namespace tessarin::gui {

NoticeBanner::NoticeBanner(QWidget* parent)
    : QFrame(parent),
      label_(new QLabel(this)),
      dismiss_(new QToolButton(this)),
      layout_(new QHBoxLayout(this)) {
    setObjectName("noticeBanner");
    setFrameShape(QFrame::StyledPanel);
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::AlternateBase);

    auto* icon = new QLabel(this);
    const int iconSize = style()->pixelMetric(QStyle::PM_SmallIconSize);
    icon->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxInformation).pixmap(iconSize));
    icon->setAlignment(Qt::AlignTop);

    label_->setObjectName("noticeText");
    label_->setWordWrap(true);
    label_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label_->setTextFormat(Qt::PlainText);

    dismiss_->setObjectName("dismissNotice");
    dismiss_->setText(tr("Dismiss"));
    dismiss_->setAccessibleName(tr("Dismiss notice"));
    dismiss_->setAutoRaise(true);
    connect(dismiss_, &QToolButton::clicked, this, &NoticeBanner::dismissed);

    layout_->setContentsMargins(10, 8, 6, 8);
    layout_->setSpacing(8);
    layout_->addWidget(icon);
    layout_->addWidget(label_, 1);
    layout_->addWidget(dismiss_, 0, Qt::AlignTop);
    setVisible(false);
}

void NoticeBanner::setText(const QString& text) {
    label_->setText(text);
    setVisible(!text.isEmpty());
}

QPushButton* NoticeBanner::addButton(const QString& text, const QString& objectName) {
    auto* button = new QPushButton(text, this);
    button->setObjectName(objectName);
    layout_->insertWidget(layout_->indexOf(dismiss_), button, 0, Qt::AlignTop);
    return button;
}

QString NoticeBanner::text() const {
    return label_->text();
}

}  // namespace tessarin::gui
