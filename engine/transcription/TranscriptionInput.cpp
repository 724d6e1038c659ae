#include "engine/transcription/TranscriptionInput.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionError.hpp"

namespace tessarin::engine {

namespace {

using Code = TranscriptionError::Code;

std::mutex& countLock() {
    static std::mutex lock;
    return lock;
}
int openInputs = 0;  // guarded by countLock()

bool reserve() {
    const std::lock_guard guard(countLock());
    if (openInputs >= TranscriptionInput::kMaximumOpen) {
        return false;
    }
    ++openInputs;
    return true;
}

void giveBack() {
    const std::lock_guard guard(countLock());
    --openInputs;
}

TranscriptionInput::Stamp stampOf(const struct stat& status) {
    return {static_cast<std::int64_t>(status.st_dev), static_cast<std::uint64_t>(status.st_ino),
            static_cast<std::int64_t>(status.st_size), status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec};
}

}  // namespace

std::shared_ptr<TranscriptionInput> TranscriptionInput::open(const std::filesystem::path& source) {
    if (source.empty() || !source.is_absolute()) {
        throw TranscriptionError(Code::sourceUnreadable);
    }
    if (!reserve()) {
        throw TranscriptionError(Code::sourceQueueFull);
    }
    const int fd = ::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        const int failure = errno;
        giveBack();
        throw TranscriptionError(failure == EMFILE || failure == ENFILE ? Code::sourceQueueFull
                                                                        : Code::sourceUnreadable);
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size < 0) {
        ::close(fd);
        giveBack();
        throw TranscriptionError(Code::sourceUnreadable);
    }
    return std::shared_ptr<TranscriptionInput>(new TranscriptionInput(fd, stampOf(status), source));
}

TranscriptionInput::TranscriptionInput(int descriptor, Stamp stamp, std::filesystem::path source)
    : descriptor_(descriptor),
      stamp_(stamp),
      source_(std::move(source)),
      filename_(source_.filename().string()) {}

TranscriptionInput::~TranscriptionInput() { close(); }

int TranscriptionInput::descriptor() const {
    const std::lock_guard guard(lock_);
    return descriptor_;
}

void TranscriptionInput::close() {
    int fd = -1;
    {
        const std::lock_guard guard(lock_);
        fd = descriptor_;
        descriptor_ = -1;
    }
    if (fd >= 0) {
        ::close(fd);
        giveBack();
    }
}

int TranscriptionInput::openCount() {
    const std::lock_guard guard(countLock());
    return openInputs;
}

void TranscriptionInput::checkStamp() const {
    // The descriptor is used under the lock so that a concurrent close() can't hand its number
    // to another file meanwhile.
    const std::lock_guard guard(lock_);
    struct stat status {};
    if (descriptor_ < 0 || ::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode) ||
        stampOf(status) != stamp_) {
        throw TranscriptionError(Code::sourceChanged);
    }
}

std::filesystem::path TranscriptionInput::heldPath() const {
    return std::filesystem::path("/proc") / std::to_string(::getpid()) / "fd" /
           std::to_string(descriptor());
}

void TranscriptionInput::copyTo(const std::filesystem::path& target,
                                const TranscriptionControl& control) const {
    const int out = ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                           0600);
    if (out < 0) {
        throw TranscriptionError(Code::sourcePreparationFailed);
    }
    const auto fail = [&](Code code) {
        ::close(out);
        std::error_code ignored;
        std::filesystem::remove(target, ignored);
        throw TranscriptionError(code);
    };
    if (::fchmod(out, 0600) != 0) {
        fail(Code::sourcePreparationFailed);
    }
    std::vector<char> buffer(65'536);
    off_t offset = 0;
    for (;;) {
        if (control.isCancelled()) {
            fail(Code::cancelled);
        }
        ssize_t count = 0;
        {
            const std::lock_guard guard(lock_);
            count = descriptor_ < 0 ? -1 : ::pread(descriptor_, buffer.data(), buffer.size(), offset);
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail(Code::sourcePreparationFailed);
        }
        if (count == 0) {
            break;
        }
        offset += count;
        for (ssize_t written = 0; written < count;) {
            const ssize_t step = ::write(out, buffer.data() + written,
                                         static_cast<std::size_t>(count - written));
            if (step < 0 && errno == EINTR) {
                continue;
            }
            if (step <= 0) {
                fail(Code::sourcePreparationFailed);
            }
            written += step;
        }
    }
    if (::close(out) != 0) {
        std::error_code ignored;
        std::filesystem::remove(target, ignored);
        throw TranscriptionError(Code::sourcePreparationFailed);
    }
    try {
        checkStamp();
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(target, ignored);
        throw;
    }
}

}  // namespace tessarin::engine
