#include "engine/intake/HandoffSocket.hpp"

#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>

#include "engine/intake/HandoffMessages.hpp"

namespace tessarin::engine {

void setSocketTimeouts(int fd, std::chrono::milliseconds limit) {
    const auto bounded = std::max(limit, std::chrono::milliseconds(10));
    timeval value{};
    value.tv_sec = static_cast<time_t>(bounded.count() / 1000);
    value.tv_usec = static_cast<suseconds_t>((bounded.count() % 1000) * 1000);
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
}

bool receiveFully(int fd, void* buffer, std::size_t size) {
    auto* bytes = static_cast<char*>(buffer);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::recv(fd, bytes + done, size - done, 0);
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

bool sendFully(int fd, std::string_view data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t count = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
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

std::optional<std::string> receiveFrame(int fd, uint32_t limit) {
    unsigned char header[4];
    if (!receiveFully(fd, header, sizeof header)) {
        return std::nullopt;
    }
    const std::optional<uint32_t> length = frameBodyLength(header, limit);
    if (!length) {
        return std::nullopt;
    }
    std::string body(*length, '\0');
    if (!receiveFully(fd, body.data(), body.size())) {
        return std::nullopt;
    }
    return body;
}

}  // namespace tessarin::engine
