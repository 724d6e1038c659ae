// The queue's rows, in the queue's order, kept in step with the model: rows are made and
// dropped as items come and go, and updated in place as they change, so that a progress bar
// never flickers.
#pragma once

#include <QScrollArea>
#include <map>

#include "app/queue/QueueModel.hpp"
#include "app/queue/SourceFacts.hpp"

class QLabel;
class QVBoxLayout;

namespace tessarin::gui {

class QueueRowWidget;

class QueueList : public QScrollArea {
    Q_OBJECT

public:
    // `thumbnails`, a loader of the thumbnail task, when given, draws each row's first frame once
    // the queue's probe found a picture.
    explicit QueueList(app::QueueModel& queue, app::SourceFactsLoader* thumbnails = nullptr,
                       QWidget* parent = nullptr);

    [[nodiscard]] QueueRowWidget* row(const engine::Uuid& id) const;
    [[nodiscard]] std::size_t rowCount() const { return rows_.size(); }

signals:
    void showInFolderRequested(const QString& path);
    void openRequested(const QString& path);
    void trimRequested(const engine::Uuid& id);

private:
    // Asks for the thumbnail of `item` once its picture is known, or shows the one that came.
    void showThumbnail(const app::QueueItem& item, QueueRowWidget* row);

    void reload();
    void reloadItem(const QString& id);

    app::QueueModel& queue_;
    app::SourceFactsLoader* thumbnails_;
    QWidget* content_;
    QVBoxLayout* rowsLayout_;
    QLabel* empty_;
    std::map<engine::Uuid, QueueRowWidget*> rows_;
};

}  // namespace tessarin::gui
