// tessarin-gui [FILE|URL…]: the desktop window. Files and tessarin:// links given on the
// command line (as the desktop entry's %U hands them over) go to the queue like a drop from the
// file manager.
#include <QApplication>
#include <QDir>
#include <QUrl>

#include "app/shell/TessarinApp.hpp"
#include "gui/MainWindow.hpp"
#include "gui/UIScale.hpp"

namespace {

QList<QUrl> argumentURLs(const QStringList& arguments) {
    QList<QUrl> urls;
    for (const QString& argument : arguments.mid(1)) {
        if (argument.contains(QStringLiteral("://"))) {
            urls.append(QUrl(argument));
        } else {
            urls.append(QUrl::fromLocalFile(QDir::current().absoluteFilePath(argument)));
        }
    }
    return urls;
}

}  // namespace

int main(int argc, char** argv) {
    QApplication qt(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tessarin"));
    QApplication::setDesktopFileName(QStringLiteral("com.tessarin.Tessarin"));
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("com.tessarin.Tessarin")));

    tessarin::app::TessarinApp::Environment environment =
        tessarin::app::TessarinApp::Environment::standard();
    // Finished jobs notify only when the user is looking elsewhere.
    environment.isApplicationActive = [] {
        return QGuiApplication::applicationState() == Qt::ApplicationActive;
    };
    tessarin::app::TessarinApp app(std::move(environment));
    app.launch();
    tessarin::gui::applyUIScale(app.uiScale());
    tessarin::gui::MainWindow window(app);
    window.show();
    if (const QList<QUrl> urls = argumentURLs(QApplication::arguments()); !urls.isEmpty()) {
        app.openURLs(urls);
    }
    return QApplication::exec();
}
