// Settings ▸ About: the version, and the versions of the helper folder's tools.
#pragma once

#include <QWidget>

class QLabel;

namespace tessarin::app {
class TessarinApp;
}

namespace tessarin::gui {

class ToolVersions;

class AboutPage : public QWidget {
    Q_OBJECT

public:
    explicit AboutPage(app::TessarinApp& app, QWidget* parent = nullptr);

    [[nodiscard]] QString ffmpegVersion() const;
    [[nodiscard]] QString gifsicleVersion() const;

signals:
    void toolVersionsShown();

private:
    ToolVersions* versions_;
    QLabel* ffmpeg_;
    QLabel* gifsicle_;
};

}  // namespace tessarin::gui
