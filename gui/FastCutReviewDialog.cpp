#include "gui/FastCutReviewDialog.hpp"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QStyle>
#include <QVBoxLayout>

#include "gui/UIScale.hpp"

namespace tessarin::gui {
namespace {

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QLabel* wrappedLabel(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    label->setTextFormat(Qt::PlainText);
    return label;
}

}  // namespace

FastCutReviewDialog::FastCutReviewDialog(std::unique_ptr<app::FastCutReview> review,
                                         QWidget* parent)
    : QDialog(parent),
      review_(review.release()),
      rowsLayout_(new QVBoxLayout),
      busy_(new QWidget(this)),
      acceptWholeFile_(new QCheckBox(qs(app::FastCutReview::kAcceptWholeFileText), this)),
      changed_(new QFrame(this)),
      export_(new QPushButton(tr("Export"), this)) {
    review_->setParent(this);
    setObjectName("fastCutReview");
    setWindowTitle(tr("Review Fast Cut"));
    setWindowModality(Qt::WindowModal);
    setAttribute(Qt::WA_DeleteOnClose);

    auto* heading = new QLabel(tr("Review Fast Cut"), this);
    setFontRole(heading, 1.2, true);

    // The planning line: a busy bar while ffprobe looks for keyframes.
    auto* busyLayout = new QHBoxLayout(busy_);
    busyLayout->setContentsMargins(0, 0, 0, 0);
    busyLayout->setSpacing(8);
    auto* busyBar = new QProgressBar(busy_);
    busyBar->setRange(0, 0);
    busyBar->setTextVisible(false);
    busyBar->setMaximumHeight(8);
    busyBar->setMaximumWidth(120);
    auto* busyText = new QLabel(qs(app::FastCutReview::kPlanningText), busy_);
    busyText->setObjectName("planningText");
    busyLayout->addWidget(busyBar);
    busyLayout->addWidget(busyText, 1);

    auto* content = new QWidget;
    content->setLayout(rowsLayout_);
    rowsLayout_->setContentsMargins(0, 0, 0, 0);
    rowsLayout_->setSpacing(6);
    for (const app::FastCutReviewRequest::Entry& entry : review_->request().entries) {
        auto* frame = new QFrame(content);
        frame->setObjectName(qs("reviewRow:" + entry.id.text()));
        frame->setFrameShape(QFrame::StyledPanel);
        auto* name = new QLabel(qs(entry.source.filename().string()), frame);
        name->setTextFormat(Qt::PlainText);
        name->setToolTip(qs(entry.source.string()));
        setFontRole(name, 1.0, true);
        QLabel* status = wrappedLabel(QString(), frame);
        status->setObjectName("reviewStatus");
        status->setTextInteractionFlags(Qt::TextSelectableByMouse);
        auto* choose = new QPushButton(qs(app::FastCutReview::kChooseConversionText), frame);
        choose->setObjectName("chooseConversionButton");
        const engine::Uuid id = entry.id;
        connect(choose, &QPushButton::clicked, this, [this, id] { review_->chooseConversion(id); });
        auto* grid = new QGridLayout(frame);
        grid->setContentsMargins(10, 8, 10, 8);
        grid->setHorizontalSpacing(12);
        grid->setVerticalSpacing(4);
        grid->addWidget(name, 0, 0);
        grid->addWidget(status, 1, 0);
        grid->addWidget(choose, 0, 1, 2, 1, Qt::AlignVCenter);
        grid->setColumnStretch(0, 1);
        rowsLayout_->addWidget(frame);
        rows_.emplace(id, Row{status, choose});
    }
    rowsLayout_->addStretch();
    auto* scroll = new QScrollArea(this);
    scroll->setObjectName("reviewRows");
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidget(content);

    acceptWholeFile_->setObjectName("acceptWholeFile");
    connect(acceptWholeFile_, &QCheckBox::toggled, review_,
            &app::FastCutReview::setAcceptWholeFile);

    // Drawn as the window's notice banner is, with a warning in place of the information icon.
    changed_->setObjectName("reviewChanged");
    changed_->setFrameShape(QFrame::StyledPanel);
    changed_->setAutoFillBackground(true);
    changed_->setBackgroundRole(QPalette::AlternateBase);
    auto* changedIcon = new QLabel(changed_);
    const int iconSize = style()->pixelMetric(QStyle::PM_SmallIconSize);
    changedIcon->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxWarning).pixmap(iconSize));
    changedIcon->setAlignment(Qt::AlignTop);
    auto* changedLayout = new QHBoxLayout(changed_);
    changedLayout->setContentsMargins(10, 8, 10, 8);
    changedLayout->setSpacing(8);
    changedLayout->addWidget(changedIcon);
    changedLayout->addWidget(wrappedLabel(qs(app::FastCutReview::kChangedText), changed_), 1);

    QLabel* closing = wrappedLabel(qs(app::FastCutReview::kClosingText), this);
    closing->setObjectName("closingText");
    closing->setForegroundRole(QPalette::PlaceholderText);

    auto* buttons = new QDialogButtonBox(this);
    QPushButton* cancel = buttons->addButton(QDialogButtonBox::Cancel);
    cancel->setObjectName("cancelButton");
    export_->setObjectName("exportButton");
    export_->setDefault(true);
    buttons->addButton(export_, QDialogButtonBox::AcceptRole);
    connect(buttons, &QDialogButtonBox::rejected, this, &FastCutReviewDialog::reject);
    connect(export_, &QPushButton::clicked, this, [this] {
        review_->exportReady();
        if (review_->completed()) {
            accept();
        }
    });

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(18, 14, 18, 14);
    layout->setSpacing(10);
    layout->addWidget(heading);
    layout->addWidget(busy_);
    layout->addWidget(scroll, 1);
    layout->addWidget(acceptWholeFile_);
    layout->addWidget(changed_);
    layout->addWidget(closing);
    layout->addWidget(buttons);

    connect(review_, &app::FastCutReview::reviewChanged, this, &FastCutReviewDialog::refresh);
    refresh();
    resize(620, 460);
    scaleWidgetTree(this);
}

QString FastCutReviewDialog::rowText(const engine::Uuid& id) const {
    const auto row = rows_.find(id);
    return row == rows_.end() ? QString() : row->second.status->text();
}

void FastCutReviewDialog::reject() {
    review_->cancel();
    QDialog::reject();
}

void FastCutReviewDialog::refresh() {
    for (const auto& [id, row] : rows_) {
        row.status->setText(qs(review_->statusText(id)));
        row.status->setVisible(!row.status->text().isEmpty());
        const bool failed = review_->failures().contains(id);
        row.chooseConversion->setVisible(failed);
        row.chooseConversion->setEnabled(failed && !review_->wasHandedBack(id) &&
                                         !review_->completed());
    }
    busy_->setVisible(review_->loading());
    acceptWholeFile_->setVisible(review_->anyKeepsWholeVideo());
    acceptWholeFile_->setChecked(review_->acceptWholeFile());
    changed_->setVisible(review_->changed());
    export_->setEnabled(review_->canExport());
}

}  // namespace tessarin::gui
