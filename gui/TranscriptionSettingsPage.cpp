#include "gui/TranscriptionSettingsPage.hpp"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollArea>
#include <QVBoxLayout>

#include "app/transcription/TranscriptDestination.hpp"
#include "app/transcription/TranscriptionSettingsModel.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::gui {

namespace {

using Presence = engine::TranscriptionKeyPresence;
using engine::TranscriptionConsentKind;

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QLabel* note(QWidget* parent) {
    auto* label = new QLabel(parent);
    label->setWordWrap(true);
    return label;
}

QString presenceText(Presence presence) {
    switch (presence) {
        case Presence::present: return QObject::tr("A key is saved in the system keyring.");
        case Presence::absent: return QObject::tr("No key is saved yet.");
        case Presence::unreadable:
            return QObject::tr("The system keyring couldn’t be read, so the saved API key is "
                               "unavailable right now.");
        case Presence::unknown: break;
    }
    return {};
}

}  // namespace

TranscriptionSettingsPage::TranscriptionSettingsPage(app::TranscriptionSettingsModel& model,
                                                     engine::SettingsStore& settings,
                                                     QWidget* parent)
    : QWidget(parent), model_(model), settings_(settings) {
    setObjectName("transcriptionSettings");
    auto* content = new QWidget;
    auto* column = new QVBoxLayout(content);
    column->addWidget(makeKeyGroup());
    column->addWidget(makeModelGroup());
    column->addWidget(makeTextGroup());
    column->addWidget(makeOutputGroup());
    column->addWidget(makeConsentGroup());
    column->addStretch();
    auto* scroll = new QScrollArea(this);
    scroll->setWidget(content);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);
    connect(&model_, &app::TranscriptionSettingsModel::changed, this,
            &TranscriptionSettingsPage::refresh);
    refresh();
    // The model list is looked at when the page opens: at most a public list, no media, no key.
    model_.refreshCatalog(false);
}

QWidget* TranscriptionSettingsPage::makeKeyGroup() {
    auto* group = new QGroupBox(tr("OpenRouter API key"), this);
    auto* layout = new QVBoxLayout(group);
    keyField_ = new QLineEdit(group);
    keyField_->setObjectName("apiKeyField");
    keyField_->setEchoMode(QLineEdit::Password);
    keyField_->setPlaceholderText(tr("Paste a key; leave empty and save to remove it"));
    auto* buttons = new QHBoxLayout;
    auto* save = new QPushButton(tr("Save"), group);
    auto* verify = new QPushButton(tr("Verify"), group);
    auto* remove = new QPushButton(tr("Remove"), group);
    save->setObjectName("saveKey");
    verify->setObjectName("verifyKey");
    remove->setObjectName("removeKey");
    buttons->addWidget(keyField_, 1);
    buttons->addWidget(save);
    buttons->addWidget(verify);
    buttons->addWidget(remove);
    keyStatus_ = note(group);
    keyStatus_->setObjectName("keyStatus");
    verifyResult_ = note(group);
    layout->addLayout(buttons);
    layout->addWidget(keyStatus_);
    layout->addWidget(verifyResult_);
    connect(save, &QPushButton::clicked, this, [this] {
        const QString refusal = model_.saveKey(keyField_->text());
        keyField_->clear();  // the key is never kept on screen once saved
        if (!refusal.isEmpty()) {
            verifyResult_->setText(refusal);
        }
    });
    connect(verify, &QPushButton::clicked, this, [this] { model_.verifyKey(); });
    connect(remove, &QPushButton::clicked, this, [this] {
        const QString refusal = model_.removeKey();
        if (!refusal.isEmpty()) {
            verifyResult_->setText(refusal);
        }
    });
    return group;
}

QWidget* TranscriptionSettingsPage::makeModelGroup() {
    auto* group = new QGroupBox(tr("Models"), this);
    auto* layout = new QVBoxLayout(group);
    auto* activeRow = new QFormLayout;
    activeModel_ = new QComboBox(group);
    activeModel_->setObjectName("activeModel");
    activeRow->addRow(tr("Model used:"), activeModel_);
    layout->addLayout(activeRow);
    roster_ = new QListWidget(group);
    roster_->setObjectName("roster");
    roster_->setMinimumHeight(140);
    layout->addWidget(roster_);
    auto* addRow = new QHBoxLayout;
    addField_ = new QLineEdit(group);
    addField_->setPlaceholderText(tr("author/model"));
    auto* add = new QPushButton(tr("Add"), group);
    auto* restore = new QPushButton(tr("Restore Defaults"), group);
    auto* refresh = new QPushButton(tr("Refresh Models"), group);
    addRow->addWidget(addField_, 1);
    addRow->addWidget(add);
    addRow->addWidget(restore);
    addRow->addWidget(refresh);
    layout->addLayout(addRow);
    addRejection_ = note(group);
    catalogResult_ = note(group);
    layout->addWidget(addRejection_);
    layout->addWidget(catalogResult_);
    connect(add, &QPushButton::clicked, this, [this] {
        model_.addModel(addField_->text());
        if (model_.addRejection().isEmpty()) {
            addField_->clear();
        }
    });
    connect(restore, &QPushButton::clicked, this, [this] { model_.restoreRoster(); });
    connect(refresh, &QPushButton::clicked, this, [this] { model_.refreshCatalog(true); });
    connect(roster_, &QListWidget::itemChanged, this, [this](QListWidgetItem* item) {
        if (!showing_) {
            model_.setModelEnabled(item->data(Qt::UserRole).toString(),
                                   item->checkState() == Qt::Checked);
        }
    });
    connect(activeModel_, &QComboBox::activated, this,
            [this](int index) { model_.setActiveModel(activeModel_->itemData(index).toString()); });
    return group;
}

QWidget* TranscriptionSettingsPage::makeTextGroup() {
    auto* group = new QGroupBox(tr("Transcript"), this);
    auto* form = new QFormLayout(group);
    promptModes_ = new QButtonGroup(group);
    auto* builtIn = new QRadioButton(tr("Built-in prompt"), group);
    auto* custom = new QRadioButton(tr("My own prompt"), group);
    promptModes_->addButton(builtIn, 0);
    promptModes_->addButton(custom, 1);
    auto* modes = new QHBoxLayout;
    modes->addWidget(builtIn);
    modes->addWidget(custom);
    modes->addStretch();
    form->addRow(tr("Prompt (chat models):"), modes);
    customPrompt_ = new QPlainTextEdit(group);
    customPrompt_->setMaximumHeight(70);
    form->addRow(QString(), customPrompt_);
    language_ = new QLineEdit(group);
    language_->setPlaceholderText(tr("Detect (or a code such as en)"));
    form->addRow(tr("Language:"), language_);
    languageHint_ = note(group);
    form->addRow(QString(), languageHint_);
    format_ = new QComboBox(group);
    format_->setObjectName("transcriptFormat");
    format_->addItem(tr("Plain text (.txt)"), QStringLiteral("text"));
    format_->addItem(tr("Subtitles (.srt)"), QStringLiteral("srt"));
    format_->addItem(tr("WebVTT (.vtt)"), QStringLiteral("vtt"));
    form->addRow(tr("Format:"), format_);
    speakers_ = new QCheckBox(tr("Label speakers"), group);
    form->addRow(QString(), speakers_);
    vocabulary_ = new QPlainTextEdit(group);
    vocabulary_->setPlaceholderText(tr("Names and terms, one per line"));
    vocabulary_->setMaximumHeight(80);
    form->addRow(tr("Names:"), vocabulary_);
    optionsProblem_ = note(group);
    optionsNote_ = note(group);
    auto* parts = note(group);
    parts->setText(qs(engine::TranscriptionPreferences::kSpeakerPartsText));
    form->addRow(QString(), optionsProblem_);
    form->addRow(QString(), optionsNote_);
    form->addRow(QString(), parts);

    connect(promptModes_, &QButtonGroup::idClicked, this, [this](int id) {
        model_.setPromptMode(id == 1 ? engine::TranscriptionPromptMode::custom
                                     : engine::TranscriptionPromptMode::builtIn);
    });
    connect(customPrompt_, &QPlainTextEdit::textChanged, this, [this] {
        if (!showing_) {
            model_.setCustomPrompt(customPrompt_->toPlainText());
        }
    });
    connect(language_, &QLineEdit::editingFinished, this,
            [this] { model_.setLanguage(language_->text()); });
    connect(format_, &QComboBox::activated, this, [this] { saveOptions(); });
    connect(speakers_, &QCheckBox::toggled, this, [this] {
        if (!showing_) {
            saveOptions();
        }
    });
    connect(vocabulary_, &QPlainTextEdit::textChanged, this, [this] {
        if (!showing_) {
            saveOptions();
        }
    });
    return group;
}

QWidget* TranscriptionSettingsPage::makeOutputGroup() {
    auto* group = new QGroupBox(tr("Save transcripts"), this);
    auto* layout = new QVBoxLayout(group);
    outputModes_ = new QButtonGroup(group);
    auto* beside = new QRadioButton(tr("Beside the original"), group);
    auto* folder = new QRadioButton(tr("In a folder:"), group);
    outputModes_->addButton(beside, 0);
    outputModes_->addButton(folder, 1);
    auto* choose = new QPushButton(tr("Choose…"), group);
    outputPath_ = note(group);
    auto* folderRow = new QHBoxLayout;
    folderRow->addWidget(folder);
    folderRow->addWidget(outputPath_, 1);
    folderRow->addWidget(choose);
    layout->addWidget(beside);
    layout->addLayout(folderRow);
    connect(beside, &QRadioButton::clicked, this, [this] {
        settings_.setString(app::TranscriptDestination::kModeKey,
                            app::rawValue(app::TranscriptOutputMode::sameFolder));
        refresh();
    });
    connect(choose, &QPushButton::clicked, this, [this] {
        const QString folder =
            QFileDialog::getExistingDirectory(this, tr("Choose a folder for transcripts"));
        if (!folder.isEmpty()) {
            chooseFolder(folder);
        }
    });
    connect(folder, &QRadioButton::clicked, this, [this, choose] {
        if (!settings_.stringValue(app::TranscriptDestination::kPathKey)) {
            choose->click();
        } else {
            settings_.setString(app::TranscriptDestination::kModeKey,
                                app::rawValue(app::TranscriptOutputMode::customFolder));
        }
        refresh();
    });
    return group;
}

QWidget* TranscriptionSettingsPage::makeConsentGroup() {
    auto* group = new QGroupBox(tr("Upload approval"), this);
    auto* form = new QFormLayout(group);
    audioConsent_ = new QLabel(group);
    audioConsent_->setObjectName("audioConsent");
    videoConsent_ = new QLabel(group);
    withdrawAudio_ = new QPushButton(tr("Withdraw"), group);
    withdrawAudio_->setObjectName("withdrawAudio");
    withdrawVideo_ = new QPushButton(tr("Withdraw"), group);
    auto* audioRow = new QHBoxLayout;
    audioRow->addWidget(audioConsent_, 1);
    audioRow->addWidget(withdrawAudio_);
    auto* videoRow = new QHBoxLayout;
    videoRow->addWidget(videoConsent_, 1);
    videoRow->addWidget(withdrawVideo_);
    form->addRow(tr("Audio:"), audioRow);
    form->addRow(tr("Whole video:"), videoRow);
    connect(withdrawAudio_, &QPushButton::clicked, this,
            [this] { model_.withdrawConsent(TranscriptionConsentKind::audioUpload); });
    connect(withdrawVideo_, &QPushButton::clicked, this,
            [this] { model_.withdrawConsent(TranscriptionConsentKind::videoUpload); });
    return group;
}

void TranscriptionSettingsPage::chooseFolder(const QString& folder) {
    try {
        app::TranscriptDestination::chooseFolder(settings_, folder.toStdString());
    } catch (const std::exception&) {
        outputPath_->setText(tr("That folder can’t be used for transcripts."));
        return;
    }
    refresh();
}

void TranscriptionSettingsPage::saveOptions() {
    engine::TranscriptionOptions options;
    options.format = engine::transcriptFormat(format_->currentData().toString().toStdString())
                         .value_or(engine::TranscriptFormat::text);
    options.speakers = speakers_->isChecked();
    options.vocabulary = vocabulary_->toPlainText().toStdString();
    optionsProblem_->setText(model_.setOptions(options));
}

void TranscriptionSettingsPage::refresh() {
    showing_ = true;
    keyStatus_->setText(presenceText(model_.keyPresence()));
    verifyResult_->setText(model_.verifyingKey() ? tr("Checking the key…") : model_.verifyResult());

    const std::optional<engine::CatalogSnapshot> catalog = model_.catalog();
    const engine::ActiveModelResolution active = model_.activeResolution();
    roster_->clear();
    activeModel_->clear();
    for (const engine::TranscriptionRosterEntry& entry : model_.roster()) {
        const engine::CatalogEntry* listed = catalog ? catalog->find(entry.id) : nullptr;
        QString label = QString::fromStdString(entry.id);
        if (listed != nullptr) {
            label += QStringLiteral(" — ") +
                     QString::fromStdString(engine::pricingText(engine::pricingOf(*listed)));
        }
        auto* item = new QListWidgetItem(label, roster_);
        item->setData(Qt::UserRole, QString::fromStdString(entry.id));
        item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
        item->setCheckState(entry.enabled ? Qt::Checked : Qt::Unchecked);
        if (entry.enabled) {
            activeModel_->addItem(QString::fromStdString(entry.id), QString::fromStdString(entry.id));
        }
    }
    const int current = activeModel_->findData(QString::fromStdString(active.id));
    activeModel_->setCurrentIndex(current);
    addRejection_->setText(model_.addRejection());
    catalogResult_->setText(model_.metadataOperations() > 0 ? tr("Looking up models…")
                                                            : model_.catalogResult());

    const engine::TranscriptionPreferences preferences = model_.preferences();
    promptModes_->button(preferences.promptMode == engine::TranscriptionPromptMode::custom ? 1 : 0)
        ->setChecked(true);
    if (customPrompt_->toPlainText().toStdString() != preferences.customPrompt) {
        customPrompt_->setPlainText(QString::fromStdString(preferences.customPrompt));
    }
    customPrompt_->setEnabled(preferences.promptMode == engine::TranscriptionPromptMode::custom);
    if (!language_->hasFocus()) {
        language_->setText(QString::fromStdString(preferences.language.value_or("")));
    }
    languageHint_->setText(model_.languageHintText());
    format_->setCurrentIndex(format_->findData(qs(engine::rawValue(preferences.options.format))));
    speakers_->setChecked(preferences.options.speakers);
    if (vocabulary_->toPlainText().toStdString() != preferences.options.vocabulary &&
        !vocabulary_->hasFocus()) {
        vocabulary_->setPlainText(QString::fromStdString(preferences.options.vocabulary));
    }
    optionsNote_->setText(model_.optionsNote());

    const bool custom = app::transcriptOutputModeFromRaw(
                            settings_.stringValue(app::TranscriptDestination::kModeKey).value_or("")) ==
                        app::TranscriptOutputMode::customFolder;
    outputModes_->button(custom ? 1 : 0)->setChecked(true);
    outputPath_->setText(
        QString::fromStdString(settings_.stringValue(app::TranscriptDestination::kPathKey).value_or("")));

    const bool audio = model_.consentGranted(TranscriptionConsentKind::audioUpload);
    const bool video = model_.consentGranted(TranscriptionConsentKind::videoUpload);
    audioConsent_->setText(audio ? tr("Approved") : tr("Not approved: you'll be asked first"));
    videoConsent_->setText(video ? tr("Approved") : tr("Not approved: you'll be asked first"));
    withdrawAudio_->setEnabled(audio);
    withdrawVideo_->setEnabled(video);
    showing_ = false;
}

}  // namespace tessarin::gui
