#include "gui/TrimEditorDialog.hpp"

#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QInputDialog>
#include <QLabel>
#include <QMediaMetaData>
#include <QMediaPlayer>
#include <QMessageBox>
#include <QPixmap>
#include <QPushButton>
#include <QShortcut>
#include <QTableWidget>
#include <QVBoxLayout>
#include <QVideoWidget>
#include <cmath>

#include "engine/clips/ClipListFile.hpp"
#include "engine/model/TimeText.hpp"
#include "gui/TrimTimeline.hpp"

namespace tessarin::gui {

namespace {

using Action = app::TrimEditor::KeyframeAction;

// Until the player reports the source's frame rate a step is one frame at 25 fps.
constexpr double kFrameSeconds = 0.04;

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

// A draft's time as seconds; empty, or not a time yet, is `otherwise`.
double secondsOf(const std::string& text, double otherwise) {
    return engine::parseTimeSeconds(text).value_or(otherwise);
}

}  // namespace

TrimEditorDialog::TrimEditorDialog(std::unique_ptr<app::TrimEditor> editor, bool withPlayer,
                                   QWidget* parent)
    : QDialog(parent), editor_(std::move(editor)), frameSeconds_(kFrameSeconds) {
    setObjectName("trimEditorDialog");
    setWindowTitle(tr("Trim %1").arg(qs(editor_->request().source.filename().string())));
    build();
    connect(editor_.get(), &app::TrimEditor::changed, this, &TrimEditorDialog::reload);
    connect(editor_.get(), &app::TrimEditor::seekRequested, this, &TrimEditorDialog::setPlayhead);
    if (withPlayer) {
        player_ = new QMediaPlayer(this);
        player_->setVideoOutput(video_);
        connect(player_, &QMediaPlayer::mediaStatusChanged, this,
                [this](QMediaPlayer::MediaStatus status) {
                    if (status == QMediaPlayer::LoadedMedia) {
                        const double rate =
                            player_->metaData().value(QMediaMetaData::VideoFrameRate).toDouble();
                        if (std::isfinite(rate) && rate >= 1 && rate <= 1000) {
                            frameSeconds_ = 1.0 / rate;
                            timeline_->setFrameStep(frameSeconds_);
                        }
                    }
                    if (status == QMediaPlayer::LoadedMedia && !editor_->previewReady()) {
                        editor_->setPreviewAvailable(true);
                    } else if (status == QMediaPlayer::InvalidMedia) {
                        editor_->setPreviewAvailable(false);
                    }
                });
        connect(player_, &QMediaPlayer::errorOccurred, this,
                [this] { editor_->setPreviewAvailable(false); });
        // While it plays, the player moves the playhead; a seek of ours moves the player.
        connect(player_, &QMediaPlayer::positionChanged, this, [this](qint64 position) {
            if (player_->playbackState() == QMediaPlayer::PlayingState) {
                playhead_ = static_cast<double>(position) / 1000.0;
                showPlayhead();
                showWaveformFor(playhead_);
            }
        });
        connect(player_, &QMediaPlayer::playbackStateChanged, this,
                [this](QMediaPlayer::PlaybackState state) {
                    play_->setText(state == QMediaPlayer::PlayingState ? tr("Pause") : tr("Play"));
                });
        player_->setSource(QUrl::fromLocalFile(qs(editor_->request().source.string())));
    } else {
        editor_->setPreviewAvailable(false);
    }
    editor_->open();
    reload();
}

TrimEditorDialog::~TrimEditorDialog() = default;

QPushButton* TrimEditorDialog::button(const QString& text, const QString& objectName,
                                      const std::function<void()>& action) {
    auto* created = new QPushButton(text, this);
    created->setObjectName(objectName);
    created->setAutoDefault(false);
    connect(created, &QPushButton::clicked, this, action);
    return created;
}

void TrimEditorDialog::build() {
    auto* layout = new QVBoxLayout(this);

    video_ = new QVideoWidget(this);
    video_->setMinimumSize(320, 180);
    previewMessage_ = new QLabel(this);
    previewMessage_->setObjectName("previewMessage");
    previewMessage_->setWordWrap(true);
    layout->addWidget(video_, 1);
    layout->addWidget(previewMessage_);

    // The playhead and the handles on one timeline; the handles are not a value until Trim
    // confirms them.
    timeline_ = new TrimTimeline(this);
    timeline_->setObjectName("timeline");
    timeline_->setFrameStep(frameSeconds_);
    connect(timeline_, &TrimTimeline::playheadMoved, this, &TrimEditorDialog::setPlayhead);
    connect(timeline_, &TrimTimeline::handlesMoved, this,
            [this](double start, double end) { editor_->moveHandles(start, end); });
    time_ = new QLabel(this);
    time_->setObjectName("playheadLabel");
    trim_ = button(tr("Trim"), "trimControl", [this] { editor_->confirmHandles(); });
    auto* timeRow = new QHBoxLayout;
    timeRow->addWidget(timeline_, 1);
    timeRow->addWidget(time_);
    timeRow->addWidget(trim_);
    layout->addLayout(timeRow);

    waveform_ = new QLabel(this);
    waveform_->setObjectName("waveform");
    waveform_->setFixedHeight(60);
    waveform_->setAlignment(Qt::AlignCenter);
    waveform_->setScaledContents(true);
    // The picture is white on transparent; a dark ground shows it.
    waveform_->setStyleSheet("background: #202124; color: #bbb;");
    layout->addWidget(waveform_);

    auto* stepping = new QHBoxLayout;
    play_ = button(tr("Play"), "play", [this] {
        if (player_ == nullptr || !editor_->previewReady()) {
            return;
        }
        if (player_->playbackState() == QMediaPlayer::PlayingState) {
            player_->pause();
        } else {
            player_->play();
        }
    });
    stepping->addWidget(play_);
    stepping->addWidget(button(tr("Previous frame"), "previousFrame", [this] { stepFrames(-1); }));
    stepping->addWidget(button(tr("Next frame"), "nextFrame", [this] { stepFrames(1); }));
    stepping->addWidget(button(tr("Previous keyframe"), "previousKeyframe",
                               [this] { editor_->keyframe(Action::previous, playhead_); }));
    stepping->addWidget(button(tr("Next keyframe"), "nextKeyframe",
                               [this] { editor_->keyframe(Action::next, playhead_); }));
    auto* setHere =
        button(tr("Set start here"), "setStartHere", [this] { editor_->setStartHere(playhead_); });
    setHere->setToolTip(tr("Use the currently viewed frame’s timestamp as this clip’s start."));
    auto* setEnd =
        button(tr("Set end here"), "setEndHere", [this] { editor_->setEndHere(playhead_); });
    setEnd->setToolTip(tr("Use the currently viewed frame’s timestamp as this clip’s end."));
    stepping->addWidget(setHere);
    stepping->addWidget(setEnd);
    layout->addLayout(stepping);

    auto* keyframes = new QHBoxLayout;
    keyframes->addWidget(button(tr("Snap start to previous keyframe"), "snapStart",
                                [this] { editor_->keyframe(Action::snapStart, playhead_); }));
    keyframes->addWidget(button(tr("Snap end to next keyframe"), "snapEnd",
                                [this] { editor_->keyframe(Action::snapEnd, playhead_); }));
    keyframes->addWidget(button(tr("Use viewed keyframe as start"), "viewedAsStart",
                                [this] { editor_->keyframe(Action::viewedAsStart, playhead_); }));
    keyframes->addWidget(button(tr("Use viewed keyframe as end"), "viewedAsEnd",
                                [this] { editor_->keyframe(Action::viewedAsEnd, playhead_); }));
    layout->addLayout(keyframes);
    auto* keyframeNote = new QLabel(
        tr("Keyframes are different from ordinary frame steps. Snapping is optional."), this);
    keyframeNote->setWordWrap(true);
    layout->addWidget(keyframeNote);
    keyframeMessage_ = new QLabel(this);
    keyframeMessage_->setObjectName("keyframeMessage");
    layout->addWidget(keyframeMessage_);

    switchToDetailed_ = button(tr("Switch to detailed editing"), "switchToDetailed", [this] {
        if (!editor_->hasUnconfirmedHandles()) {
            editor_->switchToDetailedEditing();
            return;
        }
        QMessageBox question(QMessageBox::Question, tr("Switch to detailed editing?"),
                             tr("Switching keeps your last confirmed range and discards "
                                "unconfirmed handle changes. To keep those changes, stay in "
                                "visual editing and click Trim in the preview first."),
                             QMessageBox::NoButton, this);
        QPushButton* discard =
            question.addButton(tr("Discard handle changes and switch"), QMessageBox::AcceptRole);
        question.addButton(tr("Stay in visual editing"), QMessageBox::RejectRole);
        question.exec();
        if (question.clickedButton() == discard) {
            editor_->switchToDetailedEditing();
        }
    });
    layout->addWidget(switchToDetailed_);

    table_ = new QTableWidget(0, 4, this);
    table_->setObjectName("clipTable");
    table_->setHorizontalHeaderLabels({tr("Start"), tr("End"), tr("Name"), QString()});
    table_->horizontalHeader()->setStretchLastSection(true);
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    connect(table_, &QTableWidget::cellChanged, this, &TrimEditorDialog::cellEdited);
    connect(table_, &QTableWidget::currentCellChanged, this, [this](int row) {
        if (!reloading_ && row >= 0) {
            editor_->select(static_cast<std::size_t>(row));
        }
    });
    layout->addWidget(table_, 1);

    auto* clipTools = new QHBoxLayout;
    clipTools->addWidget(button(tr("Add clip"), "addClip", [this] { editor_->addClip(); }));
    clipTools->addWidget(
        button(tr("Remove clip"), "removeClip", [this] { editor_->removeClip(); }));
    clipTools->addWidget(
        button(tr("Select whole file"), "selectWholeFile", [this] { editor_->selectWholeFile(); }));
    auto* chapters = button(tr("Use chapters"), "useChapters", [this] { editor_->useChapters(); });
    chapters->setToolTip(tr("Replace the clip list with this file's chapters."));
    clipTools->addWidget(chapters);
    clipTools->addWidget(
        button(tr("Use batch trim"), "useBatchTrim", [this] { editor_->useBatchTrim(); }));
    layout->addLayout(clipTools);

    auto* fileTools = new QHBoxLayout;
    fileTools->addWidget(button(tr("Load clips"), "loadClips", [this] {
        const QString file = QFileDialog::getOpenFileName(
            this, tr("Load clips for this video"),
            qs(editor_->request().source.parent_path().string()), tr("Clip lists (*.json)"));
        if (!file.isEmpty()) {
            editor_->loadClips(file.toStdString());
        }
    }));
    auto* save = button(tr("Save clips"), "saveClips", [this] {
        const QString file = QFileDialog::getSaveFileName(
            this, tr("Save clips"),
            qs(engine::ClipListFile::proposedPath(editor_->request().source).string()),
            tr("Clip lists (*.json)"));
        if (!file.isEmpty()) {
            editor_->saveClips(file.toStdString());
        }
    });
    save->setToolTip(
        tr("Overlapping ranges are merged. Save clips writes the kept ranges; "
           "loading them starts with separate exports."));
    fileTools->addWidget(save);
    fileTools->addWidget(button(tr("Split clips"), "splitClips", [this] {
        bool ok = false;
        const QString by =
            QInputDialog::getItem(this, tr("Split clips"), tr("Split by"),
                                  {tr("Seconds per clip"), tr("Number of clips")}, 0, false, &ok);
        if (!ok) {
            return;
        }
        if (by == tr("Seconds per clip")) {
            const double seconds = QInputDialog::getDouble(
                this, tr("Split clips"),
                tr("Seconds per clip. This replaces the current clip list when accepted."), 60,
                0.000001, 1e9, 3, &ok);
            if (ok) {
                editor_->splitClips(seconds, std::nullopt);
            }
        } else {
            const int count = QInputDialog::getInt(
                this, tr("Split clips"),
                tr("Number of clips. This replaces the current clip list when accepted."), 2, 1,
                500, 1, &ok);
            if (ok) {
                editor_->splitClips(std::nullopt, count);
            }
        }
    }));
    layout->addLayout(fileTools);

    // The suggestion's tuning, starting at the editor's values.
    const engine::SilenceSettings defaults;
    auto* suggestions = new QHBoxLayout;
    const auto field = [this, suggestions](const QString& label, const char* name, double value,
                                           double low, double high, const QString& suffix) {
        auto* box = new QDoubleSpinBox(this);
        box->setObjectName(name);
        box->setRange(low, high);
        box->setDecimals(2);
        box->setSingleStep(0.05);
        box->setSuffix(suffix);
        box->setValue(value);
        suggestions->addWidget(new QLabel(label, this));
        suggestions->addWidget(box);
        return box;
    };
    noise_ = field(tr("Silence below"), "noiseDB", defaults.noiseDB, -80, -10, tr(" dB"));
    minimumSilence_ =
        field(tr("for"), "minimumSilence", defaults.minimumSilence, 0.1, 60, tr(" s"));
    padding_ = field(tr("Padding"), "padding", defaults.padding, 0, 2, tr(" s"));
    minimumClip_ = field(tr("Least clip"), "minimumClip", defaults.minimumClip, 0.1, 60, tr(" s"));
    suggestions->addWidget(button(tr("Use suggested clips"), "useSuggestedClips", [this] {
        editor_->useSuggestedClips(
            {noise_->value(), minimumSilence_->value(), padding_->value(), minimumClip_->value()});
    }));
    layout->addLayout(suggestions);

    mode_ = new QComboBox(this);
    mode_->setObjectName("exportMode");
    for (const app::ClipExportMode mode :
         {app::ClipExportMode::separate, app::ClipExportMode::keep, app::ClipExportMode::remove}) {
        mode_->addItem(qs(std::string(app::exportModeTitle(mode))), static_cast<int>(mode));
    }
    connect(mode_, &QComboBox::currentIndexChanged, this, [this](int index) {
        if (!reloading_) {
            editor_->setExportMode(
                static_cast<app::ClipExportMode>(mode_->itemData(index).toInt()));
        }
    });
    layout->addWidget(mode_);

    for (QLabel** label : {&probeMessage_, &fileMessage_, &applyNote_}) {
        *label = new QLabel(this);
        (*label)->setWordWrap(true);
        layout->addWidget(*label);
    }
    probeMessage_->setObjectName("probeMessage");
    fileMessage_->setObjectName("fileMessage");
    applyNote_->setObjectName("applyNote");

    auto* bottom = new QHBoxLayout;
    bottom->addStretch();
    bottom->addWidget(button(tr("Close"), "closeEditor", [this] { reject(); }));
    apply_ = button(tr("Apply"), "applyEditor", [this] {
        if (editor_->apply()) {
            accept();
        }
    });
    apply_->setDefault(true);
    bottom->addWidget(apply_);
    layout->addLayout(bottom);

    auto* undo = new QShortcut(QKeySequence::Undo, this);
    connect(undo, &QShortcut::activated, this, [this] { editor_->undo(); });
    auto* redo = new QShortcut(QKeySequence::Redo, this);
    connect(redo, &QShortcut::activated, this, [this] { editor_->redo(); });
}

void TrimEditorDialog::setPlayhead(double seconds) {
    const double length = editor_->duration().value_or(std::max(seconds, 0.0));
    playhead_ = std::clamp(seconds, 0.0, length);
    if (player_ != nullptr) {
        player_->setPosition(static_cast<qint64>(std::llround(playhead_ * 1000)));
    }
    showWaveformFor(playhead_);
    reload();
}

void TrimEditorDialog::showPlayhead() {
    timeline_->setPlayhead(playhead_);
    time_->setText(qs(app::editorTimeText(playhead_)) + QStringLiteral(" s"));
}

void TrimEditorDialog::stepFrames(int frames) {
    setPlayhead(playhead_ + frames * frameSeconds_);
}

// The waveform shows the 10-second window holding the playhead.
void TrimEditorDialog::showWaveformFor(double seconds) {
    if (!editor_->hasAudio() || !editor_->duration()) {
        return;
    }
    const double start = std::floor(seconds / kWaveformWindowSeconds) * kWaveformWindowSeconds;
    const auto window = editor_->waveformWindow();
    if (!window || window->first != start) {
        editor_->requestWaveform(start, kWaveformWindowSeconds);
    }
}

void TrimEditorDialog::cellEdited(int row, int column) {
    if (reloading_) {
        return;
    }
    const std::string text = table_->item(row, column)->text().toStdString();
    const auto index = static_cast<std::size_t>(row);
    switch (column) {
        case 0:
            editor_->setStart(index, text);
            break;
        case 1:
            editor_->setEnd(index, text);
            break;
        case 2:
            editor_->setName(index, text);
            break;
        default:
            break;
    }
}

void TrimEditorDialog::reloadTable() {
    const auto& clips = editor_->clips();
    table_->setRowCount(static_cast<int>(clips.size()));
    for (std::size_t index = 0; index < clips.size(); ++index) {
        const int row = static_cast<int>(index);
        const std::array<QString, 3> texts = {qs(clips[index].start), qs(clips[index].end),
                                              qs(clips[index].name)};
        for (int column = 0; column < 3; ++column) {
            auto* cell = new QTableWidgetItem(texts[static_cast<std::size_t>(column)]);
            table_->setItem(row, column, cell);
        }
        table_->item(row, 0)->setToolTip(tr("Empty: Beginning"));
        table_->item(row, 1)->setToolTip(tr("Empty: End of video"));
        auto* message = new QTableWidgetItem(qs(editor_->validation(index).value_or("")));
        message->setFlags(Qt::ItemIsEnabled);
        table_->setItem(row, 3, message);
    }
    table_->setCurrentCell(static_cast<int>(editor_->selected()), 0);
}

void TrimEditorDialog::reload() {
    reloading_ = true;
    const std::optional<double> length = editor_->duration();
    timeline_->setDuration(length);
    showPlayhead();
    if (!editor_->hasUnconfirmedHandles() && length) {
        const app::ClipDraft& draft = editor_->clips()[editor_->selected()];
        timeline_->setHandles(secondsOf(draft.start, 0), secondsOf(draft.end, *length));
    }
    const bool visual = editor_->trimmingVisually();
    video_->setVisible(editor_->previewReady());
    play_->setEnabled(editor_->previewReady());
    previewMessage_->setText(qs(editor_->previewMessage()));
    previewMessage_->setVisible(!editor_->previewMessage().empty());
    timeline_->setHandlesEnabled(visual);
    trim_->setEnabled(visual);
    switchToDetailed_->setVisible(visual);
    table_->setEnabled(!visual);
    mode_->setCurrentIndex(mode_->findData(static_cast<int>(editor_->exportMode())));
    reloadTable();

    if (length && !editor_->hasAudio() && !editor_->probing()) {
        waveform_->setText(tr("This file has no audio to draw."));
    } else if (!editor_->waveformPng().empty()) {
        QPixmap picture;
        picture.loadFromData(reinterpret_cast<const uchar*>(editor_->waveformPng().data()),
                             static_cast<uint>(editor_->waveformPng().size()), "PNG");
        waveform_->setPixmap(picture);
    } else {
        waveform_->setText(qs(editor_->waveformMessage()));
    }
    probeMessage_->setText(qs(editor_->probeMessage()));
    keyframeMessage_->setText(editor_->keyframeSearching() ? tr("Finding keyframe…")
                                                           : qs(editor_->keyframeMessage()));
    fileMessage_->setText(
        qs(visual ? std::string(app::TrimEditor::kVisualEditingActive) : editor_->fileMessage()));
    applyNote_->setText(
        qs(editor_->applyFailed() ? editor_->applyMessage() : editor_->applyNote()));
    reloading_ = false;
    if (length && !editor_->waveformWindow()) {
        showWaveformFor(playhead_);
    }
}

}  // namespace tessarin::gui
