// The settings tab "Desktop": the file-manager actions with their states and the buttons that
// install, repair and remove them; the command-line tool; updates and the automatic check; the
// support report.
#pragma once

#include <QWidget>

class QCheckBox;
class QLabel;
class QPushButton;

namespace tessarin::app {
class TessarinApp;
}

namespace tessarin::gui {

class DesktopPage : public QWidget {
    Q_OBJECT

public:
    explicit DesktopPage(app::TessarinApp& app, QWidget* parent = nullptr);

    [[nodiscard]] QLabel* actionRows() const { return actionRows_; }
    [[nodiscard]] QLabel* actionHealth() const { return actionHealth_; }
    [[nodiscard]] QCheckBox* automaticUpdates() const { return automaticUpdates_; }
    [[nodiscard]] QLabel* updateStatus() const { return updateStatus_; }
    [[nodiscard]] QLabel* cliStatus() const { return cliStatus_; }
    [[nodiscard]] QPushButton* copyReport() const { return copyReport_; }

private:
    void showActions();
    void showCommandLineTool();

    app::TessarinApp& app_;
    QLabel* actionRows_;
    QLabel* actionHealth_;
    QLabel* actionOutcome_;
    QCheckBox* automaticUpdates_;
    QLabel* updateStatus_;
    QLabel* cliStatus_;
    QPushButton* copyReport_;
};

}  // namespace tessarin::gui
