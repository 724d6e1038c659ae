// Settings ▸ General: where converted files go (with the chosen folder's availability), the
// Frames action's choices and the interface scale.
#pragma once

#include <QWidget>
#include <memory>

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;
class QSpinBox;

namespace tessarin::app {
class OutputAvailabilityModel;
class TessarinApp;
}  // namespace tessarin::app

namespace tessarin::gui {

class GeneralSettingsPage : public QWidget {
    Q_OBJECT

public:
    explicit GeneralSettingsPage(app::TessarinApp& app, QWidget* parent = nullptr);
    ~GeneralSettingsPage() override;

    [[nodiscard]] QSpinBox* scaleField() const { return scale_; }
    // The Frames group: the budget's lowest value reads "Automatic".
    [[nodiscard]] QSpinBox* framesBudgetField() const { return framesBudget_; }
    [[nodiscard]] QSpinBox* framesMaxSizeField() const { return framesMaxSize_; }
    [[nodiscard]] QComboBox* framesFormatField() const { return framesFormat_; }
    [[nodiscard]] QCheckBox* contactSheetsField() const { return contactSheets_; }
    // Stores `folder` as the custom output folder, as the folder panel's answer does.
    void chooseFolder(const QString& folder);

private:
    [[nodiscard]] QWidget* makeFramesGroup();
    void showMode();
    void showAvailability();
    void showFrames();

    app::TessarinApp& app_;
    std::unique_ptr<app::OutputAvailabilityModel> availability_;
    QButtonGroup* modes_;
    QPushButton* chooseFolder_;
    QLabel* path_;
    QLabel* status_;
    QSpinBox* scale_;
    QButtonGroup* framesModes_ = nullptr;
    QSpinBox* framesBudget_ = nullptr;
    QSpinBox* framesMaxSize_ = nullptr;
    QComboBox* framesFormat_ = nullptr;
    QCheckBox* contactSheets_ = nullptr;
};

}  // namespace tessarin::gui
