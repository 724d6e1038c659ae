// Settings ▸ General: where converted files go (with the chosen folder's availability, or a
// share on another computer), the Frames action's choices and the interface scale.
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
class RemoteSharesModel;
class TessarinApp;
}  // namespace tessarin::app

namespace tessarin::gui {

class RemoteSharesDialog;

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
    // "Save to another computer", over `model` (Avahi and gio when null); the share mounted
    // there is offered to the folder panel.
    RemoteSharesDialog* openRemoteShares(app::RemoteSharesModel* model = nullptr);

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
