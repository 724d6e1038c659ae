// Shared pieces of the publish tests: sparse files, file ages, and root-only mounts (a
// size-limited tmpfs, a loop-mounted btrfs image) that are always taken down again.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Files.hpp"

extern char** environ;

namespace tessarin::engine::testing {

namespace fs = std::filesystem;

using test::readFile;
using test::TempDir;
using test::writeFile;

// A sparse file of `size` bytes with a marker at its start and its end, so that a copy is
// checkable at both ends without writing all of it.
inline void writeSparseFile(const fs::path& path, off_t size, const std::string& marker) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, size), 0);
    ASSERT_EQ(::pwrite(fd, marker.data(), marker.size(), 0), static_cast<ssize_t>(marker.size()));
    ASSERT_EQ(::pwrite(fd, marker.data(), marker.size(), size - static_cast<off_t>(marker.size())),
              static_cast<ssize_t>(marker.size()));
    ::close(fd);
}

inline std::string readTail(const fs::path& path, std::size_t length) {
    std::string tail(length, '\0');
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return {};
    }
    struct stat st {};
    ::fstat(fd, &st);
    const ssize_t got =
        st.st_size >= static_cast<off_t>(length)
            ? ::pread(fd, tail.data(), length, st.st_size - static_cast<off_t>(length))
            : -1;
    ::close(fd);
    return got == static_cast<ssize_t>(length) ? tail : std::string();
}

// Sets the modification (and access) time of `path` itself to `secondsAgo` in the past.
inline void setAge(const fs::path& path, int64_t secondsAgo) {
    struct timespec times[2];
    ::clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= secondsAgo;
    times[1] = times[0];
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

inline std::set<std::string> entryNames(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

inline bool isRoot() {
    return ::geteuid() == 0;
}

// Runs a program with arguments (no shell) and returns its exit status, or -1.
inline int runProgram(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return -1;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A file system mounted for one test; unmounted (and its loop device released) on destruction.
// `reason` says why nothing was mounted.
class ScopedMount {
public:
    // A tmpfs of `sizeOption` (e.g. "1m") at `mountPoint`, mode 0755.
    static ScopedMount tmpfs(const fs::path& mountPoint, const std::string& sizeOption) {
        ScopedMount mount;
        if (!isRoot()) {
            mount.reason_ = "mounting a tmpfs needs root";
            return mount;
        }
        fs::create_directories(mountPoint);
        const std::string options = "size=" + sizeOption + ",mode=0755";
        if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, options.c_str()) != 0) {
            mount.reason_ = std::string("mount -t tmpfs failed: ") + std::strerror(errno);
            return mount;
        }
        mount.mountPoint_ = mountPoint;
        return mount;
    }

    // A btrfs file system made in a sparse 120 MB image and loop-mounted at `mountPoint`.
    static ScopedMount btrfs(const fs::path& image, const fs::path& mountPoint) {
        ScopedMount mount;
        if (!isRoot()) {
            mount.reason_ = "loop-mounting a btrfs image needs root";
            return mount;
        }
        const char* mkfs = "/usr/sbin/mkfs.btrfs";
        if (::access(mkfs, X_OK) != 0) {
            mount.reason_ = "mkfs.btrfs is not installed";
            return mount;
        }
        {
            const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            const bool sized = fd >= 0 && ::ftruncate(fd, 120LL * 1024 * 1024) == 0;
            if (fd >= 0) {
                ::close(fd);
            }
            if (!sized) {
                mount.reason_ = "could not create the image file";
                return mount;
            }
        }
        if (runProgram({mkfs, "-q", "-f", image.string()}) != 0) {
            mount.reason_ = "mkfs.btrfs failed";
            return mount;
        }
        fs::create_directories(mountPoint);
        if (runProgram({"/usr/bin/mount", "-o", "loop", image.string(), mountPoint.string()}) !=
            0) {
            mount.reason_ =
                "mount -o loop of the btrfs image failed (no loop "
                "devices or no btrfs)";
            return mount;
        }
        mount.mountPoint_ = mountPoint;
        return mount;
    }

    ScopedMount(ScopedMount&& other) noexcept
        : mountPoint_(std::move(other.mountPoint_)), reason_(std::move(other.reason_)) {
        other.mountPoint_.reset();
    }
    ScopedMount& operator=(ScopedMount&&) = delete;
    ~ScopedMount() {
        if (mountPoint_ && ::umount2(mountPoint_->c_str(), 0) != 0) {
            ::umount2(mountPoint_->c_str(), MNT_DETACH);
        }
    }
    [[nodiscard]] bool mounted() const { return mountPoint_.has_value(); }
    [[nodiscard]] const std::string& reason() const { return reason_; }

private:
    ScopedMount() = default;
    std::optional<fs::path> mountPoint_;
    std::string reason_;
};

}  // namespace tessarin::engine::testing
