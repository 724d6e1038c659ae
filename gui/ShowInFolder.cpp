#include "gui/ShowInFolder.hpp"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

namespace tessarin::gui {
namespace {

void openContainingFolder(const QString& path) {
    QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}

}  // namespace

void showInFolder(const QString& path) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openContainingFolder(path);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.FileManager1",
                                                       "/org/freedesktop/FileManager1",
                                                       "org.freedesktop.FileManager1", "ShowItems");
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 3000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, [path](auto* finished) {
        if (finished->isError()) {
            openContainingFolder(path);
        }
        finished->deleteLater();
    });
}

}  // namespace tessarin::gui
