#include "gui/QueueRowWidget.hpp"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPixmap>
#include <QProgressBar>
#include <QToolButton>
#include <cmath>

#include "gui/ElidedLabel.hpp"
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
      thumbnail_(new QLabel(this)),
      name_(new ElidedLabel(Qt::ElideMiddle, this)),
      subtitle_(new ElidedLabel(Qt::ElideRight, this)),
      facts_(new ElidedLabel(Qt::ElideRight, this)),
      state_(new QLabel(this)),
      progress_(new QProgressBar(this)),
      outputName_(new ElidedLabel(Qt::ElideMiddle, this)),
      detail_(new QLabel(this)),
      warning_(new QLabel(this)),
      trim_(makeButton(tr("Trim…"), "trimButton")),
      cancel_(makeButton(tr("Cancel"), "cancelButton")),
      remove_(makeButton(tr("Remove"), "removeButton")),
      showInFolder_(makeButton(tr("Show in Folder"), "showInFolderButton")),
      open_(makeButton(tr("Open"), "openButton")) {
    setObjectName(qs("row:" + item.id.text()));
    setFrameShape(QFrame::StyledPanel);
    // Rows take focus so that Delete acts on the one the user is on.
    setFocusPolicy(Qt::StrongFocus);

    setFontRole(name_, 1.0, true);
    name_->setObjectName("nameLabel");
    subtitle_->setObjectName("subtitleLabel");
    subtitle_->setForegroundRole(QPalette::PlaceholderText);
    facts_->setObjectName("factsLabel");
    facts_->setForegroundRole(QPalette::PlaceholderText);
    thumbnail_->setObjectName("thumbnail");
    thumbnail_->setFixedSize(64, 36);
    thumbnail_->setAlignment(Qt::AlignCenter);
    thumbnail_->setVisible(false);
    outputName_->setObjectName("outputLabel");
    state_->setObjectName("stateLabel");
    state_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    progress_->setObjectName("progress");
    progress_->setTextVisible(false);
    progress_->setMaximumHeight(8);
    // Long words (paths, file names) may break anywhere, so the row never widens the window.
    detail_->setObjectName("phaseLabel");
    detail_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    detail_->setWordWrap(true);
    detail_->setTextFormat(Qt::PlainText);
    detail_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    warning_->setObjectName("warningLabel");
    warning_->setWordWrap(true);
    warning_->setTextFormat(Qt::PlainText);
    warning_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    trim_->setToolTip(tr("Set this file's range or clips on a player"));

    connect(trim_, &QToolButton::clicked, this, [this] { emit trimRequested(id_); });
    connect(cancel_, &QToolButton::clicked, this, [this] { emit cancelRequested(id_); });
    connect(remove_, &QToolButton::clicked, this, [this] { emit removeRequested(id_); });
    connect(showInFolder_, &QToolButton::clicked, this,
            [this] { emit showInFolderRequested(output_); });
    connect(open_, &QToolButton::clicked, this, [this] { emit openRequested(output_); });

    auto* buttons = new QHBoxLayout;
    buttons->setSpacing(4);
    for (QToolButton* button : {showInFolder_, open_, trim_, cancel_, remove_}) {
        buttons->addWidget(button);
    }

    // Thumbnail | name, subtitle and facts (these shrink) | state | buttons (never hidden).
    auto* grid = new QGridLayout(this);
    grid->setContentsMargins(10, 8, 10, 8);
    grid->setHorizontalSpacing(12);
    grid->setVerticalSpacing(4);
    grid->addWidget(thumbnail_, 0, 0, 3, 1, Qt::AlignTop);
    grid->addWidget(name_, 0, 1);
    grid->addWidget(state_, 0, 2);
    grid->addLayout(buttons, 0, 3, 3, 1, Qt::AlignVCenter);
    grid->addWidget(subtitle_, 1, 1, 1, 2);
    grid->addWidget(facts_, 2, 1, 1, 2);
    grid->addWidget(progress_, 3, 0, 1, 4);
    grid->addWidget(outputName_, 4, 0, 1, 4);
    grid->addWidget(detail_, 5, 0, 1, 4);
    grid->addWidget(warning_, 6, 0, 1, 4);
    grid->setColumnStretch(1, 1);
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
    name_->setFullText(fileName);
    name_->setToolTip(qpath(item.source));
    subtitle_->setFullText(subtitleText(item));
    subtitle_->setVisible(!subtitle_->fullText().isEmpty());
    const app::SourceFacts facts{
        item.sourceDurationSeconds, item.sourceWidth, item.sourceHeight, item.sourceBytes, {}};
    facts_->setFullText(qs(facts.summary()));
    facts_->setVisible(!facts_->fullText().isEmpty());
    QString state = qs(item.stateLabel());
    if (kind == Kind::running) {
        if (!runningSince_) {
            runningSince_ = std::chrono::steady_clock::now();
        }
        if (item.state.progress) {
            const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(
                std::chrono::steady_clock::now() - *runningSince_);
            if (const std::optional<QString> left = timeLeftText(*item.state.progress, elapsed)) {
                state += QStringLiteral(" · ") + *left;
            }
        }
    } else {
        runningSince_.reset();
    }
    state_->setText(state);
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
    } else if (item.destination.kind == app::OutputDestination::Resolution::Kind::unavailable) {
        detail = qs(item.destination.sentence);
    }
    detail_->setText(detail);
    detail_->setToolTip(detail);
    detail_->setVisible(!detail.isEmpty());
    outputName_->setFullText(kind == Kind::done ? qpath(item.state.output.filename()) : QString());
    outputName_->setVisible(kind == Kind::done);
    warning_->setText(item.warningNote ? qs(*item.warningNote) : QString());
    warning_->setVisible(item.warningNote.has_value());

    trim_->setVisible(kind == Kind::needsPreset || kind == Kind::waiting);
    cancel_->setVisible(!item.isFinished());
    cancel_->setToolTip(kind == Kind::running ? tr("Stop this conversion")
                                              : tr("Take this file out of the queue"));
    remove_->setVisible(item.isFinished());
    showInFolder_->setVisible(kind == Kind::done);
    open_->setVisible(kind == Kind::done);
    setAccessibleName(fileName + QStringLiteral(", ") + state_->text());
}

void QueueRowWidget::setThumbnail(const std::string& png) {
    if (!thumbnail_->pixmap().isNull()) {
        return;  // a row's source never changes
    }
    QPixmap picture;
    if (!png.empty() && picture.loadFromData(reinterpret_cast<const uchar*>(png.data()),
                                             static_cast<uint>(png.size()), "PNG")) {
        thumbnail_->setPixmap(
            picture.scaled(thumbnail_->size(), Qt::KeepAspectRatio, Qt::SmoothTransformation));
        thumbnail_->setVisible(true);
    }
}

std::optional<QString> QueueRowWidget::timeLeftText(double fraction, std::chrono::seconds elapsed) {
    // Below a few percent or seconds the rate says too little to be worth showing.
    if (!(fraction >= 0.02 && fraction < 1.0) || elapsed.count() < 2) {
        return std::nullopt;
    }
    const double left = static_cast<double>(elapsed.count()) * (1.0 - fraction) / fraction;
    if (left < 60) {
        return tr("About %1 s left").arg(std::max(1, static_cast<int>(std::ceil(left))));
    }
    if (left < 3600) {
        return tr("About %1 min left").arg(static_cast<int>(std::ceil(left / 60)));
    }
    return tr("About %1 h %2 min left")
        .arg(static_cast<int>(left / 3600))
        .arg(static_cast<int>(std::fmod(left, 3600) / 60));
}

QString QueueRowWidget::stateText() const {
    return state_->text();
}

}  // namespace tessarin::gui
