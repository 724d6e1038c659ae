// Settings ▸ General: where converted files go (with the chosen folder's availability) and the
// interface scale.
#pragma once

#include <QWidget>
#include <memory>

class QButtonGroup;
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
    // Stores `folder` as the custom output folder, as the folder panel's answer does.
    void chooseFolder(const QString& folder);

private:
    void showMode();
    void showAvailability();

    app::TessarinApp& app_;
    std::unique_ptr<app::OutputAvailabilityModel> availability_;
    QButtonGroup* modes_;
    QPushButton* chooseFolder_;
    QLabel* path_;
    QLabel* status_;
    QSpinBox* scale_;
};

}  // namespace tessarin::gui
