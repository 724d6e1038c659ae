// The trim editor's window over a TrimEditor: a player whose timeline carries the playhead and
// the start and end handles that the Trim control confirms, frame and keyframe stepping, the
// waveform of the visible window under the timeline, the clip list with its fields and row
// messages, and Apply. When the player can't show the source it says so, and the time fields and
// clip tools do the work.
#pragma once

#include <QDialog>
#include <memory>

#include "app/trim/TrimEditor.hpp"

class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QMediaPlayer;
class QPushButton;
class QTableWidget;
class QVideoWidget;

namespace tessarin::gui {

class TrimTimeline;

class TrimEditorDialog : public QDialog {
    Q_OBJECT

public:
    static constexpr double kWaveformWindowSeconds = 10;

    // Takes the editor; `withPlayer` false leaves the player out (the preview is then
    // unavailable), for sessions without a media backend.
    explicit TrimEditorDialog(std::unique_ptr<app::TrimEditor> editor, bool withPlayer = true,
                              QWidget* parent = nullptr);
    ~TrimEditorDialog() override;

    [[nodiscard]] app::TrimEditor& editor() const { return *editor_; }
    // The viewed time, in seconds.
    [[nodiscard]] double playhead() const { return playhead_; }
    [[nodiscard]] TrimTimeline* timeline() const { return timeline_; }
    void setPlayhead(double seconds);

private:
    void build();
    void reload();
    void reloadTable();
    void showPlayhead();
    void stepFrames(int frames);
    void showWaveformFor(double seconds);
    void cellEdited(int row, int column);
    QPushButton* button(const QString& text, const QString& objectName,
                        const std::function<void()>& action);

    std::unique_ptr<app::TrimEditor> editor_;
    QMediaPlayer* player_ = nullptr;
    QVideoWidget* video_ = nullptr;
    QLabel* previewMessage_ = nullptr;
    TrimTimeline* timeline_ = nullptr;
    QLabel* time_ = nullptr;
    QLabel* waveform_ = nullptr;
    QTableWidget* table_ = nullptr;
    QComboBox* mode_ = nullptr;
    QDoubleSpinBox* noise_ = nullptr;
    QDoubleSpinBox* minimumSilence_ = nullptr;
    QDoubleSpinBox* padding_ = nullptr;
    QDoubleSpinBox* minimumClip_ = nullptr;
    QLabel* probeMessage_ = nullptr;
    QLabel* keyframeMessage_ = nullptr;
    QLabel* fileMessage_ = nullptr;
    QLabel* applyNote_ = nullptr;
    QPushButton* switchToDetailed_ = nullptr;
    QPushButton* trim_ = nullptr;
    QPushButton* play_ = nullptr;
    QPushButton* apply_ = nullptr;
    double playhead_ = 0;
    // One frame of the source: the player's frame rate once it knows it.
    double frameSeconds_;
    bool reloading_ = false;
};

}  // namespace tessarin::gui
