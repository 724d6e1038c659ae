// Settings ▸ Presets: the built-ins (" (edited)" when overridden) and the customs
// (" (read-only)" when written by a newer version), with + and − for customs and the editor.
#pragma once

#include <QWidget>
#include <string>

class QListWidget;
class QToolButton;

namespace tessarin::app {
class PresetStore;
}

namespace tessarin::gui {

class PresetEditor;

class PresetsPage : public QWidget {
    Q_OBJECT

public:
    explicit PresetsPage(app::PresetStore& store, QWidget* parent = nullptr);

    [[nodiscard]] QListWidget* list() const { return list_; }
    [[nodiscard]] PresetEditor* editor() const { return editor_; }
    // Selects the row of preset `id`; false when there is none.
    bool select(const std::string& id);

private:
    void reload();
    void showSelected();
    void addCustom();
    void deleteSelected();

    app::PresetStore& store_;
    QListWidget* list_;
    PresetEditor* editor_;
    QToolButton* add_;
    QToolButton* delete_;
};

}  // namespace tessarin::gui
