// "Record Screen…": what to record (a display, a window, or an area picked on screen), the frame
// rate, the sound sources and the countdown. The choices start from the stored preferences;
// accepting gives the target and the preferences to start with.
#pragma once

#include <QDialog>
#include <vector>

#include "engine/recording/RecordingPreferences.hpp"
#include "engine/recording/capture/RecordingTarget.hpp"
#include "engine/recording/capture/X11Sources.hpp"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QStackedWidget;

namespace tessarin::gui {

class RecordScreenDialog : public QDialog {
    Q_OBJECT
public:
    RecordScreenDialog(const engine::RecordingPreferences& preferences, QWidget* parent = nullptr);

    [[nodiscard]] engine::RecordingTarget target() const;
    [[nodiscard]] engine::RecordingPreferences preferences() const;
    // Sets the area fields, as the picker does (for tests and the picker).
    void setArea(const engine::RecordingRect& area);

private:
    void pickArea();
    void updateRecordButton();

    engine::RecordingPreferences base_;
    std::vector<engine::X11Display> displays_;
    std::vector<engine::X11Window> windows_;
    QComboBox* mode_;
    QStackedWidget* pages_;
    QComboBox* display_;
    QComboBox* window_;
    QSpinBox* areaX_;
    QSpinBox* areaY_;
    QSpinBox* areaWidth_;
    QSpinBox* areaHeight_;
    QComboBox* frameRate_;
    QCheckBox* systemAudio_;
    QComboBox* microphone_;
    QSpinBox* countdown_;
    QPushButton* record_;
};

}  // namespace tessarin::gui
