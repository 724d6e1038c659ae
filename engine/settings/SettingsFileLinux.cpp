#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "engine/settings/internal/SettingsFile.hpp"

namespace tessarin::engine::settings_internal {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kTemporaryPrefix = ".tessarin-";
constexpr std::size_t kTemporarySuffixLength = 6;  // mkostemp's "XXXXXX"
constexpr int kMaxKeepAsideTries = 1000;

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }
    // Closes now and returns close's errno, or 0.
    int reset() {
        int error = 0;
        if (fd_ >= 0 && ::close(fd_) != 0) {
            error = errno;
        }
        fd_ = -1;
        return error;
    }

private:
    int fd_;
};

[[noreturn]] void fail(int error, const std::string& what, const fs::path& path) {
    throw std::system_error(error, std::generic_category(), what + " " + path.string());
}

fs::path folderOf(const fs::path& file) {
    const fs::path folder = file.parent_path();
    return folder.empty() ? fs::path(".") : folder;
}

std::string temporaryPrefix(const fs::path& file) {
    return std::string(kTemporaryPrefix) + file.filename().string() + "-";
}

FileStamp stampOf(const struct stat& info) {
    return FileStamp{
        .device = static_cast<uint64_t>(info.st_dev),
        .inode = static_cast<uint64_t>(info.st_ino),
        .size = static_cast<int64_t>(info.st_size),
        .modifiedNanoseconds =
            static_cast<int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec,
    };
}

int renameExclusive(const fs::path& from, const fs::path& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // Without RENAME_NOREPLACE in the file system, a hard link is exclusive as well.
    if (::link(from.c_str(), to.c_str()) != 0) {
        return errno;
    }
    ::unlink(from.c_str());
    return 0;
}

}  // namespace

ReadResult readSettingsFile(const fs::path& file, std::size_t maxBytes, int maxDepth) {
    ReadResult result;
    // O_NONBLOCK so that a FIFO in the file's place can't hang the open; regular files ignore it.
    Fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd.valid()) {
        if (errno == ENOENT) {
            result.state = ReadResult::State::missing;
        } else {
            result.state = ReadResult::State::unreadable;
            result.error = errno;
        }
        return result;
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) {
        result.state = ReadResult::State::unreadable;
        result.error = errno;
        return result;
    }
    if (!S_ISREG(info.st_mode)) {
        result.state = ReadResult::State::unreadable;
        result.error = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
        return result;
    }
    result.stamp = stampOf(info);
    if (static_cast<uint64_t>(info.st_size) > maxBytes) {
        result.state = ReadResult::State::corrupt;
        result.reason = "too-large";
        return result;
    }

    // Read to the end rather than trusting st_size, but never past the cap.
    std::string text(static_cast<std::size_t>(info.st_size) + 1, '\0');
    std::size_t used = 0;
    for (;;) {
        if (used == text.size()) {
            if (text.size() > maxBytes) {
                result.state = ReadResult::State::corrupt;
                result.reason = "too-large";
                return result;
            }
            text.resize(std::min(text.size() * 2 + 4096, maxBytes + 1));
        }
        const ssize_t count = ::read(fd.get(), text.data() + used, text.size() - used);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            result.state = ReadResult::State::unreadable;
            result.error = errno;
            return result;
        }
        if (count == 0) {
            break;
        }
        used += static_cast<std::size_t>(count);
    }
    text.resize(used);

    nlohmann::json value;
    if (!parseJsonText(text, maxDepth, value, result.reason)) {
        result.state = ReadResult::State::corrupt;
        return result;
    }
    if (!value.is_object()) {
        result.state = ReadResult::State::corrupt;
        result.reason = "not-object";
        return result;
    }
    result.state = ReadResult::State::valid;
    result.object = std::move(value);
    return result;
}

void createFolders(const fs::path& folder) {
    if (folder.empty()) {
        return;
    }
    // Walk down from the top so that each missing level gets 0700, as the XDG base directory
    // rules ask for configuration folders.
    fs::path current;
    for (const fs::path& part : folder) {
        current /= part;
        if (::mkdir(current.c_str(), 0700) == 0 || errno == EEXIST) {
            continue;
        }
        // An existing level that can't be written into (even "/") may still be fine: only a
        // level that doesn't exist afterwards is a failure.
        const int error = errno;
        struct stat info {};
        if (::stat(current.c_str(), &info) != 0) {
            fail(error, "cannot create the settings folder", current);
        }
    }
    struct stat info {};
    if (::stat(folder.c_str(), &info) != 0) {
        fail(errno, "cannot reach the settings folder", folder);
    }
    if (!S_ISDIR(info.st_mode)) {
        fail(ENOTDIR, "cannot use the settings folder", folder);
    }
}

FileLock::FileLock(const fs::path& lockFile) {
    createFolders(lockFile.parent_path());
    fd_ = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600);
    if (fd_ < 0) {
        fail(errno, "cannot open the settings lock file", lockFile);
    }
    while (::flock(fd_, LOCK_EX) != 0) {
        if (errno != EINTR) {
            const int error = errno;
            ::close(fd_);
            fd_ = -1;
            fail(error, "cannot lock the settings lock file", lockFile);
        }
    }
}

FileLock::~FileLock() {
    if (fd_ >= 0) {
        ::close(fd_);  // releases the flock
    }
}

int replaceFileAtomically(const fs::path& file, std::string_view text) {
    const fs::path folder = folderOf(file);
    std::string temporary = (folder / (temporaryPrefix(file) + "XXXXXX")).string();
    Fd fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd.valid()) {
        fail(errno, "cannot create a temporary settings file in", folder);
    }
    bool renamed = false;
    struct RemoveUnlessRenamed {
        const std::string& path;
        const bool& renamed;
        ~RemoveUnlessRenamed() {
            if (!renamed) {
                ::unlink(path.c_str());
            }
        }
    } cleanup{temporary, renamed};

    struct stat old {};
    if (::stat(file.c_str(), &old) == 0 && S_ISREG(old.st_mode)) {
        if (::fchmod(fd.get(), old.st_mode & 07777) != 0) {
            fail(errno, "cannot set the mode of a temporary settings file in", folder);
        }
    }
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(fd.get(), text.data() + written, text.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail(errno, "cannot write a temporary settings file in", folder);
        }
        written += static_cast<std::size_t>(count);
    }
    if (::fsync(fd.get()) != 0) {
        fail(errno, "cannot flush a temporary settings file in", folder);
    }
    if (const int error = fd.reset(); error != 0) {
        fail(error, "cannot close a temporary settings file in", folder);
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        fail(errno, "cannot replace the settings file", file);
    }
    renamed = true;

    // The rename is only durable once the folder is flushed too.
    Fd folderFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folderFd.valid()) {
        return errno;
    }
    if (::fsync(folderFd.get()) != 0 && errno != EINVAL) {
        return errno;
    }
    return 0;
}

void sweepTemporaries(const fs::path& file) {
    const std::string prefix = temporaryPrefix(file);
    std::error_code error;
    for (fs::directory_iterator it(folderOf(file), error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (name.size() == prefix.size() + kTemporarySuffixLength && name.starts_with(prefix)) {
            ::unlink(it->path().c_str());
        }
    }
}

fs::path keepAside(const fs::path& file, std::string_view utcStamp) {
    const std::string base = file.filename().string() + ".corrupt-" + std::string(utcStamp);
    for (int attempt = 1; attempt <= kMaxKeepAsideTries; ++attempt) {
        const fs::path target =
            file.parent_path() / (attempt == 1 ? base : base + "-" + std::to_string(attempt));
        const int error = renameExclusive(file, target);
        if (error == 0) {
            return target;
        }
        if (error != EEXIST) {
            fail(error, "cannot keep the corrupt settings file aside:", file);
        }
    }
    fail(EEXIST, "cannot keep the corrupt settings file aside (every name is taken):", file);
}

}  // namespace tessarin::engine::settings_internal
