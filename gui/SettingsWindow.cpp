#include "gui/SettingsWindow.hpp"

#include <QKeySequence>
#include <QShortcut>
#include <QTabWidget>
#include <QVBoxLayout>

#include "app/shell/TessarinApp.hpp"
#include "gui/AboutPage.hpp"
#include "gui/DesktopPage.hpp"
#include "gui/GeneralSettingsPage.hpp"
#include "gui/PresetsPage.hpp"
#include "gui/TranscriptionSettingsPage.hpp"
#include "gui/UIScale.hpp"

namespace tessarin::gui {

SettingsWindow::SettingsWindow(app::TessarinApp& app, QWidget* parent)
    : QWidget(parent, Qt::Window),
      tabs_(new QTabWidget(this)),
      general_(new GeneralSettingsPage(app, tabs_)),
      presets_(new PresetsPage(app.presetStore(), tabs_)),
      desktop_(new DesktopPage(app, tabs_)),
      about_(new AboutPage(app, tabs_)) {
    setObjectName("settingsWindow");
    setWindowTitle(tr("Tessarin Settings"));
    tabs_->addTab(general_, tr("General"));
    tabs_->addTab(presets_, tr("Presets"));
    if (app::TranscriptionSettingsModel* model = app.transcription()) {
        transcription_ = new TranscriptionSettingsPage(*model, app.settings(), tabs_);
        tabs_->addTab(transcription_, tr("Transcription"));
    }
    tabs_->addTab(desktop_, tr("Desktop"));
    tabs_->addTab(about_, tr("About"));
    tabs_->setDocumentMode(true);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 6, 0, 0);
    layout->addWidget(tabs_);
    auto* close = new QShortcut(QKeySequence::Close, this);
    connect(close, &QShortcut::activated, this, &QWidget::close);
    resize(720, 560);
    scaleWidgetTree(this);
}

}  // namespace tessarin::gui
