#include "gui/IntakePrompts.hpp"

#include <QMessageBox>
#include <QPushButton>
#include <QWidget>

#include "app/intake/URLIntake.hpp"

namespace tessarin::gui {

void raiseWindow(QWidget& window) {
    if (window.isMinimized()) {
        window.showNormal();
    } else {
        window.show();
    }
    window.raise();
    window.activateWindow();
}

void connectIntakePrompts(app::URLIntake& intake, QWidget& window) {
    intake.bringToFront = [&window] { raiseWindow(window); };
    intake.confirmUntrusted = [&window](const app::URLIntakeConfirmation& confirmation) {
        raiseWindow(window);
        QMessageBox box(&window);
        box.setIcon(QMessageBox::Question);
        box.setText(QString::fromStdString(confirmation.heading));
        box.setInformativeText(QString::fromStdString(confirmation.text));
        QPushButton* add =
            box.addButton(QString::fromUtf8(app::URLIntakeConfirmation::kAdd), QMessageBox::AcceptRole);
        QPushButton* cancel = box.addButton(QString::fromUtf8(app::URLIntakeConfirmation::kCancel),
                                            QMessageBox::RejectRole);
        box.setDefaultButton(cancel);
        box.exec();
        return box.clickedButton() == add;
    };
}

}  // namespace tessarin::gui
