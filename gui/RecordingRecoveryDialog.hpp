// The offer after a start that found unfinished screen recordings: one row per take (when it
// began, its parts and length, and where it will be saved), and for the chosen one Recover or
// Move to Trash; Later leaves them all for the next start. The outcome of each action shows in
// the dialog's message line.
//
// Threads: main thread only. The model does the file work on its own threads.
#pragma once

#include <QDialog>

#include "app/recording/RecordingRecoveryModel.hpp"

class QLabel;
class QListWidget;
class QPushButton;

namespace tessarin::gui {

class RecordingRecoveryDialog : public QDialog {
    Q_OBJECT
public:
    explicit RecordingRecoveryDialog(app::RecordingRecoveryModel& model, QWidget* parent = nullptr);

    [[nodiscard]] QListWidget* takeList() const { return list_; }
    [[nodiscard]] QPushButton* recoverButton() const { return recover_; }
    [[nodiscard]] QPushButton* discardButton() const { return discard_; }
    [[nodiscard]] QPushButton* laterButton() const { return later_; }
    [[nodiscard]] QString message() const;

    // The text of one take's row.
    [[nodiscard]] static QString rowText(const engine::UnfinishedTake& take);

private:
    void fill();
    void refresh();
    void act(bool recover);

    app::RecordingRecoveryModel& model_;
    QListWidget* list_;
    QLabel* message_;
    QPushButton* recover_;
    QPushButton* discard_;
    QPushButton* later_;
};

}  // namespace tessarin::gui
