#include "app/shell/SingleInstance.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QLocalServer>
#include <QLocalSocket>
#include <QTimer>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

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
    role_ = Role::primary;
    return *role_;
}

bool SingleInstance::listen() {
    if (role_ != Role::primary) {
        return false;
    }
    if (server_ != nullptr) {
        return true;
    }
    QLocalServer::removeServer(socketName(folder_));
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(socketName(folder_))) {
        instanceLog().error("event=\"instance socket not published\"");
        delete server_;
        server_ = nullptr;
        role_ = Role::alone;
        return false;
    }
    connect(server_, &QLocalServer::newConnection, this, &SingleInstance::accept);
    return true;
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
    const std::string path = (folder_ / "gui").string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() + 1 > sizeof address.sun_path) {
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int fd = -1;
    while (true) {
        fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return false;
        }
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
            break;
        }
        ::close(fd);
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit).count();
    timeval timeout{static_cast<time_t>(std::max<long long>(seconds, 1)), 0};
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    QByteArray message;
    for (const QUrl& url : urls) {
        message += url.toEncoded(QUrl::FullyEncoded) + '\n';
    }
    qsizetype sent = 0;
    while (sent < message.size()) {
        const ssize_t count = ::send(fd, message.constData() + sent,
                                     static_cast<std::size_t>(message.size() - sent), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            ::close(fd);
            return false;
        }
        sent += count;
    }
    ::close(fd);
    return true;
}

}  // namespace tessarin::app
