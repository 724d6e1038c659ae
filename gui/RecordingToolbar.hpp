// The recording toolbar: a small window that stays on top while a take runs, with the phase,
// the recorded time (or the countdown), Pause/Resume and Stop, and afterwards the saved file or
// the sentence that says what went wrong and what was kept.
#pragma once

#include <QWidget>

#include "app/recording/RecordingSessionModel.hpp"

class QLabel;
class QPushButton;

namespace tessarin::gui {

class RecordingToolbar : public QWidget {
    Q_OBJECT
public:
    explicit RecordingToolbar(app::RecordingSessionModel& model, QWidget* parent = nullptr);

    // "01:05" for 65 seconds, "1:01:05" past an hour.
    [[nodiscard]] static QString timeText(double seconds);

signals:
    // "Add to Queue" on a saved take: the file goes to the queue as any dropped file.
    void addToQueue(const QString& path);

private:
    void refresh();

    app::RecordingSessionModel& model_;
    QLabel* status_;
    QLabel* time_;
    QLabel* message_;
    QPushButton* pauseResume_;
    QPushButton* stop_;
    QPushButton* close_;
    QPushButton* discard_;
    QPushButton* addToQueue_;
    QPushButton* retry_;
    QPushButton* reveal_;
};

}  // namespace tessarin::gui
