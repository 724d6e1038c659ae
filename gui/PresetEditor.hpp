// The editor of one preset over presets::PresetParameters: a built-in (saved as an override,
// with Revert to Default) or a custom one (name and format too). The validation sentences are
// shown live and block saving; a read-only custom is shown but can't be edited.
#pragma once

#include <QWidget>
#include <optional>
#include <string>

#include "presets/CustomPreset.hpp"
#include "presets/PresetParameters.hpp"

class QCheckBox;
class QComboBox;
class QFormLayout;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace tessarin::app {
class PresetStore;
}

namespace tessarin::gui {

class PresetEditor : public QWidget {
    Q_OBJECT

public:
    explicit PresetEditor(app::PresetStore& store, QWidget* parent = nullptr);

    // Shows the built-in `id` with its override, if any.
    void editBuiltin(const std::string& id);
    void editCustom(const presets::CustomPreset& custom);
    // Nothing selected.
    void clear();

    // What the fields hold now.
    [[nodiscard]] presets::PresetParameters parameters() const;
    [[nodiscard]] presets::PresetFormat format() const;
    [[nodiscard]] QString validationText() const;
    [[nodiscard]] QPushButton* saveButton() const { return save_; }
    [[nodiscard]] QPushButton* revertButton() const { return revert_; }
    [[nodiscard]] QSpinBox* qualityField() const { return quality_; }

    void save();
    void revertToDefault();

private:
    void show(const presets::PresetParameters& parameters, presets::PresetFormat format);
    // Field visibility, notes and validation after any change.
    void refresh();

    app::PresetStore& store_;
    std::optional<std::string> builtinID_;
    std::optional<presets::CustomPreset> custom_;
    bool loading_ = false;
    int lossyRow_ = -1;

    QLabel* heading_;
    QLabel* readOnly_;
    QFormLayout* form_;
    QLineEdit* name_;
    QLabel* nameNote_;
    QComboBox* format_;
    QSpinBox* quality_;
    QLabel* qualityNote_;
    QCheckBox* limitFps_;
    QSpinBox* fps_;
    QComboBox* scaleMode_;
    QSpinBox* scaleValue_;
    QComboBox* speed_;
    QComboBox* dither_;
    QComboBox* lossyMode_;
    QSpinBox* lossyLevel_;
    QCheckBox* optimizeGif_;
    QLabel* validation_;
    QLabel* builtinNote_;
    QPushButton* revert_;
    QPushButton* save_;
};

}  // namespace tessarin::gui
