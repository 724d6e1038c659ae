// The settings window: General, Presets, Transcription (when set up), Desktop and About tabs.
#pragma once

#include <QWidget>

class QTabWidget;

namespace tessarin::app {
class TessarinApp;
}

namespace tessarin::gui {

class AboutPage;
class DesktopPage;
class GeneralSettingsPage;
class PresetsPage;
class TranscriptionSettingsPage;

class SettingsWindow : public QWidget {
    Q_OBJECT

public:
    // A window of its own; `parent` closes it along.
    explicit SettingsWindow(app::TessarinApp& app, QWidget* parent = nullptr);

    [[nodiscard]] QTabWidget* tabs() const { return tabs_; }
    [[nodiscard]] GeneralSettingsPage* general() const { return general_; }
    [[nodiscard]] PresetsPage* presets() const { return presets_; }
    [[nodiscard]] DesktopPage* desktop() const { return desktop_; }
    [[nodiscard]] AboutPage* about() const { return about_; }
    // Null when the application has no transcription settings.
    [[nodiscard]] TranscriptionSettingsPage* transcription() const { return transcription_; }

private:
    QTabWidget* tabs_;
    GeneralSettingsPage* general_;
    PresetsPage* presets_;
    DesktopPage* desktop_;
    AboutPage* about_;
    TranscriptionSettingsPage* transcription_ = nullptr;
};

}  // namespace tessarin::gui
