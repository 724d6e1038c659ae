#include "app/shell/DesktopNotifier.hpp"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include "engine/log/Log.hpp"

namespace tessarin::app {

namespace {

const engine::Logger& notifyLog() {
    static const engine::Logger log("com.tessarin.app", "notifications");
    return log;
}

// How long a notification stays up, in milliseconds, where the daemon honours it.
constexpr int kExpireTimeout = 8000;

}  // namespace

void DesktopNotifier::post(const std::string& title, const std::string& body) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        notifyLog().info("event=\"notification skipped\" reason=no-session-bus");
        return;
    }
    QDBusMessage message = QDBusMessage::createMethodCall(
        "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
        "org.freedesktop.Notifications", "Notify");
    message << QString("Tessarin") << 0U << QString("tessarin") << QString::fromStdString(title)
            << QString::fromStdString(body) << QStringList() << QVariantMap() << kExpireTimeout;
    if (!bus.send(message)) {
        notifyLog().info("event=\"notification skipped\" reason=send-failed");
    }
}

}  // namespace tessarin::app
