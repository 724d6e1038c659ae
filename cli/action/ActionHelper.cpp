#include "cli/action/ActionHelper.hpp"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "engine/intake/HandoffSocket.hpp"

namespace tessarin::cli {

namespace {

class Socket {
public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    [[nodiscard]] int fd() const { return fd_; }

private:
    int fd_;
};

std::optional<int> connectTo(const std::filesystem::path& socketPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = socketPath.string();
    if (path.size() + 1 > sizeof address.sun_path) {
        return std::nullopt;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return std::nullopt;
    }
    while (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno != EINTR) {
            ::close(fd);
            return std::nullopt;
        }
    }
    return fd;
}

}  // namespace

HandOverResult handOver(const std::filesystem::path& socketPath,
                        const engine::IntakeHandoffRequest& request,
                        std::chrono::milliseconds limit) {
    const std::optional<std::string> out =
        engine::frame(engine::encodeRequest(request), engine::kHandoffRequestLimit);
    const std::optional<int> fd = out ? connectTo(socketPath) : std::nullopt;
    if (!fd) {
        return {};
    }
    const Socket socket(*fd);
    HandOverResult result{true, std::nullopt};
    engine::setSocketTimeouts(socket.fd(), limit);
    if (!engine::sendFully(socket.fd(), *out)) {
        return result;
    }
    const std::optional<std::string> body =
        engine::receiveFrame(socket.fd(), engine::kHandoffResponseLimit);
    if (!body) {
        return result;
    }
    result.response = engine::decodeResponse(*body);
    return result;
}

}  // namespace tessarin::cli
