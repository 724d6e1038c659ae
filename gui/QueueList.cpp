#include "gui/QueueList.hpp"

#include <QLabel>
#include <QVBoxLayout>

#include "gui/QueueRowWidget.hpp"
#include "gui/UIScale.hpp"

namespace tessarin::gui {

QueueList::QueueList(app::QueueModel& queue, app::SourceFactsLoader* thumbnails, QWidget* parent)
    : QScrollArea(parent),
      queue_(queue),
      thumbnails_(thumbnails),
      content_(new QWidget),
      rowsLayout_(new QVBoxLayout(content_)),
      empty_(new QLabel(tr("No files yet. Added videos wait here for an action."), content_)) {
    setObjectName("queueList");
    setWidgetResizable(true);
    // Rows shorten their texts to the width they get; they never scroll sideways.
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setFrameShape(QFrame::NoFrame);
    empty_->setAlignment(Qt::AlignCenter);
    empty_->setForegroundRole(QPalette::PlaceholderText);
    rowsLayout_->setContentsMargins(0, 0, 0, 0);
    rowsLayout_->setSpacing(6);
    rowsLayout_->addWidget(empty_);
    rowsLayout_->addStretch();
    setWidget(content_);

    connect(&queue_, &app::QueueModel::itemsChanged, this, &QueueList::reload);
    connect(&queue_, &app::QueueModel::itemChanged, this, &QueueList::reloadItem);
    if (thumbnails_ != nullptr) {
        connect(thumbnails_, &app::SourceFactsLoader::factsReady, this, [this](const QString& id) {
            const auto uuid = engine::Uuid::fromText(id.toStdString());
            if (QueueRowWidget* row = uuid ? this->row(*uuid) : nullptr) {
                row->setThumbnail(thumbnails_->facts(*uuid)->thumbnailPng);
            }
        });
    }
    reload();
}

QueueRowWidget* QueueList::row(const engine::Uuid& id) const {
    const auto found = rows_.find(id);
    return found == rows_.end() ? nullptr : found->second;
}

void QueueList::reload() {
    std::map<engine::Uuid, QueueRowWidget*> kept;
    for (const app::QueueItem& item : queue_.items()) {
        QueueRowWidget* row = nullptr;
        if (auto found = rows_.find(item.id); found != rows_.end()) {
            row = found->second;
            rows_.erase(found);
            row->update(item);
            showThumbnail(item, row);
        } else {
            row = new QueueRowWidget(item, content_);
            scaleWidgetTree(row);
            connect(row, &QueueRowWidget::cancelRequested, &queue_, &app::QueueModel::cancel);
            connect(row, &QueueRowWidget::removeRequested, &queue_, &app::QueueModel::remove);
            connect(row, &QueueRowWidget::showInFolderRequested, this,
                    &QueueList::showInFolderRequested);
            connect(row, &QueueRowWidget::openRequested, this, &QueueList::openRequested);
            connect(row, &QueueRowWidget::trimRequested, this, &QueueList::trimRequested);
            showThumbnail(item, row);
        }
        kept.emplace(item.id, row);
        // Re-inserting in model order keeps the layout's order the queue's order.
        rowsLayout_->removeWidget(row);
        rowsLayout_->insertWidget(static_cast<int>(kept.size()) - 1, row);
        row->show();
    }
    for (auto& [id, row] : rows_) {
        rowsLayout_->removeWidget(row);
        row->hide();
        row->deleteLater();
    }
    rows_ = std::move(kept);
    empty_->setVisible(rows_.empty());
}

void QueueList::reloadItem(const QString& id) {
    const auto uuid = engine::Uuid::fromText(id.toStdString());
    if (!uuid) {
        return;
    }
    const app::QueueItem* item = queue_.item(*uuid);
    QueueRowWidget* row = this->row(*uuid);
    if (item != nullptr && row != nullptr) {
        row->update(*item);
        showThumbnail(*item, row);
    }
}

void QueueList::showThumbnail(const app::QueueItem& item, QueueRowWidget* row) {
    if (thumbnails_ == nullptr || !item.sourceWidth) {
        return;
    }
    // A request for an id already asked does nothing.
    thumbnails_->request(item.id, item.source);
    if (const app::SourceFacts* known = thumbnails_->facts(item.id)) {
        row->setThumbnail(known->thumbnailPng);
    }
}

}  // namespace tessarin::gui
