#include "app/intake/IntakeHandoffServer.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

#include "engine/intake/HandoffSocket.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::app {

namespace {

const engine::Logger& handoffLog() {
    static const engine::Logger log("com.tessarin.app", "handoff");
    return log;
}

void logStartFailure(const char* step, int error) {
    handoffLog().error(engine::KeyValues()
                           .add("event", "handoff socket not published")
                           .add("step", step)
                           .add("errno", error)
                           .str());
}

// The folder made ours: a real directory (not a link) owned by us with mode 0700.
bool prepareFolder(const std::filesystem::path& folder) {
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        logStartFailure("folder", errno);
        return false;
    }
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != ::geteuid()) {
        logStartFailure("folder", errno);
        return false;
    }
    if ((status.st_mode & 07777) != 0700 && ::chmod(folder.c_str(), 0700) != 0) {
        logStartFailure("folder", errno);
        return false;
    }
    return true;
}

}  // namespace

struct IntakeHandoffServer::Shared {
    std::mutex mutex;
    std::condition_variable idle;
    std::set<int> sockets;  // open connections, guarded by mutex
    bool stopping = false;  // guarded by mutex
};

std::optional<std::filesystem::path> IntakeHandoffServer::standardFolder() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || runtime[0] != '/') {
        return std::nullopt;
    }
    return std::filesystem::path(runtime) / "tessarin";
}

IntakeHandoffServer::IntakeHandoffServer(
    Configuration configuration, engine::IntakeTokenStore& tokens,
    std::shared_ptr<engine::IntakeWorkCapacityGate> authenticatedGate)
    : configuration_(std::move(configuration)),
      tokens_(tokens),
      authenticatedGate_(std::move(authenticatedGate)),
      connectionGate_(engine::IntakeWorkCapacityGate::make(configuration_.connectionLimit)),
      shared_(std::make_shared<Shared>()) {}

IntakeHandoffServer::~IntakeHandoffServer() {
    stop();
}

bool IntakeHandoffServer::start() {
    if (listening_) {
        return true;
    }
    const std::string path = socketPath().string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() + 1 > sizeof address.sun_path) {
        logStartFailure("path-length", ENAMETOOLONG);
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (!prepareFolder(configuration_.folder)) {
        return false;
    }

    lockFd_ = ::open(lockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    struct stat lockStatus {};
    if (lockFd_ < 0 || ::fstat(lockFd_, &lockStatus) != 0 || !S_ISREG(lockStatus.st_mode) ||
        lockStatus.st_uid != ::geteuid() || lockStatus.st_nlink != 1 ||
        ::fchmod(lockFd_, 0600) != 0 || ::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        logStartFailure("lock", errno);
        closeListener();
        return false;
    }

    struct stat existing {};
    if (::lstat(path.c_str(), &existing) == 0) {
        if (!S_ISSOCK(existing.st_mode) || ::unlink(path.c_str()) != 0) {
            logStartFailure("clear-path", S_ISSOCK(existing.st_mode) ? errno : EEXIST);
            closeListener();
            return false;
        }
    } else if (errno != ENOENT) {
        logStartFailure("clear-path", errno);
        closeListener();
        return false;
    }

    listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0 ||
        ::bind(listenFd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        logStartFailure("bind", errno);
        closeListener();
        return false;
    }
    struct stat bound {};
    if (::lstat(path.c_str(), &bound) != 0 || !S_ISSOCK(bound.st_mode)) {
        logStartFailure("bound-path", errno);
        closeListener();
        return false;
    }
    boundDevice_ = bound.st_dev;
    boundInode_ = bound.st_ino;
    const int flags = ::fcntl(listenFd_, F_GETFL);
    if (::chmod(path.c_str(), 0600) != 0 || ::listen(listenFd_, 8) != 0 || flags < 0 ||
        ::fcntl(listenFd_, F_SETFL, flags | O_NONBLOCK) != 0) {
        logStartFailure("listen", errno);
        closeListener();
        return false;
    }
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
        logStartFailure("eventfd", errno);
        closeListener();
        return false;
    }
    {
        std::lock_guard lock(shared_->mutex);
        shared_->stopping = false;
    }
    try {
        acceptor_ = std::thread([this] { acceptLoop(); });
    } catch (const std::system_error& error) {
        logStartFailure("thread", error.code().value());
        closeListener();
        return false;
    }
    listening_ = true;
    handoffLog().notice("event=\"handoff socket published\"");
    return true;
}

void IntakeHandoffServer::stop() {
    if (acceptor_.joinable()) {
        const uint64_t one = 1;
        (void)!::write(wakeFd_, &one, sizeof one);
        acceptor_.join();
    }
    {
        std::unique_lock lock(shared_->mutex);
        shared_->stopping = true;
        for (const int socket : shared_->sockets) {
            ::shutdown(socket, SHUT_RDWR);
        }
        shared_->idle.wait(lock, [this] { return shared_->sockets.empty(); });
    }
    closeListener();
    listening_ = false;
}

void IntakeHandoffServer::closeListener() {
    if (listenFd_ >= 0) {
        ::close(listenFd_);
        listenFd_ = -1;
        struct stat there {};
        const std::string path = socketPath().string();
        if (::lstat(path.c_str(), &there) == 0 && there.st_dev == boundDevice_ &&
            there.st_ino == boundInode_) {
            ::unlink(path.c_str());
        }
    }
    if (wakeFd_ >= 0) {
        ::close(wakeFd_);
        wakeFd_ = -1;
    }
    if (lockFd_ >= 0) {
        ::close(lockFd_);
        lockFd_ = -1;
    }
}

std::size_t IntakeHandoffServer::openConnections() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->sockets.size();
}

void IntakeHandoffServer::acceptLoop() {
    while (true) {
        pollfd watched[2] = {{listenFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
        if (::poll(watched, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            handoffLog().error(engine::KeyValues().add("event", "handoff poll failed").add("errno", errno).str());
            return;
        }
        if (watched[1].revents != 0) {
            return;
        }
        while (true) {
            // Without SOCK_NONBLOCK the connection is blocking, bounded by its time limits.
            const int socket = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (socket < 0) {
                if (errno == EINTR) {
                    continue;
                }
                break;  // EAGAIN is the normal end
            }
            std::optional<engine::IntakeWorkCapacityLease> place = connectionGate_->tryAcquire();
            if (!place) {
                ::close(socket);
                continue;
            }
            {
                std::lock_guard lock(shared_->mutex);
                shared_->sockets.insert(socket);
            }
            try {
                std::thread([this, socket, shared = shared_,
                             lease = std::make_shared<engine::IntakeWorkCapacityLease>(
                                 std::move(*place))] {
                    handleConnection(socket);
                    lease->release();
                    std::lock_guard lock(shared->mutex);
                    shared->sockets.erase(socket);
                    ::close(socket);
                    shared->idle.notify_all();
                }).detach();
            } catch (const std::system_error&) {
                std::lock_guard lock(shared_->mutex);
                shared_->sockets.erase(socket);
                ::close(socket);
            }
        }
    }
}

void IntakeHandoffServer::handleConnection(int socket) {
    engine::setSocketTimeouts(socket, configuration_.socketTimeout);
    const PeerAuthentication peer =
        peerAuthenticator ? peerAuthenticator(socket) : PeerAuthentication::refused;
    if (peer != PeerAuthentication::accepted) {
        handoffLog().error(
            peer == PeerAuthentication::replaced
                ? "event=\"refused a handoff client whose code was replaced or deleted; checking "
                  "for stale file-manager actions\""
                : "event=\"refused a handoff client that failed authentication\"");
        if (rejectedPeer) {
            rejectedPeer();
        }
        return;
    }
    const std::optional<std::string> body =
        engine::receiveFrame(socket, engine::kHandoffRequestLimit);
    if (!body) {
        return;
    }
    const std::optional<engine::IntakeHandoffRequest> request = engine::decodeRequest(*body);
    if (!request) {
        return;
    }
    const std::optional<engine::IntakeActionKind> kind =
        engine::intakeActionKind(request->actionKind);
    if (!kind) {
        return;
    }
    std::optional<IntakeHandoffDelivery> toDeliver;
    std::optional<engine::IntakeHandoffResponse> response;
    if (request->requestID) {
        const std::optional<engine::Uuid> id = engine::Uuid::fromText(*request->requestID);
        if (!id) {
            return;
        }
        const auto answer = replayCache_.answer(
            *id, *request, engine::IntakeHandoffReplayCache::monotonicNow(),
            [&] { return *respond(*request, *kind, toDeliver); });
        if (!answer) {
            return;
        }
        response = answer->response;
    } else {
        response = respond(*request, *kind, toDeliver);
    }
    if (toDeliver && delivery) {
        delivery(std::move(*toDeliver));
    }
    const std::optional<std::string> out =
        engine::frame(engine::encodeResponse(*response), engine::kHandoffResponseLimit);
    if (out) {
        (void)engine::sendFully(socket, *out);
    }
}

std::optional<engine::IntakeHandoffResponse> IntakeHandoffServer::respond(
    const engine::IntakeHandoffRequest& request, engine::IntakeActionKind kind,
    std::optional<IntakeHandoffDelivery>& deliveryOut) {
    engine::IntakeHandoffResponse response;
    response.nonce = tokens_.mint(request.presetID, kind, request.fileCount, request.files);
    std::optional<engine::IntakeWorkCapacityLease> lease;
    if (delivery) {
        lease = authenticatedGate_->tryAcquire();
    }
    response.delivered = response.nonce.has_value() && lease.has_value();
    if (*response.delivered) {
        deliveryOut = IntakeHandoffDelivery{request.presetID, kind, *response.nonce,
                                            std::move(lease)};
    }
    return response;
}

}  // namespace tessarin::app
