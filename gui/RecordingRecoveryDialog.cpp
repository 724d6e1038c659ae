#include "gui/RecordingRecoveryDialog.hpp"

#include <QDateTime>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace tessarin::gui {

namespace {

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

}  // namespace

QString RecordingRecoveryDialog::rowText(const engine::UnfinishedTake& take) {
    const QString started =
        take.startedSeconds
            ? QDateTime::fromSecsSinceEpoch(*take.startedSeconds).toString("yyyy-MM-dd HH:mm")
            : tr("Unknown start");
    const QString parts = take.segments == 1 ? tr("1 part") : tr("%1 parts").arg(take.segments);
    const QString length =
        take.recoverableSeconds ? tr(" · %1 s").arg(*take.recoverableSeconds, 0, 'f', 1) : QString();
    return tr("%1 · %2%3\nSaves as %4").arg(started, parts, length, qs(take.destination.string()));
}

RecordingRecoveryDialog::RecordingRecoveryDialog(app::RecordingRecoveryModel& model,
                                                 QWidget* parent)
    : QDialog(parent), model_(model) {
    setObjectName("recordingRecoveryDialog");
    setWindowTitle(tr("Unfinished Recordings"));
    setWindowModality(Qt::WindowModal);
    auto* layout = new QVBoxLayout(this);
    auto* intro = new QLabel(
        tr("Tessarin found screen recordings that were not saved, for example after a crash. "
           "Recover saves one to its recording folder; Move to Trash discards it."),
        this);
    intro->setWordWrap(true);
    layout->addWidget(intro);
    list_ = new QListWidget(this);
    list_->setObjectName("unfinishedTakes");
    layout->addWidget(list_);
    message_ = new QLabel(this);
    message_->setObjectName("recoveryMessage");
    message_->setWordWrap(true);
    layout->addWidget(message_);
    auto* buttons = new QHBoxLayout;
    later_ = new QPushButton(tr("Later"), this);
    discard_ = new QPushButton(tr("Move to Trash"), this);
    recover_ = new QPushButton(tr("Recover"), this);
    recover_->setDefault(true);
    buttons->addWidget(later_);
    buttons->addStretch();
    buttons->addWidget(discard_);
    buttons->addWidget(recover_);
    layout->addLayout(buttons);

    connect(later_, &QPushButton::clicked, this, [this] {
        model_.postpone();
        accept();
    });
    connect(recover_, &QPushButton::clicked, this, [this] { act(true); });
    connect(discard_, &QPushButton::clicked, this, [this] { act(false); });
    connect(list_, &QListWidget::currentRowChanged, this, [this] { refresh(); });
    connect(&model_, &app::RecordingRecoveryModel::takesChanged, this,
            &RecordingRecoveryDialog::fill);
    connect(&model_, &app::RecordingRecoveryModel::recovered, this,
            [this](const QString& summary, const QString& path) {
                message_->setText(tr("%1 Saved as %2").arg(summary, path));
            });
    connect(&model_, &app::RecordingRecoveryModel::discarded, this,
            [this] { message_->setText(tr("The recording was moved to the Trash.")); });
    connect(&model_, &app::RecordingRecoveryModel::failed, this,
            [this](const QString& text) { message_->setText(text); });
    fill();
    resize(560, 320);
}

QString RecordingRecoveryDialog::message() const {
    return message_->text();
}

void RecordingRecoveryDialog::fill() {
    const int row = list_->currentRow();
    list_->clear();
    for (const engine::UnfinishedTake& take : model_.unfinishedTakes()) {
        list_->addItem(rowText(take));
    }
    list_->setCurrentRow(std::min(std::max(row, 0), list_->count() - 1));
    refresh();
}

void RecordingRecoveryDialog::act(bool recover) {
    const int row = list_->currentRow();
    const auto& takes = model_.unfinishedTakes();
    if (row < 0 || row >= static_cast<int>(takes.size()) || model_.busy()) {
        return;
    }
    message_->setText(recover ? tr("Saving recording…") : tr("Moving to Trash…"));
    const std::filesystem::path folder = takes[static_cast<std::size_t>(row)].directory;
    if (recover) {
        model_.recover(folder);
    } else {
        model_.discard(folder);
    }
    refresh();
}

void RecordingRecoveryDialog::refresh() {
    const bool chosen = list_->currentRow() >= 0 && !model_.busy();
    recover_->setEnabled(chosen);
    discard_->setEnabled(chosen);
    if (model_.unfinishedTakes().empty() && !model_.busy()) {
        later_->setText(tr("Close"));
    }
}

}  // namespace tessarin::gui
