// The banners of the main window beside the queue's notice: the health of the file-manager
// actions (with a way to the Desktop settings), and transcripts that were made but couldn't be
// saved, each offered to be saved elsewhere before it is lost.
#pragma once

#include <QWidget>
#include <cstdint>
#include <functional>

namespace tessarin::app {
class TessarinApp;
}

namespace tessarin::gui {

class NoticeBanner;

class WindowNotices : public QWidget {
    Q_OBJECT

public:
    // `showDesktopSettings` opens the settings on their Desktop tab.
    WindowNotices(app::TessarinApp& app, std::function<void()> showDesktopSettings,
                  QWidget* parent = nullptr);

    [[nodiscard]] NoticeBanner* actionHealth() const { return health_; }
    [[nodiscard]] NoticeBanner* unsavedTranscript() const { return unsaved_; }

    // Saves the first unsaved transcript to `file`, as the save panel's answer does. Shows the
    // sentence of a failure.
    void saveTranscript(const QString& file);

private:
    void showHealth();
    void showUnsaved();
    void askWhereToSave();

    app::TessarinApp& app_;
    NoticeBanner* health_;
    NoticeBanner* unsaved_;
    bool healthDismissed_ = false;
};

}  // namespace tessarin::gui
