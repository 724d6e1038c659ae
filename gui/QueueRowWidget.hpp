// One queue row: the file, its action, its state with progress, the job's phase and warning,
// and the buttons that fit its state.
#pragma once

#include <QFrame>

#include "app/queue/QueueModel.hpp"

class QLabel;
class QProgressBar;
class QToolButton;

namespace tessarin::gui {

class QueueRowWidget : public QFrame {
    Q_OBJECT

public:
    explicit QueueRowWidget(const app::QueueItem& item, QWidget* parent = nullptr);

    [[nodiscard]] const engine::Uuid& itemID() const { return id_; }
    // Shows `item`, which must have this row's id.
    void update(const app::QueueItem& item);

    [[nodiscard]] QString stateText() const;

signals:
    void cancelRequested(const engine::Uuid& id);
    void removeRequested(const engine::Uuid& id);
    void showInFolderRequested(const QString& path);
    void openRequested(const QString& path);

private:
    QToolButton* makeButton(const QString& text, const QString& objectName);

    engine::Uuid id_;
    QString output_;
    QLabel* name_;
    QLabel* subtitle_;
    QLabel* state_;
    QProgressBar* progress_;
    QLabel* detail_;
    QLabel* warning_;
    QToolButton* cancel_;
    QToolButton* remove_;
    QToolButton* showInFolder_;
    QToolButton* open_;
};

}  // namespace tessarin::gui
