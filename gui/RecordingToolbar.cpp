#include "gui/RecordingToolbar.hpp"

#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

#include "gui/ShowInFolder.hpp"

namespace tessarin::gui {

using engine::RecordingPhase;

RecordingToolbar::RecordingToolbar(app::RecordingSessionModel& model, QWidget* parent)
    : QWidget(parent, Qt::Tool | Qt::WindowStaysOnTopHint), model_(model) {
    setObjectName("recordingToolbar");
    setWindowTitle(tr("Recording"));
    auto* layout = new QVBoxLayout(this);
    auto* row = new QHBoxLayout;
    status_ = new QLabel(this);
    status_->setObjectName("recordingStatus");
    time_ = new QLabel(this);
    time_->setObjectName("recordingTime");
    QFont mono = time_->font();
    mono.setFamily(QStringLiteral("monospace"));
    mono.setPointSizeF(mono.pointSizeF() * 1.3);
    time_->setFont(mono);
    pauseResume_ = new QPushButton(this);
    pauseResume_->setObjectName("pauseResumeRecording");
    stop_ = new QPushButton(tr("Stop"), this);
    stop_->setObjectName("stopRecording");
    close_ = new QPushButton(tr("Close"), this);
    close_->setObjectName("closeRecording");
    discard_ = new QPushButton(tr("Discard…"), this);
    discard_->setObjectName("discardRecording");
    restart_ = new QPushButton(tr("Restart…"), this);
    restart_->setObjectName("restartRecording");
    addToQueue_ = new QPushButton(tr("Add to Queue"), this);
    addToQueue_->setObjectName("addRecordingToQueue");
    retry_ = new QPushButton(tr("Retry Saving"), this);
    retry_->setObjectName("retrySavingRecording");
    reveal_ = new QPushButton(tr("Reveal Recovery Files"), this);
    reveal_->setObjectName("revealRecordingFiles");
    row->addWidget(status_);
    row->addWidget(time_);
    row->addStretch();
    row->addWidget(pauseResume_);
    row->addWidget(stop_);
    row->addWidget(restart_);
    row->addWidget(discard_);
    row->addWidget(addToQueue_);
    row->addWidget(retry_);
    row->addWidget(reveal_);
    row->addWidget(close_);
    layoutToggle_ = new QPushButton(this);
    layoutToggle_->setObjectName("recordingLayoutToggle");
    guideButton_ = new QPushButton(tr("?"), this);
    guideButton_->setObjectName("recordingGuideButton");
    guideButton_->setCheckable(true);
    guideButton_->setToolTip(tr("How the recording controls work"));
    guideButton_->setAccessibleName(tr("Recording guide"));
    row->addWidget(guideButton_);
    row->addWidget(layoutToggle_);
    layout->addLayout(row);
    guide_ = new QLabel(this);
    guide_->setObjectName("recordingGuide");
    guide_->setWordWrap(true);
    guide_->setText(
        tr("Pause ends the current part and Resume starts the next; the pause is left out of "
           "the file.\n"
           "Stop saves the recording. Discard… asks, then moves it to the Trash.\n"
           "The recording stops and is saved by itself when the source, the microphone or the "
           "recorded app goes away, the drive fills up, or the computer goes to sleep.\n"
           "If Tessarin stops unexpectedly, what was recorded is offered for recovery at the "
           "next start (or with tessarin recordings recover).\n"
           "From a terminal, tessarin record does the same: Ctrl-C stops and saves, SIGUSR1 "
           "pauses, SIGUSR2 resumes."));
    layout->addWidget(guide_);
    message_ = new QLabel(this);
    message_->setObjectName("recordingMessage");
    message_->setWordWrap(true);
    message_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(message_);

    connect(pauseResume_, &QPushButton::clicked, this, [this] {
        if (model_.snapshot().phase == RecordingPhase::paused) {
            model_.resume();
        } else {
            model_.pause();
        }
    });
    connect(stop_, &QPushButton::clicked, &model_, &app::RecordingSessionModel::stop);
    connect(discard_, &QPushButton::clicked, &model_,
            &app::RecordingSessionModel::requestDiscard);
    connect(restart_, &QPushButton::clicked, &model_,
            &app::RecordingSessionModel::requestRestart);
    connect(retry_, &QPushButton::clicked, &model_, &app::RecordingSessionModel::retrySaving);
    connect(reveal_, &QPushButton::clicked, this, [this] {
        if (const auto& folder = model_.snapshot().recoveryDirectory) {
            showInFolder(QString::fromStdString((*folder / "take.json").string()));
        }
    });
    connect(addToQueue_, &QPushButton::clicked, this, [this] {
        if (model_.snapshot().savedURL) {
            emit addToQueue(QString::fromStdString(model_.snapshot().savedURL->string()));
            addToQueue_->setEnabled(false);
        }
    });
    connect(close_, &QPushButton::clicked, this, [this] {
        model_.dismiss();
        hide();
    });
    connect(layoutToggle_, &QPushButton::clicked, this, [this] {
        setToolbarLayout(layout_ == Layout::expanded ? Layout::compact : Layout::expanded);
    });
    connect(guideButton_, &QPushButton::toggled, this, &RecordingToolbar::setShowingGuide);
    connect(&model_, &app::RecordingSessionModel::changed, this, &RecordingToolbar::refresh);
    connect(&model_, &app::RecordingSessionModel::changed, this,
            &RecordingToolbar::askConfirmation);
    refresh();
}

void RecordingToolbar::askConfirmation() {
    using Confirmation = engine::RecordingSession::Confirmation;
    const std::optional<Confirmation> pending = model_.snapshot().confirmation;
    const bool ours = pending == Confirmation::discard || pending == Confirmation::restart;
    if (!ours) {
        if (question_) {
            // Answered, replaced by the quit's question, or the take ended another way: closing
            // it now must not answer for the user.
            QObject::disconnect(question_, nullptr, this, nullptr);
            question_->close();
        }
        return;
    }
    if (question_) {
        return;
    }
    const bool restart = pending == Confirmation::restart;
    auto* ask = new QMessageBox(QMessageBox::Warning, QString(), QString(), QMessageBox::NoButton,
                                this);
    ask->setAttribute(Qt::WA_DeleteOnClose);
    ask->setObjectName(restart ? "restartRecordingAlert" : "discardRecordingAlert");
    ask->setWindowTitle(restart ? tr("Restart this recording?") : tr("Discard this recording?"));
    ask->setText(ask->windowTitle());
    ask->setInformativeText(restart
                                ? tr("The recording so far goes to the Trash and a new one starts.")
                                : tr("The recording stops and its files go to the Trash."));
    QPushButton* keep = ask->addButton(tr("Keep Recording"), QMessageBox::RejectRole);
    keep->setObjectName("keepRecording");
    QPushButton* accept = ask->addButton(restart ? tr("Restart") : tr("Discard"),
                                         QMessageBox::DestructiveRole);
    accept->setObjectName("confirmRecordingAlert");
    ask->setDefaultButton(keep);
    ask->setEscapeButton(keep);
    connect(ask, &QMessageBox::finished, this, [this, ask, accept] {
        if (ask->clickedButton() == accept) {
            model_.confirm();
        } else {
            model_.dismissConfirmation();
        }
    });
    question_ = ask;
    ask->open();
}

void RecordingToolbar::setToolbarLayout(Layout layout) {
    layout_ = layout;
    if (layout == Layout::compact) {
        setShowingGuide(false);
    }
    refresh();
    adjustSize();
}

void RecordingToolbar::setShowingGuide(bool showing) {
    showingGuide_ = showing;
    guideButton_->setChecked(showing);
    refresh();
    adjustSize();
}

QString RecordingToolbar::timeText(double seconds) {
    const auto whole = static_cast<qint64>(seconds < 0 ? 0 : seconds);
    const qint64 hours = whole / 3600;
    const qint64 minutes = whole / 60 % 60;
    const qint64 rest = whole % 60;
    if (hours > 0) {
        return QStringLiteral("%1:%2:%3").arg(hours).arg(minutes, 2, 10, QChar('0')).arg(rest, 2, 10, QChar('0'));
    }
    return QStringLiteral("%1:%2").arg(minutes, 2, 10, QChar('0')).arg(rest, 2, 10, QChar('0'));
}

void RecordingToolbar::refresh() {
    const engine::RecordingSession::Snapshot& snapshot = model_.snapshot();
    const RecordingPhase phase = snapshot.phase;
    status_->setText(QString::fromUtf8(engine::recordingPhaseStatus(phase)));
    status_->setAccessibleName(status_->text());
    time_->setText(phase == RecordingPhase::countdown
                       ? QString::number(snapshot.countdownRemaining)
                       : timeText(snapshot.elapsed));
    const bool paused = phase == RecordingPhase::paused;
    pauseResume_->setText(paused ? tr("Resume") : tr("Pause"));
    pauseResume_->setEnabled(phase == RecordingPhase::recording || paused);
    stop_->setEnabled(phase == RecordingPhase::recording || paused ||
                      phase == RecordingPhase::countdown);
    const bool ended = phase == RecordingPhase::saved || phase == RecordingPhase::failed;
    close_->setVisible(ended);
    pauseResume_->setVisible(!ended);
    stop_->setVisible(!ended);
    discard_->setEnabled(phase == RecordingPhase::recording || paused ||
                         phase == RecordingPhase::countdown);
    addToQueue_->setVisible(phase == RecordingPhase::saved && snapshot.savedURL.has_value());
    const bool kept = phase == RecordingPhase::failed && snapshot.recoveryDirectory.has_value();
    retry_->setVisible(kept);
    reveal_->setVisible(kept);
    if (phase != RecordingPhase::saved) {
        addToQueue_->setEnabled(true);
    }
    if (phase == RecordingPhase::idle && isVisible()) {
        hide();  // discarded
    }
    QStringList lines;
    if (!snapshot.interruptionMessage.empty()) {
        lines << QString::fromStdString(snapshot.interruptionMessage);
    }
    if (!snapshot.errorMessage.empty()) {
        lines << QString::fromStdString(snapshot.errorMessage);
    }
    if (phase == RecordingPhase::saved && snapshot.savedURL) {
        lines << tr("Saved to %1").arg(QString::fromStdString(snapshot.savedURL->string()));
    }
    if (phase == RecordingPhase::failed && snapshot.recoveryDirectory) {
        lines << tr("The captured parts are kept: Retry Saving tries again, and Tessarin offers "
                    "to recover them at the next start.");
    }
    message_->setText(lines.join(QLatin1Char('\n')));
    // Compact keeps the time and the two buttons a take needs; a finished take shows its result.
    const bool compact = layout_ == Layout::compact && !ended;
    message_->setVisible(!lines.isEmpty() && !compact);
    status_->setVisible(!compact);
    discard_->setVisible(!ended && !compact);
    restart_->setVisible(!ended && !compact);
    restart_->setEnabled(discard_->isEnabled());
    guideButton_->setVisible(!compact);
    guide_->setVisible(showingGuide_ && !compact);
    layoutToggle_->setVisible(!ended);
    layoutToggle_->setText(compact ? tr("Expand") : tr("Compact"));
    layoutToggle_->setAccessibleName(compact ? tr("Show all recording controls")
                                             : tr("Show fewer recording controls"));
}

}  // namespace tessarin::gui
