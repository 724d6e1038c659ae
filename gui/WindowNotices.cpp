#include "gui/WindowNotices.hpp"

#include <QFileDialog>
#include <QMessageBox>
#include <QPushButton>
#include <QStandardPaths>
#include <QVBoxLayout>

#include "app/shell/TessarinApp.hpp"
#include "engine/transcription/TranscriptionError.hpp"
#include "gui/NoticeBanner.hpp"

namespace tessarin::gui {
namespace {

app::UnsavedTranscripts* unsavedOf(app::TessarinApp& app) {
    app::TranscriptionSettingsModel* transcription = app.transcription();
    return transcription != nullptr ? &transcription->unsavedTranscripts() : nullptr;
}

}  // namespace

WindowNotices::WindowNotices(app::TessarinApp& app, std::function<void()> showDesktopSettings,
                             QWidget* parent)
    : QWidget(parent), app_(app), health_(new NoticeBanner(this)), unsaved_(new NoticeBanner(this)) {
    health_->setObjectName("actionHealthBanner");
    unsaved_->setObjectName("unsavedTranscriptBanner");
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addWidget(health_);
    layout->addWidget(unsaved_);

    connect(health_->addButton(tr("File-Manager Actions…"), "showFileManagerActions"),
            &QPushButton::clicked, this, std::move(showDesktopSettings));
    connect(health_, &NoticeBanner::dismissed, this, [this] {
        healthDismissed_ = true;
        health_->setText({});
    });
    connect(&app_.fileManagerActions(), &app::FileManagerActionsModel::changed, this,
            &WindowNotices::showHealth);

    connect(unsaved_->addButton(tr("Save Transcript…"), "saveTranscript"), &QPushButton::clicked,
            this, &WindowNotices::askWhereToSave);
    // Dismissing lets the transcript go: the banner says so before.
    connect(unsaved_, &NoticeBanner::dismissed, this, [this] {
        if (app::UnsavedTranscripts* unsaved = unsavedOf(app_); unsaved != nullptr &&
                                                                !unsaved->entries().empty()) {
            unsaved->discard(unsaved->entries().front().id);
        }
    });
    if (app::UnsavedTranscripts* unsaved = unsavedOf(app_)) {
        connect(unsaved, &app::UnsavedTranscripts::changed, this, &WindowNotices::showUnsaved);
    }
    showHealth();
    showUnsaved();
}

void WindowNotices::showHealth() {
    const app::FileManagerActionsModel& model = app_.fileManagerActions();
    if (model.busy()) {
        return;
    }
    const QString text = model.healthText();
    if (text.isEmpty()) {
        healthDismissed_ = false;  // a later drift is news again
    }
    health_->setText(healthDismissed_ ? QString() : text);
}

void WindowNotices::showUnsaved() {
    const app::UnsavedTranscripts* unsaved = unsavedOf(app_);
    if (unsaved == nullptr || unsaved->entries().empty()) {
        unsaved_->setText({});
        return;
    }
    const app::UnsavedTranscript& first = unsaved->entries().front();
    const QString writeFailed = QString::fromStdString(
        engine::TranscriptionError(engine::TranscriptionError::Code::writeFailed).text());
    QString text = tr("%1 (%2) Save it elsewhere to keep it; dismissing discards it.")
                       .arg(writeFailed, QString::fromStdString(first.sourceName));
    if (unsaved->entries().size() > 1) {
        text += tr(" %n more waiting.", nullptr, static_cast<int>(unsaved->entries().size() - 1));
    }
    unsaved_->setText(text);
}

void WindowNotices::askWhereToSave() {
    const app::UnsavedTranscripts* unsaved = unsavedOf(app_);
    if (unsaved == nullptr || unsaved->entries().empty()) {
        return;
    }
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    const QString suggested =
        folder + QStringLiteral("/") + QString::fromStdString(unsaved->entries().front().suggestedName());
    const QString file = QFileDialog::getSaveFileName(this, tr("Save Transcript"), suggested);
    if (!file.isEmpty()) {
        saveTranscript(file);
    }
}

void WindowNotices::saveTranscript(const QString& file) {
    app::UnsavedTranscripts* unsaved = unsavedOf(app_);
    if (unsaved == nullptr || unsaved->entries().empty()) {
        return;
    }
    if (const auto sentence = unsaved->save(unsaved->entries().front().id, file.toStdString())) {
        auto* failed = new QMessageBox(QMessageBox::Warning, tr("Save Transcript"),
                                       QString::fromStdString(*sentence), QMessageBox::Ok, this);
        failed->setObjectName("transcriptSaveFailed");
        failed->setAttribute(Qt::WA_DeleteOnClose);
        failed->open();
    }
}

}  // namespace tessarin::gui
