#include "engine/recording/FileDescriptor.hpp"

#include <unistd.h>

namespace tessarin::engine {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

FileDescriptor::~FileDescriptor() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

}  // namespace tessarin::engine
