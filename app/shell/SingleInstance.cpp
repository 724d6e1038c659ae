#include "app/shell/SingleInstance.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QLocalServer>
#include <QLocalSocket>
#include <QTimer>
#include <cerrno>
#include <cstdlib>

#include "engine/log/Log.hpp"

namespace tessarin::app {

namespace {

constexpr qint64 kMessageLimit = 4 * 1024 * 1024;
constexpr int kConnectionLimitMs = 5'000;

const engine::Logger& instanceLog() {
    static const engine::Logger log("com.tessarin.app", "instance");
    return log;
}

QString socketName(const std::filesystem::path& folder) {
    return QString::fromStdString((folder / "gui").string());
}

}  // namespace

std::optional<std::filesystem::path> SingleInstance::standardFolder() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || runtime[0] != '/') {
        return std::nullopt;
    }
    return std::filesystem::path(runtime) / "tessarin";
}

SingleInstance::SingleInstance(std::filesystem::path folder, QObject* parent)
    : QObject(parent), folder_(std::move(folder)) {}

SingleInstance::~SingleInstance() {
    if (server_ != nullptr) {
        server_->close();
    }
    if (lockFd_ >= 0) {
        ::close(lockFd_);
    }
}

SingleInstance::Role SingleInstance::claim() {
    if (role_) {
        return *role_;
    }
    role_ = Role::alone;
    struct stat status {};
    if ((::mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST) ||
        ::lstat(folder_.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != ::geteuid() || (status.st_mode & 077) != 0) {
        instanceLog().error(engine::KeyValues().add("event", "instance folder unusable").add("errno", errno).str());
        return *role_;
    }
    lockFd_ = ::open((folder_ / "g").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lockFd_ < 0) {
        return *role_;
    }
    if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        role_ = errno == EWOULDBLOCK ? Role::secondary : Role::alone;
        ::close(lockFd_);
        lockFd_ = -1;
        return *role_;
    }
    // Holding the lock, whatever stands at the socket path is a left-over of a crashed run.
    QLocalServer::removeServer(socketName(folder_));
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(socketName(folder_))) {
        instanceLog().error("event=\"instance socket not published\"");
        return *role_;
    }
    connect(server_, &QLocalServer::newConnection, this, &SingleInstance::accept);
    role_ = Role::primary;
    return *role_;
}

void SingleInstance::accept() {
    while (QLocalSocket* socket = server_->nextPendingConnection()) {
        socket->setParent(this);
        auto* timer = new QTimer(socket);
        timer->setSingleShot(true);
        connect(timer, &QTimer::timeout, socket, &QLocalSocket::abort);
        timer->start(kConnectionLimitMs);
        auto buffer = std::make_shared<QByteArray>();
        auto overflowed = std::make_shared<bool>(false);
        connect(socket, &QLocalSocket::readyRead, socket, [socket, buffer, overflowed] {
            buffer->append(socket->readAll());
            if (buffer->size() > kMessageLimit) {
                *overflowed = true;
                socket->abort();
            }
        });
        connect(socket, &QLocalSocket::disconnected, this, [this, socket, buffer, overflowed, timer] {
            const bool timedOut = !timer->isActive();
            buffer->append(socket->readAll());
            socket->deleteLater();
            if (*overflowed || timedOut || buffer->size() > kMessageLimit) {
                instanceLog().notice("event=\"forwarded launch dropped\"");
                return;
            }
            QList<QUrl> urls;
            for (const QByteArray& line : buffer->split('\n')) {
                if (!line.isEmpty()) {
                    urls.push_back(QUrl::fromEncoded(line, QUrl::StrictMode));
                }
            }
            instanceLog().notice(fmt::format("event=\"forwarded launch\" urls={}", urls.size()));
            emit received(urls);
        });
    }
}

bool SingleInstance::forward(const QList<QUrl>& urls, std::chrono::milliseconds limit) const {
    QLocalSocket socket;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    // The first instance may still be starting: it holds the lock before it listens.
    while (true) {
        socket.connectToServer(socketName(folder_));
        if (socket.waitForConnected(static_cast<int>(limit.count()))) {
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        ::usleep(50'000);
    }
    QByteArray message;
    for (const QUrl& url : urls) {
        message += url.toEncoded(QUrl::FullyEncoded) + '\n';
    }
    socket.write(message);
    while (socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(static_cast<int>(limit.count()))) {
            return false;
        }
    }
    socket.disconnectFromServer();
    if (socket.state() != QLocalSocket::UnconnectedState) {
        (void)socket.waitForDisconnected(static_cast<int>(limit.count()));
    }
    return true;
}

}  // namespace tessarin::app
