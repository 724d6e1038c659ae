#include "engine/publish/FolderToucher.hpp"

#include <fcntl.h>
#include <sys/stat.h>

namespace tessarin::engine {

FolderToucher::FolderToucher(std::filesystem::path folder, std::chrono::milliseconds period)
    : folder_(std::move(folder)), period_(period), thread_([this] { loop(); }) {}

FolderToucher::~FolderToucher() {
    stop();
}

void FolderToucher::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void FolderToucher::loop() noexcept {
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, period_, [this] { return stopping_; })) {
        const struct timespec now[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
        (void)::utimensat(AT_FDCWD, folder_.c_str(), now, 0);
    }
}

}  // namespace tessarin::engine
