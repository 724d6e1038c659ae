#include "gui/PresetEditor.hpp"

#include <fmt/format.h>

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

#include "app/settings/PresetStore.hpp"
#include "engine/model/Preset.hpp"
#include "gui/UIScale.hpp"

namespace tessarin::gui {
namespace {

using presets::PresetFormat;
using ScaleMode = presets::PresetParameters::ScaleMode;
using LossyMode = presets::PresetParameters::LossyMode;

constexpr const char* kReadOnlySentence =
    "This preset was created by a newer version of Tessarin, so it is read-only here — saving "
    "an edit would discard the settings this version doesn’t understand. Update Tessarin to "
    "edit it, or delete it with the − button.";
constexpr const char* kBuiltinNote =
    "Edits to this built-in preset apply everywhere it is used — the window chips and its file "
    "manager action. An edited preset shows “(edited)” in the list and offers Revert to "
    "Default; the output filename suffix follows the edited quality value.";
constexpr const char* kNameNote =
    "Shown on the preset's chip in the main window; also used, lowercased-and-dashed, as the "
    "output filename suffix — “My GIF” saves clip-my-gif.gif next to the original.";

// Wide enough that any typed number reaches validation, which names the real range.
constexpr int kFieldMinimum = -9999;
constexpr int kFieldMaximum = 9999;

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), text.size());
}

QSpinBox* numberField(QWidget* parent, const QString& objectName, const QString& suffix = {}) {
    auto* field = new QSpinBox(parent);
    field->setObjectName(objectName);
    field->setRange(kFieldMinimum, kFieldMaximum);
    field->setSuffix(suffix);
    return field;
}

QString qualityNote(PresetFormat format) {
    if (format == PresetFormat::h265) {
        return QStringLiteral("x265 accepts 0–51.");
    }
    const presets::QualityRange range = presets::qualityRange(format);
    return qs(fmt::format("Accepted range {}–{}.", range.low, range.high));
}

}  // namespace

PresetEditor::PresetEditor(app::PresetStore& store, QWidget* parent)
    : QWidget(parent),
      store_(store),
      heading_(new QLabel(this)),
      readOnly_(new QLabel(QString::fromUtf8(kReadOnlySentence), this)),
      form_(new QFormLayout),
      name_(new QLineEdit(this)),
      nameNote_(new QLabel(QString::fromUtf8(kNameNote), this)),
      format_(new QComboBox(this)),
      quality_(numberField(this, "quality")),
      qualityNote_(new QLabel(this)),
      limitFps_(new QCheckBox(tr("Limit to"), this)),
      fps_(numberField(this, "fps", tr(" fps"))),
      scaleMode_(new QComboBox(this)),
      scaleValue_(numberField(this, "scaleValue", tr(" px"))),
      speed_(new QComboBox(this)),
      dither_(new QComboBox(this)),
      lossyMode_(new QComboBox(this)),
      lossyLevel_(numberField(this, "lossyLevel")),
      optimizeGif_(new QCheckBox(tr("Optimize with gifsicle"), this)),
      validation_(new QLabel(this)),
      builtinNote_(new QLabel(QString::fromUtf8(kBuiltinNote), this)),
      revert_(new QPushButton(tr("Revert to Default"), this)),
      save_(new QPushButton(tr("Save"), this)) {
    setObjectName("presetEditor");
    setFontRole(heading_, 1.2, true);
    heading_->setTextFormat(Qt::PlainText);
    for (QLabel* note : {readOnly_, nameNote_, qualityNote_, builtinNote_}) {
        note->setWordWrap(note != qualityNote_);
        note->setForegroundRole(QPalette::PlaceholderText);
    }
    validation_->setObjectName("validation");
    validation_->setWordWrap(true);
    QPalette warning = validation_->palette();
    warning.setColor(QPalette::WindowText, QColor(0xc0, 0x1c, 0x28));
    validation_->setPalette(warning);

    name_->setObjectName("presetName");
    for (PresetFormat format : presets::kAllPresetFormats) {
        format_->addItem(qs(presets::label(format)), static_cast<int>(format));
    }
    const std::pair<ScaleMode, QString> scales[] = {
        {ScaleMode::original, tr("Original size")},
        {ScaleMode::half, tr("Half size")},
        {ScaleMode::third, tr("One third")},
        {ScaleMode::p360, tr("360p")},
        {ScaleMode::p480, tr("480p")},
        {ScaleMode::p720, tr("720p")},
        {ScaleMode::p1080, tr("1080p")},
        {ScaleMode::fitWidth, tr("Fit width")},
        {ScaleMode::fitHeight, tr("Fit height")},
    };
    for (const auto& [mode, text] : scales) {
        scaleMode_->addItem(text, static_cast<int>(mode));
    }
    for (std::string_view speed : presets::kSpeedPresets) {
        speed_->addItem(qs(speed));
    }
    for (std::string_view dither : presets::kDithers) {
        dither_->addItem(qs(dither));
    }
    lossyMode_->addItem(tr("Off"), static_cast<int>(LossyMode::off));
    lossyMode_->addItem(tr("Default level"), static_cast<int>(LossyMode::defaultLevel));
    lossyMode_->addItem(tr("Level"), static_cast<int>(LossyMode::level));

    auto* fpsRow = new QHBoxLayout;
    fpsRow->addWidget(limitFps_);
    fpsRow->addWidget(fps_);
    fpsRow->addStretch();
    auto* scaleRow = new QHBoxLayout;
    scaleRow->addWidget(scaleMode_);
    scaleRow->addWidget(scaleValue_);
    scaleRow->addStretch();
    auto* lossyRow = new QHBoxLayout;
    lossyRow->addWidget(lossyMode_);
    lossyRow->addWidget(lossyLevel_);
    lossyRow->addStretch();

    form_->setFieldGrowthPolicy(QFormLayout::ExpandingFieldsGrow);
    form_->addRow(tr("Name:"), name_);
    form_->addRow(QString(), nameNote_);
    form_->addRow(tr("Format:"), format_);
    form_->addRow(tr("Quality:"), quality_);
    form_->addRow(QString(), qualityNote_);
    form_->addRow(tr("Frame rate:"), fpsRow);
    form_->addRow(tr("Size:"), scaleRow);
    form_->addRow(tr("Speed:"), speed_);
    form_->addRow(tr("Dither:"), dither_);
    lossyRow_ = form_->rowCount();
    form_->addRow(tr("Lossy:"), lossyRow);
    form_->addRow(QString(), optimizeGif_);

    auto* buttons = new QHBoxLayout;
    revert_->setObjectName("revertButton");
    save_->setObjectName("saveButton");
    buttons->addWidget(revert_);
    buttons->addStretch();
    buttons->addWidget(save_);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(10);
    layout->addWidget(heading_);
    layout->addWidget(readOnly_);
    layout->addLayout(form_);
    layout->addWidget(validation_);
    layout->addWidget(builtinNote_);
    layout->addStretch();
    layout->addLayout(buttons);

    const auto changed = [this] {
        if (!loading_) {
            refresh();
        }
    };
    connect(name_, &QLineEdit::textEdited, this, changed);
    connect(format_, &QComboBox::currentIndexChanged, this, changed);
    for (QSpinBox* field : {quality_, fps_, scaleValue_, lossyLevel_}) {
        connect(field, &QSpinBox::valueChanged, this, changed);
    }
    for (QComboBox* field : {scaleMode_, speed_, dither_, lossyMode_}) {
        connect(field, &QComboBox::currentIndexChanged, this, changed);
    }
    for (QCheckBox* field : {limitFps_, optimizeGif_}) {
        connect(field, &QCheckBox::toggled, this, changed);
    }
    connect(save_, &QPushButton::clicked, this, &PresetEditor::save);
    connect(revert_, &QPushButton::clicked, this, &PresetEditor::revertToDefault);
    clear();
}

void PresetEditor::editBuiltin(const std::string& id) {
    const engine::Preset* builtin = engine::Preset::builtin(id);
    const auto parameters = store_.parameters(id);
    if (builtin == nullptr || !parameters) {
        clear();
        return;
    }
    builtinID_ = id;
    custom_.reset();
    heading_->setText(qs(builtin->displayName));
    show(*parameters, presets::presetFormat(builtin->options.format));
}

void PresetEditor::editCustom(const presets::CustomPreset& custom) {
    builtinID_.reset();
    custom_ = custom;
    heading_->setText(qs(custom.name));
    loading_ = true;
    name_->setText(qs(custom.name));
    loading_ = false;
    show(custom.parameters, custom.format);
}

void PresetEditor::clear() {
    builtinID_.reset();
    custom_.reset();
    heading_->setText(tr("Choose a preset to edit"));
    show(presets::defaultParameters(PresetFormat::h264), PresetFormat::h264);
}

void PresetEditor::show(const presets::PresetParameters& parameters, PresetFormat format) {
    loading_ = true;
    format_->setCurrentIndex(format_->findData(static_cast<int>(format)));
    quality_->setValue(parameters.quality);
    limitFps_->setChecked(parameters.fps.has_value());
    fps_->setValue(parameters.fps.value_or(30));
    scaleMode_->setCurrentIndex(scaleMode_->findData(static_cast<int>(parameters.scaleMode)));
    scaleValue_->setValue(parameters.scaleValue);
    speed_->setCurrentText(qs(parameters.speedPreset));
    dither_->setCurrentText(qs(parameters.dither));
    lossyMode_->setCurrentIndex(lossyMode_->findData(static_cast<int>(parameters.lossyMode)));
    lossyLevel_->setValue(parameters.lossyLevel);
    optimizeGif_->setChecked(parameters.optimizeGif);
    loading_ = false;
    refresh();
}

presets::PresetParameters PresetEditor::parameters() const {
    presets::PresetParameters result;
    result.quality = quality_->value();
    if (limitFps_->isChecked()) {
        result.fps = fps_->value();
    }
    result.scaleMode = static_cast<ScaleMode>(scaleMode_->currentData().toInt());
    result.scaleValue = scaleValue_->value();
    result.speedPreset = speed_->currentText().toStdString();
    result.dither = dither_->currentText().toStdString();
    result.lossyMode = static_cast<LossyMode>(lossyMode_->currentData().toInt());
    result.lossyLevel = lossyLevel_->value();
    result.optimizeGif = optimizeGif_->isChecked();
    return result;
}

PresetFormat PresetEditor::format() const {
    return static_cast<PresetFormat>(format_->currentData().toInt());
}

QString PresetEditor::validationText() const {
    return validation_->text();
}

void PresetEditor::refresh() {
    const bool editing = builtinID_ || custom_;
    const bool readOnly = custom_ && custom_->isReadOnly();
    const PresetFormat format = this->format();
    const presets::PresetParameters parameters = this->parameters();
    const bool gif = format == PresetFormat::gif;
    const bool fit =
        parameters.scaleMode == ScaleMode::fitWidth || parameters.scaleMode == ScaleMode::fitHeight;

    form_->setRowVisible(name_, custom_.has_value());
    form_->setRowVisible(nameNote_, custom_.has_value());
    form_->setRowVisible(format_, custom_.has_value());
    form_->setRowVisible(speed_, presets::speedPresetApplies(format));
    form_->setRowVisible(dither_, gif);
    form_->setRowVisible(lossyRow_, gif);
    form_->setRowVisible(optimizeGif_, gif);
    fps_->setEnabled(limitFps_->isChecked());
    scaleValue_->setVisible(fit);
    lossyLevel_->setVisible(parameters.lossyMode == LossyMode::level);
    qualityNote_->setText(qualityNote(format));
    readOnly_->setVisible(readOnly);
    builtinNote_->setVisible(builtinID_.has_value());

    QStringList sentences;
    for (const std::string& sentence : parameters.validationErrors(format)) {
        sentences.append(QString::fromStdString(sentence));
    }
    validation_->setText(sentences.join('\n'));
    validation_->setVisible(!sentences.isEmpty());

    for (QWidget* field : std::initializer_list<QWidget*>{name_, format_, quality_, limitFps_, fps_,
                                                          scaleMode_, scaleValue_, speed_, dither_,
                                                          lossyMode_, lossyLevel_, optimizeGif_}) {
        field->setDisabled(!editing || readOnly || (field == fps_ && !limitFps_->isChecked()));
    }
    save_->setEnabled(editing && !readOnly && sentences.isEmpty());
    revert_->setVisible(builtinID_.has_value());
    revert_->setEnabled(builtinID_ && store_.hasOverride(*builtinID_));
}

void PresetEditor::save() {
    const presets::PresetParameters parameters = this->parameters();
    if (!parameters.validationErrors(format()).empty()) {
        return;
    }
    if (builtinID_) {
        store_.setOverride(*builtinID_, parameters);
    } else if (custom_ && !custom_->isReadOnly()) {
        presets::CustomPreset edited = *custom_;
        edited.name = name_->text().trimmed().toStdString();
        edited.format = format();
        edited.parameters = parameters;
        if (store_.updateCustom(edited)) {
            custom_ = edited;
            heading_->setText(qs(edited.name));
        }
    }
    refresh();
}

void PresetEditor::revertToDefault() {
    if (!builtinID_) {
        return;
    }
    const std::string id = *builtinID_;
    store_.revert(id);
    editBuiltin(id);
}

}  // namespace tessarin::gui
