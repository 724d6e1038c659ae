// The main window's screen recording: "Record Screen…", the recovery offer at start, and the
// question asked when the window closes with a take running.
#include <QMessageBox>
#include <QPushButton>

#include "gui/MainWindow.hpp"
#include "gui/RecordScreenDialog.hpp"
#include "gui/RecordingRecoveryDialog.hpp"
#include "gui/RecordingToolbar.hpp"

namespace tessarin::gui {

RecordingRecoveryDialog* MainWindow::recordingRecoveryDialog() const {
    return recoveryDialog_;
}

void MainWindow::offerRecordingRecovery() {
    app::RecordingRecoveryModel& model = app_.recordingRecovery();
    if (recoveryDialog_ || model.postponed() || model.unfinishedTakes().empty()) {
        return;
    }
    recoveryDialog_ = new RecordingRecoveryDialog(model, this);
    recoveryDialog_->setAttribute(Qt::WA_DeleteOnClose);
    recoveryDialog_->open();
}

RecordScreenDialog* MainWindow::recordScreenDialog() const { return recordDialog_; }

void MainWindow::showRecordScreen() {
    app::RecordingSessionModel& recording = app_.recordingSession();
    if (!recording.available() || recording.isLive() || recordDialog_) {
        return;
    }
    recordDialog_ = new RecordScreenDialog(recording.preferences(), this);
    recordDialog_->setAttribute(Qt::WA_DeleteOnClose);
    connect(recordDialog_, &QDialog::accepted, this, [this] {
        app_.recordingSession().start(recordDialog_->target(), recordDialog_->preferences());
        recordingToolbar_->show();
        recordingToolbar_->raise();
    });
    recordDialog_->open();
}

void MainWindow::askRecordingQuit() {
    if (recordingQuitAlert_) {
        recordingQuitAlert_->raise();
        return;
    }
    using Model = app::RecordingSessionModel;
    auto* alert = new QMessageBox(QMessageBox::Question, QString::fromUtf8(Model::kQuitAlertTitle),
                                  QString::fromUtf8(Model::kQuitAlertTitle), QMessageBox::NoButton,
                                  this);
    alert->setObjectName("recordingQuitAlert");
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert->setInformativeText(QString::fromUtf8(Model::kQuitAlertText));
    QPushButton* save =
        alert->addButton(QString::fromUtf8(Model::kQuitAlertSave), QMessageBox::AcceptRole);
    save->setObjectName("stopSaveAndQuit");
    QPushButton* keep =
        alert->addButton(QString::fromUtf8(Model::kQuitAlertKeep), QMessageBox::RejectRole);
    keep->setObjectName("keepRecording");
    alert->setDefaultButton(save);
    alert->setEscapeButton(keep);
    recordingQuitAlert_ = alert;
    app::RecordingSessionModel& recording = app_.recordingSession();
    connect(alert, &QMessageBox::finished, this, [alert, save, &recording] {
        if (alert->clickedButton() == save) {
            recording.confirm();
        } else {
            recording.dismissConfirmation();
        }
    });
    // The answer comes once the take has settled (or the wait gave up, and the window stays).
    recording.handleQuit([this](bool mayQuit) {
        if (recordingQuitAlert_) {
            recordingQuitAlert_->close();
        }
        if (mayQuit) {
            recordingQuitApproved_ = true;
            close();
        }
    });
    alert->open();
}

}  // namespace tessarin::gui
