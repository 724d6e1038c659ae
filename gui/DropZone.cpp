#include "gui/DropZone.hpp"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QPushButton>
#include <QVBoxLayout>

#include "gui/UIScale.hpp"

namespace tessarin::gui {
namespace {

QList<QUrl> localURLs(const QMimeData* data) {
    QList<QUrl> urls;
    if (data == nullptr || !data->hasUrls()) {
        return urls;
    }
    for (const QUrl& url : data->urls()) {
        if (url.isLocalFile()) {
            urls.append(url);
        }
    }
    return urls;
}

}  // namespace

DropZone::DropZone(QWidget* parent)
    : QFrame(parent),
      prompt_(new QLabel(tr("Drop videos or folders here"), this)),
      addFiles_(new QPushButton(tr("Add Files…"), this)) {
    setObjectName("dropZone");
    setAcceptDrops(true);
    setFrameShape(QFrame::StyledPanel);
    setFrameShadow(QFrame::Sunken);
    setAccessibleName(tr("Drop zone for videos and folders"));
    setMinimumHeight(110);

    prompt_->setAlignment(Qt::AlignCenter);
    setFontRole(prompt_, 1.15, false);
    addFiles_->setObjectName("addFilesButton");
    addFiles_->setToolTip(tr("Choose videos to add (Ctrl+O)"));
    connect(addFiles_, &QPushButton::clicked, this, &DropZone::addFilesRequested);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(10);
    layout->addStretch();
    layout->addWidget(prompt_);
    layout->addWidget(addFiles_, 0, Qt::AlignHCenter);
    layout->addStretch();
}

void DropZone::dragEnterEvent(QDragEnterEvent* event) {
    if (!localURLs(event->mimeData()).isEmpty()) {
        event->acceptProposedAction();
        setHighlighted(true);
    }
}

void DropZone::dragLeaveEvent(QDragLeaveEvent* event) {
    setHighlighted(false);
    QFrame::dragLeaveEvent(event);
}

void DropZone::dropEvent(QDropEvent* event) {
    setHighlighted(false);
    const QList<QUrl> urls = localURLs(event->mimeData());
    if (urls.isEmpty()) {
        return;
    }
    event->acceptProposedAction();
    emit urlsDropped(urls);
}

void DropZone::setHighlighted(bool highlighted) {
    // The palette's highlight keeps the cue readable under dark and light themes alike.
    setFrameShadow(highlighted ? QFrame::Plain : QFrame::Sunken);
    setLineWidth(highlighted ? 2 : 1);
    setForegroundRole(highlighted ? QPalette::Highlight : QPalette::WindowText);
}

}  // namespace tessarin::gui
