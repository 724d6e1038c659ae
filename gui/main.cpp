// tessarin-gui [FILE|URL…]: the desktop window. Files and tessarin:// links given on the
// command line (as the desktop entry's %U hands them over) go to the queue like a drop from the
// file manager. One window runs per user: a later launch hands its files and links to it (or,
// with none, raises it) and ends with status 0.
#include <QApplication>
#include <QDir>
#include <QUrl>
#include <chrono>
#include <optional>

#include "app/shell/SingleInstance.hpp"
#include "app/shell/TessarinApp.hpp"
#include "gui/IntakePrompts.hpp"
#include "gui/MainWindow.hpp"
#include "gui/UIScale.hpp"

namespace {

// Read before any application object exists, so that a second launch can forward its files
// without a display.
QList<QUrl> argumentURLs(int argc, char** argv) {
    QList<QUrl> urls;
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
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
    const QList<QUrl> urls = argumentURLs(argc, argv);
    std::optional<tessarin::app::SingleInstance> instance;
    if (const auto folder = tessarin::app::SingleInstance::standardFolder()) {
        instance.emplace(*folder);
        if (instance->claim() == tessarin::app::SingleInstance::Role::secondary) {
            return instance->forward(urls, std::chrono::seconds(5)) ? 0 : 1;
        }
    }

    QApplication qt(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tessarin"));
    QApplication::setDesktopFileName(QStringLiteral("com.tessarin.Tessarin"));
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("com.tessarin.Tessarin")));
    if (instance) {
        (void)instance->listen();
    }

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
    tessarin::gui::connectIntakePrompts(app.urlIntake(), window);
    window.show();
    if (instance) {
        QObject::connect(&*instance, &tessarin::app::SingleInstance::received, &window,
                         [&app, &window](const QList<QUrl>& forwarded) {
                             if (forwarded.isEmpty()) {
                                 tessarin::gui::raiseWindow(window);
                             } else {
                                 app.openURLs(forwarded);
                             }
                         });
    }
    if (!urls.isEmpty()) {
        app.openURLs(urls);
    }
    const int status = QApplication::exec();
    // Its server is a Qt object: it goes before the application object does.
    instance.reset();
    return status;
}
