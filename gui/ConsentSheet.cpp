#include "gui/ConsentSheet.hpp"

#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "engine/transcription/TranscriptionConsent.hpp"

namespace tessarin::gui {

ConsentSheet::ConsentSheet(engine::TranscriptionConsentKind kind, QWidget* parent)
    : QDialog(parent), kind_(kind) {
    const engine::ConsentNotice notice = engine::ConsentNotice::of(kind);
    setObjectName("consentSheet");
    setWindowTitle(QString::fromStdString(notice.title));
    setModal(true);
    auto* layout = new QVBoxLayout(this);
    auto* title = new QLabel(QString::fromStdString(notice.title), this);
    QFont bold = title->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.2);
    title->setFont(bold);
    layout->addWidget(title);
    for (const std::string& paragraph : notice.paragraphs) {
        auto* label = new QLabel(QString::fromStdString(paragraph), this);
        label->setWordWrap(true);
        layout->addWidget(label);
    }
    auto* buttons = new QDialogButtonBox(this);
    buttons->addButton(QDialogButtonBox::Cancel);
    approve_ = buttons->addButton(QString::fromUtf8(engine::ConsentNotice::kButton.data(),
                                                    static_cast<qsizetype>(engine::ConsentNotice::kButton.size())),
                                  QDialogButtonBox::AcceptRole);
    approve_->setObjectName("approveUpload");
    // Approval is never the default: Enter doesn't send anything away.
    approve_->setAutoDefault(false);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
    setMinimumWidth(520);
}

}  // namespace tessarin::gui
