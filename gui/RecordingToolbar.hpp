// The recording toolbar: a small window that stays on top while a take runs, with the phase,
// the recorded time (or the countdown), Pause/Resume and Stop, and afterwards the saved file or
// the sentence that says what went wrong and what was kept. It is `expanded` (all of that) or
// `compact` (time, Pause/Resume and Stop only, so it covers little of what is being recorded),
// and it can show a short guide to its controls.
#pragma once

#include <QMessageBox>
#include <QPointer>
#include <QWidget>

#include "app/recording/RecordingSessionModel.hpp"

class QLabel;
class QPushButton;

namespace tessarin::gui {

class RecordingToolbar : public QWidget {
    Q_OBJECT
public:
    enum class Layout { expanded, compact };

    explicit RecordingToolbar(app::RecordingSessionModel& model, QWidget* parent = nullptr);

    [[nodiscard]] Layout toolbarLayout() const { return layout_; }
    // A finished take shows its result whatever the layout.
    void setToolbarLayout(Layout layout);
    [[nodiscard]] bool showingGuide() const { return showingGuide_; }
    void setShowingGuide(bool showing);

    // "01:05" for 65 seconds, "1:01:05" past an hour.
    [[nodiscard]] static QString timeText(double seconds);

signals:
    // "Add to Queue" on a saved take: the file goes to the queue as any dropped file.
    void addToQueue(const QString& path);

private:
    void refresh();
    // Asks about the session's pending discard or restart, once per question.
    void askConfirmation();

    app::RecordingSessionModel& model_;
    QLabel* status_;
    QLabel* time_;
    QLabel* message_;
    QPushButton* pauseResume_;
    QPushButton* stop_;
    QPushButton* close_;
    QPushButton* discard_;
    QPushButton* restart_;
    QPointer<QMessageBox> question_;
    QPushButton* addToQueue_;
    QPushButton* retry_;
    QPushButton* reveal_;
    QPushButton* layoutToggle_;
    QPushButton* guideButton_;
    QLabel* guide_;
    Layout layout_ = Layout::expanded;
    bool showingGuide_ = false;
};

}  // namespace tessarin::gui
