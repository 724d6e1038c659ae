#include "gui/QueueRowWidget.hpp"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QToolButton>
#include <cmath>

#include "gui/UIScale.hpp"

namespace tessarin::gui {
namespace {

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

QString qpath(const std::filesystem::path& path) {
    return QString::fromStdString(path.string());
}

// What the second line says about the action: its row subtitle, with the trim when one is set.
QString subtitleText(const app::QueueItem& item) {
    QString text = item.descriptor ? qs(item.descriptor->rowSubtitle) : QString();
    if (item.trimLabel) {
        text += text.isEmpty() ? qs(*item.trimLabel) : QStringLiteral(" · ") + qs(*item.trimLabel);
    }
    return text;
}

}  // namespace

QueueRowWidget::QueueRowWidget(const app::QueueItem& item, QWidget* parent)
    : QFrame(parent),
      id_(item.id),
      name_(new QLabel(this)),
      subtitle_(new QLabel(this)),
      state_(new QLabel(this)),
      progress_(new QProgressBar(this)),
      detail_(new QLabel(this)),
      warning_(new QLabel(this)),
      cancel_(makeButton(tr("Cancel"), "cancelButton")),
      remove_(makeButton(tr("Remove"), "removeButton")),
      showInFolder_(makeButton(tr("Show in Folder"), "showInFolderButton")),
      open_(makeButton(tr("Open"), "openButton")) {
    setObjectName(qs("row:" + item.id.text()));
    setFrameShape(QFrame::StyledPanel);
    // Rows take focus so that Delete acts on the one the user is on.
    setFocusPolicy(Qt::StrongFocus);

    setFontRole(name_, 1.0, true);
    name_->setTextFormat(Qt::PlainText);
    subtitle_->setTextFormat(Qt::PlainText);
    subtitle_->setForegroundRole(QPalette::PlaceholderText);
    state_->setObjectName("stateLabel");
    state_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    progress_->setObjectName("progress");
    progress_->setTextVisible(false);
    progress_->setMaximumHeight(8);
    detail_->setObjectName("phaseLabel");
    detail_->setWordWrap(true);
    detail_->setTextFormat(Qt::PlainText);
    detail_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    warning_->setObjectName("warningLabel");
    warning_->setWordWrap(true);
    warning_->setTextFormat(Qt::PlainText);

    connect(cancel_, &QToolButton::clicked, this, [this] { emit cancelRequested(id_); });
    connect(remove_, &QToolButton::clicked, this, [this] { emit removeRequested(id_); });
    connect(showInFolder_, &QToolButton::clicked, this,
            [this] { emit showInFolderRequested(output_); });
    connect(open_, &QToolButton::clicked, this, [this] { emit openRequested(output_); });

    auto* buttons = new QHBoxLayout;
    buttons->setSpacing(4);
    for (QToolButton* button : {showInFolder_, open_, cancel_, remove_}) {
        buttons->addWidget(button);
    }

    auto* grid = new QGridLayout(this);
    grid->setContentsMargins(10, 8, 10, 8);
    grid->setHorizontalSpacing(12);
    grid->setVerticalSpacing(4);
    grid->addWidget(name_, 0, 0);
    grid->addWidget(state_, 0, 1);
    grid->addLayout(buttons, 0, 2, 2, 1, Qt::AlignVCenter);
    grid->addWidget(subtitle_, 1, 0, 1, 2);
    grid->addWidget(progress_, 2, 0, 1, 3);
    grid->addWidget(detail_, 3, 0, 1, 3);
    grid->addWidget(warning_, 4, 0, 1, 3);
    grid->setColumnStretch(0, 1);
    update(item);
}

QToolButton* QueueRowWidget::makeButton(const QString& text, const QString& objectName) {
    auto* button = new QToolButton(this);
    button->setText(text);
    button->setObjectName(objectName);
    button->setAutoRaise(true);
    return button;
}

void QueueRowWidget::update(const app::QueueItem& item) {
    using Kind = app::QueueItem::StateKind;
    const Kind kind = item.state.kind;
    const QString fileName = qpath(item.source.filename());
    name_->setText(fileName);
    name_->setToolTip(qpath(item.source));
    subtitle_->setText(subtitleText(item));
    subtitle_->setVisible(!subtitle_->text().isEmpty());
    state_->setText(qs(item.stateLabel()));
    output_ = kind == Kind::done ? qpath(item.state.output) : QString();

    progress_->setVisible(kind == Kind::running);
    if (kind == Kind::running) {
        if (item.state.progress) {
            progress_->setRange(0, 1000);
            progress_->setValue(static_cast<int>(std::lround(*item.state.progress * 1000)));
        } else {
            progress_->setRange(0, 0);  // busy indicator: the job hasn't reported a fraction
        }
    }

    QString detail;
    if (kind == Kind::running && item.phaseLabel) {
        detail = qs(*item.phaseLabel);
    } else if (kind == Kind::failed && item.state.failure && !item.state.failure->wasCancelled) {
        detail = qs(item.state.failure->stderrTail);
    } else if (kind == Kind::done) {
        detail = qpath(item.state.output.filename());
    } else if (item.destination.kind == app::OutputDestination::Resolution::Kind::unavailable) {
        detail = qs(item.destination.sentence);
    }
    detail_->setText(detail);
    detail_->setVisible(!detail.isEmpty());
    warning_->setText(item.warningNote ? qs(*item.warningNote) : QString());
    warning_->setVisible(item.warningNote.has_value());

    cancel_->setVisible(!item.isFinished());
    cancel_->setToolTip(kind == Kind::running ? tr("Stop this conversion")
                                              : tr("Take this file out of the queue"));
    remove_->setVisible(item.isFinished());
    showInFolder_->setVisible(kind == Kind::done);
    open_->setVisible(kind == Kind::done);
    setAccessibleName(fileName + QStringLiteral(", ") + state_->text());
}

QString QueueRowWidget::stateText() const {
    return state_->text();
}

}  // namespace tessarin::gui
