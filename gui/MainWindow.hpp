// The main window: the drop zone, the action chips, the batch trim, the queue with Convert and
// Clear Finished, the notice banner, the confirmation of large batches, the review before a
// fast cut and the quit alert.
//
// Threads: main thread only, like the models it binds to. It owns no state of its own beyond
// what is on screen; every decision is the queue's.
#pragma once

#include <QMainWindow>
#include <QMessageBox>
#include <QPointer>

#include "app/queue/SourceFacts.hpp"
#include "app/shell/TessarinApp.hpp"
#include "gui/ConsentSheet.hpp"
#include "gui/SettingsWindow.hpp"

class QLabel;
class QLineEdit;
class QPushButton;

namespace tessarin::gui {

class ActionChips;
class DropZone;
class FastCutReviewDialog;
class NoticeBanner;
class WindowNotices;
class QueueList;
class RecordingRecoveryDialog;
class RecordingToolbar;
class RecordScreenDialog;
class TrimEditorDialog;

class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindow(app::TessarinApp& app, QWidget* parent = nullptr);
    ~MainWindow() override;

    // What a drop on the window does: under "Ask each time" a folder panel first (cancelling it
    // drops the drop), then the queue's intake.
    void dropURLs(const QList<QUrl>& urls);
    // Opens (or raises) the settings window.
    SettingsWindow* showSettings();
    // The settings window on its Desktop tab (file-manager actions, command-line tool, updates,
    // support report).
    SettingsWindow* showDesktopSettings();
    // The header's menu: "File-Manager Actions…", "Install Command-Line Tool…",
    // "Copy Support Report", "Check for Updates…".
    [[nodiscard]] QMenu* desktopMenu() const { return desktopMenu_; }

    [[nodiscard]] ActionChips* chips() const { return chips_; }
    [[nodiscard]] QueueList* queueList() const { return queueList_; }
    [[nodiscard]] NoticeBanner* notice() const { return notice_; }
    // The file-manager actions' health and the transcripts that couldn't be saved.
    [[nodiscard]] WindowNotices* notices() const { return notices_; }
    // The confirmation of a large batch while it is open.
    [[nodiscard]] QMessageBox* pendingIntakeDialog() const { return pendingDialog_; }
    // The review of a fast cut while it is open.
    [[nodiscard]] FastCutReviewDialog* fastCutReviewDialog() const;
    // The offer to recover unfinished recordings while it is open.
    [[nodiscard]] RecordingRecoveryDialog* recordingRecoveryDialog() const;
    // The upload notice while it is open.
    [[nodiscard]] ConsentSheet* consentSheet() const { return consentSheet_; }
    // The trim editor while it is open.
    [[nodiscard]] TrimEditorDialog* trimEditorDialog() const;
    // Opens the trim editor for row `id` (a row that waits); `withPlayer` false leaves the
    // player out.
    TrimEditorDialog* openTrimEditor(const engine::Uuid& id, bool withPlayer = true);
    // "Record Screen…": the source dialog, then the recording toolbar.
    void showRecordScreen();
    // The source dialog while it is open, and the toolbar of the take.
    [[nodiscard]] RecordScreenDialog* recordScreenDialog() const;
    [[nodiscard]] RecordingToolbar* recordingToolbar() const { return recordingToolbar_; }

protected:
    void closeEvent(QCloseEvent* event) override;


private:
    QWidget* makeQueuePane();
    void addFiles();
    void removeFocusedRow();
    void showPendingIntake();
    void showFastCutReview();
    void offerRecordingRecovery();
    // Quit with a take running: asks, then closes once the take is saved.
    void askRecordingQuit();
    void updateTrim();
    void updateButtons();
    // The queue refused transcription for want of approval: the notice, and on approval the
    // start again.
    void askUploadConsent(bool video);

    app::TessarinApp& app_;
    app::QueueModel& queue_;
    NoticeBanner* notice_ = nullptr;
    WindowNotices* notices_ = nullptr;
    DropZone* dropZone_ = nullptr;
    ActionChips* chips_ = nullptr;
    QLineEdit* trimStart_ = nullptr;
    QLineEdit* trimEnd_ = nullptr;
    QLabel* trimNote_ = nullptr;
    QueueList* queueList_ = nullptr;
    QPushButton* convert_ = nullptr;
    QPushButton* clearFinished_ = nullptr;
    QPushButton* settings_ = nullptr;
    QMenu* desktopMenu_ = nullptr;
    QPointer<QMessageBox> pendingDialog_;
    QPointer<FastCutReviewDialog> fastCutDialog_;
    QPointer<TrimEditorDialog> trimEditor_;
    app::SourceFactsLoader* sourceFacts_ = nullptr;
    QPointer<SettingsWindow> settingsWindow_;
    QPointer<RecordingRecoveryDialog> recoveryDialog_;
    QPointer<ConsentSheet> consentSheet_;
    QPointer<RecordScreenDialog> recordDialog_;
    RecordingToolbar* recordingToolbar_ = nullptr;
    QPushButton* record_ = nullptr;
    QPointer<QMessageBox> recordingQuitAlert_;  // "Save the recording before quitting?"
    bool recordingQuitApproved_ = false;  // the take is saved: the next close goes through
};

}  // namespace tessarin::gui
