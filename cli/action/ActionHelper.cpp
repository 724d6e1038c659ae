#include "cli/action/ActionHelper.hpp"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

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

bool readFully(int fd, char* buffer, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::recv(fd, buffer + done, size - done, 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
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
    timeval value{};
    value.tv_sec = static_cast<time_t>(limit.count() / 1000);
    value.tv_usec = static_cast<suseconds_t>((limit.count() % 1000) * 1000);
    (void)::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
    (void)::setsockopt(socket.fd(), SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
    std::size_t sent = 0;
    while (sent < out->size()) {
        const ssize_t count =
            ::send(socket.fd(), out->data() + sent, out->size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return result;
        }
        sent += static_cast<std::size_t>(count);
    }
    char header[4];
    if (!readFully(socket.fd(), header, sizeof header)) {
        return result;
    }
    const uint32_t length = (uint32_t{static_cast<unsigned char>(header[0])} << 24) |
                            (uint32_t{static_cast<unsigned char>(header[1])} << 16) |
                            (uint32_t{static_cast<unsigned char>(header[2])} << 8) |
                            uint32_t{static_cast<unsigned char>(header[3])};
    if (length == 0 || length > engine::kHandoffResponseLimit) {
        return result;
    }
    std::string body(length, '\0');
    if (!readFully(socket.fd(), body.data(), body.size())) {
        return result;
    }
    result.response = engine::decodeResponse(body);
    return result;
}

}  // namespace tessarin::cli
