#include "gui/MainWindow.hpp"

#include <QApplication>
#include <QClipboard>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QShortcut>
#include <QStandardPaths>
#include <QStatusBar>
#include <QTabWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include "app/destinations/OutputDestinationTexts.hpp"
#include "gui/ActionChips.hpp"
#include "gui/ConsentSheet.hpp"
#include "gui/DesktopPage.hpp"
#include "gui/DropZone.hpp"
#include "gui/FastCutReviewDialog.hpp"
#include "gui/NoticeBanner.hpp"
#include "gui/WindowNotices.hpp"
#include "gui/QueueList.hpp"
#include "gui/QueueRowWidget.hpp"
#include "gui/RecordScreenDialog.hpp"
#include "gui/RecordingRecoveryDialog.hpp"
#include "gui/RecordingToolbar.hpp"
#include "gui/SettingsWindow.hpp"
#include "gui/ShowInFolder.hpp"
#include "gui/TrimEditorDialog.hpp"
#include "gui/UIScale.hpp"

namespace tessarin::gui {
namespace {

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), text.size());
}

// The file panel's filter: what intake would take anyway, so the panel doesn't offer the rest.
const char* kVideoFilter =
    "Videos (*.mp4 *.m4v *.mov *.mkv *.webm *.avi *.wmv *.flv *.mpg *.mpeg *.ts *.mts *.m2ts "
    "*.3gp *.ogv *.gif);;All files (*)";

}  // namespace

MainWindow::MainWindow(app::TessarinApp& app, QWidget* parent)
    : QMainWindow(parent), app_(app), queue_(app.queue()) {
    setWindowTitle(QStringLiteral("Tessarin"));
    setWindowIcon(QIcon::fromTheme("com.tessarin.Tessarin"));

    auto* central = new QWidget(this);
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(18, 14, 18, 14);
    layout->setSpacing(12);

    auto* header = new QHBoxLayout;
    auto* title = new QLabel(tr("Convert videos"), central);
    setFontRole(title, 1.35, true);
    settings_ = new QPushButton(tr("Settings…"), central);
    settings_->setObjectName("settingsButton");
    settings_->setToolTip(tr("Output folder, presets, interface scale (Ctrl+,)"));
    connect(settings_, &QPushButton::clicked, this, &MainWindow::showSettings);
    record_ = new QPushButton(tr("Record Screen…"), central);
    record_->setObjectName("recordScreenButton");
    record_->setToolTip(tr("Record a display, a window or an area (Ctrl+Shift+R)"));
    record_->setEnabled(app_.recordingSession().available());
    connect(record_, &QPushButton::clicked, this, &MainWindow::showRecordScreen);
    auto* more = new QToolButton(central);
    more->setObjectName("desktopMenuButton");
    more->setText(tr("More"));
    more->setPopupMode(QToolButton::InstantPopup);
    desktopMenu_ = new QMenu(more);
    desktopMenu_->addAction(tr("File-Manager Actions…"), this, &MainWindow::showDesktopSettings);
    desktopMenu_->addAction(tr("Install Command-Line Tool…"), this,
                            &MainWindow::showDesktopSettings);
    desktopMenu_->addAction(tr("Copy Support Report"), this, [this] {
        statusBar()->showMessage(tr(app::DesktopServices::kCollecting));
        app_.desktopServices().buildReport();
    });
    desktopMenu_->addAction(tr("Check for Updates…"), this, [this] {
        statusBar()->showMessage(tr("Checking for updates…"));
        app_.desktopServices().checkForUpdates();
    });
    more->setMenu(desktopMenu_);
    connect(&app_.desktopServices(), &app::DesktopServices::reportReady, this,
            [this](const QString& report) {
                QApplication::clipboard()->setText(report);
                statusBar()->showMessage(tr(app::DesktopServices::kCopied), 4000);
            });
    connect(&app_.desktopServices(), &app::DesktopServices::updateChecked, this,
            [this](const QString& text, const QString& url) {
                statusBar()->showMessage(url.isEmpty() ? text : text + QStringLiteral(" ") + url);
            });
    header->addWidget(title);
    header->addStretch();
    header->addWidget(record_);
    header->addWidget(more);
    header->addWidget(settings_);
    layout->addLayout(header);

    notice_ = new NoticeBanner(central);
    connect(notice_, &NoticeBanner::dismissed, &queue_, &app::QueueModel::dismissNotice);
    connect(&app_.recordingRecovery(), &app::RecordingRecoveryModel::takesChanged, this,
            &MainWindow::offerRecordingRecovery);
    connect(&queue_, &app::QueueModel::uploadConsentRequired, this, &MainWindow::askUploadConsent);
    connect(&queue_, &app::QueueModel::intakeNoticeChanged, this,
            [this] { notice_->setText(qs(queue_.intakeNotice().value_or(std::string()))); });
    layout->addWidget(notice_);
    notices_ = new WindowNotices(app_, [this] { showDesktopSettings(); }, central);
    layout->addWidget(notices_);

    if (!app_.tools()) {
        // Without the helper folder's tools the queue refuses all work: say so instead.
        auto* missing = new QLabel(QString::fromUtf8(app::kMissingToolsSentence), central);
        missing->setObjectName("missingTools");
        missing->setWordWrap(true);
        missing->setAlignment(Qt::AlignCenter);
        missing->setTextInteractionFlags(Qt::TextSelectableByMouse);
        setFontRole(missing, 1.1, false);
        layout->addStretch();
        layout->addWidget(missing);
        layout->addStretch();
    } else {
        layout->addWidget(makeQueuePane(), 1);
    }
    setCentralWidget(central);

    auto* open = new QShortcut(QKeySequence::Open, this);
    connect(open, &QShortcut::activated, this, &MainWindow::addFiles);
    auto* convert = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_Return), this);
    connect(convert, &QShortcut::activated, &queue_, &app::QueueModel::start);
    auto* convertEnter = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_Enter), this);
    connect(convertEnter, &QShortcut::activated, &queue_, &app::QueueModel::start);
    auto* remove = new QShortcut(QKeySequence::Delete, this);
    connect(remove, &QShortcut::activated, this, &MainWindow::removeFocusedRow);
    auto* quit = new QShortcut(QKeySequence::Quit, this);
    connect(quit, &QShortcut::activated, this, &MainWindow::close);
    auto* recordShortcut = new QShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R), this);
    connect(recordShortcut, &QShortcut::activated, this, &MainWindow::showRecordScreen);
    recordingToolbar_ = new RecordingToolbar(app_.recordingSession(), this);
    recordingToolbar_->hide();
    connect(recordingToolbar_, &RecordingToolbar::addToQueue, this,
            [this](const QString& path) { dropURLs({QUrl::fromLocalFile(path)}); });
    connect(&app_.recordingSession(), &app::RecordingSessionModel::changed, this, [this] {
        app::RecordingSessionModel& recording = app_.recordingSession();
        record_->setEnabled(recording.available() && !recording.isLive());
    });
    auto* preferences = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma), this);
    connect(preferences, &QShortcut::activated, this, &MainWindow::showSettings);

    connect(&queue_, &app::QueueModel::pendingIntakeChanged, this, &MainWindow::showPendingIntake);
    connect(&queue_, &app::QueueModel::fastCutReviewChanged, this, &MainWindow::showFastCutReview);
    connect(&queue_, &app::QueueModel::itemsChanged, this, &MainWindow::updateButtons);
    connect(&queue_, &app::QueueModel::itemChanged, this, &MainWindow::updateButtons);
    notice_->setText(qs(queue_.intakeNotice().value_or(std::string())));
    updateButtons();
    resize(760, 620);
    scaleWidgetTree(this);
}

MainWindow::~MainWindow() = default;

QWidget* MainWindow::makeQueuePane() {
    auto* pane = new QWidget(this);
    auto* layout = new QVBoxLayout(pane);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(12);

    dropZone_ = new DropZone(pane);
    connect(dropZone_, &DropZone::urlsDropped, this, &MainWindow::dropURLs);
    connect(dropZone_, &DropZone::addFilesRequested, this, &MainWindow::addFiles);
    layout->addWidget(dropZone_);

    chips_ = new ActionChips(queue_, pane);
    chips_->setCatalog(app_.actionCatalog());
    connect(&app_, &app::TessarinApp::actionCatalogChanged, this,
            [this] { chips_->setCatalog(app_.actionCatalog()); });
    layout->addWidget(chips_);

    auto* trim = new QHBoxLayout;
    trim->setSpacing(8);
    auto* trimLabel = new QLabel(tr("Trim:"), pane);
    trimStart_ = new QLineEdit(pane);
    trimStart_->setObjectName("trimStart");
    trimStart_->setPlaceholderText(tr("Start (e.g. 0:05)"));
    trimStart_->setAccessibleName(tr("Trim start"));
    trimEnd_ = new QLineEdit(pane);
    trimEnd_->setObjectName("trimEnd");
    trimEnd_->setPlaceholderText(tr("End (e.g. 1:30)"));
    trimEnd_->setAccessibleName(tr("Trim end"));
    trimLabel->setBuddy(trimStart_);
    for (QLineEdit* field : {trimStart_, trimEnd_}) {
        field->setClearButtonEnabled(true);
        connect(field, &QLineEdit::textEdited, this, [this] {
            queue_.setTrim(trimStart_->text().toStdString(), trimEnd_->text().toStdString());
        });
    }
    trimNote_ = new QLabel(pane);
    trimNote_->setObjectName("trimNote");
    trimNote_->setWordWrap(true);
    trimNote_->setForegroundRole(QPalette::PlaceholderText);
    trim->addWidget(trimLabel);
    trim->addWidget(trimStart_);
    trim->addWidget(new QLabel(QStringLiteral("–"), pane));
    trim->addWidget(trimEnd_);
    trim->addWidget(trimNote_, 1);
    layout->addLayout(trim);
    connect(&queue_, &app::QueueModel::trimChanged, this, &MainWindow::updateTrim);
    updateTrim();

    sourceFacts_ =
        new app::SourceFactsLoader(app_.tools(), app::SourceFactsLoader::Task::thumbnail, this);
    queueList_ = new QueueList(queue_, sourceFacts_, pane);
    connect(queueList_, &QueueList::trimRequested, this,
            [this](const engine::Uuid& id) { openTrimEditor(id); });
    connect(queueList_, &QueueList::showInFolderRequested, this, &showInFolder);
    connect(queueList_, &QueueList::openRequested, this,
            [](const QString& path) { QDesktopServices::openUrl(QUrl::fromLocalFile(path)); });
    layout->addWidget(queueList_, 1);

    auto* actions = new QHBoxLayout;
    clearFinished_ = new QPushButton(tr("Clear Finished"), pane);
    clearFinished_->setObjectName("clearFinishedButton");
    connect(clearFinished_, &QPushButton::clicked, &queue_, &app::QueueModel::clearFinished);
    convert_ = new QPushButton(tr("Convert"), pane);
    convert_->setObjectName("convertButton");
    convert_->setDefault(true);
    convert_->setToolTip(
        tr("Give the chosen action to the waiting videos and start (Ctrl+Return)"));
    connect(convert_, &QPushButton::clicked, &queue_, &app::QueueModel::start);
    actions->addWidget(clearFinished_);
    actions->addStretch();
    actions->addWidget(convert_);
    layout->addLayout(actions);

    // Reading order: add, choose, trim, review, act.
    setTabOrder(dropZone_->addFilesButton(), chips_);
    setTabOrder(trimStart_, trimEnd_);
    setTabOrder(trimEnd_, queueList_);
    setTabOrder(queueList_, clearFinished_);
    setTabOrder(clearFinished_, convert_);
    setTabOrder(convert_, settings_);
    return pane;
}

void MainWindow::dropURLs(const QList<QUrl>& urls) {
    app::IntakeOptions options;
    if (app_.outputDestination().mode() == app::OutputMode::askEachTime) {
        const QString folder = QFileDialog::getExistingDirectory(
            this, qs(app::dropPanelMessage(static_cast<std::size_t>(urls.size()))));
        if (folder.isEmpty()) {
            return;
        }
        options.destinationOverride = folder.toStdString();
    }
    queue_.intake(urls, options);
}

void MainWindow::addFiles() {
    const QStringList files = QFileDialog::getOpenFileNames(
        this, tr("Add Videos"), QStandardPaths::writableLocation(QStandardPaths::MoviesLocation),
        tr(kVideoFilter));
    if (files.isEmpty()) {
        return;
    }
    QList<QUrl> urls;
    for (const QString& file : files) {
        urls.append(QUrl::fromLocalFile(file));
    }
    dropURLs(urls);
}

void MainWindow::removeFocusedRow() {
    for (QWidget* widget = QApplication::focusWidget(); widget != nullptr;
         widget = widget->parentWidget()) {
        if (auto* row = qobject_cast<QueueRowWidget*>(widget)) {
            const app::QueueItem* item = queue_.item(row->itemID());
            if (item == nullptr || item->state.kind == app::QueueItem::StateKind::running) {
                return;  // a running conversion stops only by its own Cancel button
            }
            if (item->isFinished()) {
                queue_.remove(item->id);
            } else {
                queue_.cancel(item->id);
            }
            return;
        }
    }
}

void MainWindow::showPendingIntake() {
    const std::optional<app::PendingIntake>& pending = queue_.pendingIntake();
    if (!pending) {
        if (pendingDialog_) {
            pendingDialog_->close();
        }
        return;
    }
    if (!pendingDialog_) {
        pendingDialog_ = new QMessageBox(this);
        pendingDialog_->setObjectName("pendingIntakeDialog");
        pendingDialog_->setIcon(QMessageBox::Question);
        pendingDialog_->setAttribute(Qt::WA_DeleteOnClose);
        pendingDialog_->setWindowModality(Qt::WindowModal);
    }
    const bool transcribing =
        pending->action && pending->action->kind == app::ActionID::Kind::transcribe;
    QMessageBox* dialog = pendingDialog_;
    for (QAbstractButton* button : dialog->buttons()) {
        dialog->removeButton(button);
        button->deleteLater();
    }
    QPushButton* confirm = dialog->addButton(transcribing ? tr("Transcribe All") : tr("Add All"),
                                             QMessageBox::AcceptRole);
    dialog->addButton(QMessageBox::Cancel);
    dialog->setDefaultButton(confirm);
    dialog->setWindowTitle(qs(pending->title()));
    dialog->setText(qs(pending->title()));
    dialog->setInformativeText(qs(pending->message()));
    // The answer belongs to the batch shown; a batch that replaced it gets its own answer.
    const engine::Uuid batch = pending->id;
    disconnect(dialog, &QMessageBox::buttonClicked, nullptr, nullptr);
    connect(dialog, &QMessageBox::buttonClicked, this,
            [this, dialog, confirm, batch](QAbstractButton* clicked) {
                const auto& current = queue_.pendingIntake();
                if (!current || current->id != batch) {
                    return;
                }
                if (clicked == confirm) {
                    queue_.confirmPendingIntake();
                } else {
                    queue_.dismissPendingIntake();
                }
                dialog->close();
            });
    dialog->open();
}

TrimEditorDialog* MainWindow::trimEditorDialog() const {
    return trimEditor_;
}

TrimEditorDialog* MainWindow::openTrimEditor(const engine::Uuid& id, bool withPlayer) {
    if (trimEditor_) {
        trimEditor_->raise();
        return trimEditor_;
    }
    std::optional<app::TrimEditorRequest> request = queue_.trimEditorRequest(id);
    if (!request) {
        return nullptr;
    }
    auto editor = std::make_unique<app::TrimEditor>(std::move(*request), app_.tools());
    editor->onApply = [this, id](const app::TrimEditorResult& result) {
        return queue_.applyTrimEditor(id, result);
    };
    trimEditor_ = new TrimEditorDialog(std::move(editor), withPlayer, this);
    trimEditor_->setAttribute(Qt::WA_DeleteOnClose);
    trimEditor_->resize(860, 760);
    trimEditor_->open();
    return trimEditor_;
}

FastCutReviewDialog* MainWindow::fastCutReviewDialog() const {
    return fastCutDialog_;
}

void MainWindow::showFastCutReview() {
    const std::optional<app::FastCutReviewRequest>& request = queue_.fastCutReview();
    // A sheet whose request was exported, closed or replaced has nothing left to show; one whose
    // review completed is closing already.
    if (fastCutDialog_ && (!request || fastCutDialog_->review().request().id != request->id)) {
        FastCutReviewDialog* stale = fastCutDialog_;
        fastCutDialog_ = nullptr;
        if (!stale->review().completed()) {
            stale->close();
        }
    }
    if (!request || fastCutDialog_) {
        return;
    }
    std::unique_ptr<app::FastCutReview> review = queue_.openFastCutReview();
    if (!review) {
        return;
    }
    fastCutDialog_ = new FastCutReviewDialog(std::move(review), this);
    fastCutDialog_->open();
}

void MainWindow::updateTrim() {
    if (trimStart_ == nullptr) {
        return;
    }
    const QString start = qs(queue_.trimStart());
    const QString end = qs(queue_.trimEnd());
    if (trimStart_->text() != start) {
        trimStart_->setText(start);
    }
    if (trimEnd_->text() != end) {
        trimEnd_->setText(end);
    }
    const auto note = queue_.trimValidationText();
    trimNote_->setText(note ? qs(*note) : QString());
}

void MainWindow::updateButtons() {
    if (convert_ == nullptr) {
        return;
    }
    const auto& items = queue_.items();
    const bool anyFinished =
        std::any_of(items.begin(), items.end(), [](const auto& item) { return item.isFinished(); });
    clearFinished_->setEnabled(anyFinished);
    convert_->setEnabled(queue_.stagedCount() > 0);
}

SettingsWindow* MainWindow::showSettings() {
    if (!settingsWindow_) {
        settingsWindow_ = new SettingsWindow(app_, this);
    }
    settingsWindow_->show();
    settingsWindow_->raise();
    settingsWindow_->activateWindow();
    return settingsWindow_;
}

SettingsWindow* MainWindow::showDesktopSettings() {
    SettingsWindow* window = showSettings();
    window->tabs()->setCurrentWidget(window->desktop());
    return window;
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (app_.recordingSession().isLive() && !recordingQuitApproved_) {
        event->ignore();  // asked first; the take is stopped and saved before the window closes
        askRecordingQuit();
        return;
    }
    recordingQuitApproved_ = false;
    if (const auto decision = app_.quitDecision();
        decision != app::TessarinApp::QuitDecision::quitNow) {
        const QString title = QString::fromUtf8(
            decision == app::TessarinApp::QuitDecision::askUnsavedTranscripts
                ? app::TessarinApp::kQuitAlertUnsavedTitle
                : app::TessarinApp::kQuitAlertTitle);
        QMessageBox alert(QMessageBox::Warning, title, title, QMessageBox::NoButton, this);
        alert.setObjectName("quitAlert");
        alert.setInformativeText(QString::fromUtf8(app::TessarinApp::kQuitAlertText));
        QPushButton* keep = alert.addButton(QString::fromUtf8(app::TessarinApp::kQuitAlertKeep),
                                            QMessageBox::RejectRole);
        QPushButton* quit = alert.addButton(QString::fromUtf8(app::TessarinApp::kQuitAlertQuit),
                                            QMessageBox::DestructiveRole);
        alert.setDefaultButton(keep);
        alert.exec();
        if (alert.clickedButton() != quit) {
            event->ignore();
            return;
        }
    }
    app_.prepareForQuit();
    if (settingsWindow_) {
        settingsWindow_->close();
    }
    event->accept();
}

void MainWindow::askUploadConsent(bool video) {
    app::TranscriptionSettingsModel* transcription = app_.transcription();
    if (transcription == nullptr || consentSheet_) {
        return;
    }
    const auto kind = video ? engine::TranscriptionConsentKind::videoUpload
                            : engine::TranscriptionConsentKind::audioUpload;
    consentSheet_ = new ConsentSheet(kind, this);
    consentSheet_->setAttribute(Qt::WA_DeleteOnClose);
    connect(consentSheet_, &QDialog::accepted, this, [this, transcription, kind] {
        transcription->grantConsent(kind);
        queue_.dismissNotice();
        queue_.start();
    });
    consentSheet_->open();
}

}  // namespace tessarin::gui
