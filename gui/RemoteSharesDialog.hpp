// "Save to another computer": the computers sharing files on the local network; picking one
// mounts it with the system's sign-in prompt, then the folder panel opens where gvfs shows the
// mounted shares so that one becomes the custom output folder.
#pragma once

#include <QDialog>

class QLabel;
class QListWidget;

namespace tessarin::app {
class RemoteSharesModel;
}

namespace tessarin::gui {

class RemoteSharesDialog : public QDialog {
    Q_OBJECT

public:
    // Takes `model` (made with Avahi and gio when null); starts it at once.
    explicit RemoteSharesDialog(QWidget* parent = nullptr, app::RemoteSharesModel* model = nullptr);
    ~RemoteSharesDialog() override;

    [[nodiscard]] app::RemoteSharesModel& model() const { return *model_; }

signals:
    // A share was mounted: its URL.
    void shareMounted(const QString& url);

protected:
    void done(int result) override;

private:
    void showState();

    app::RemoteSharesModel* model_;
    QListWidget* hosts_;
    QLabel* empty_;
    QLabel* error_;
};

}  // namespace tessarin::gui
