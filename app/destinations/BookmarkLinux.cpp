// Folder lookups without mounting: each component is examined with statx before it is entered,
// so that an automount trigger is seen (and refused) rather than crossed.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <deque>
#include <string>

#include "app/destinations/internal/FolderIdentity.hpp"

namespace tessarin::app::destinations_internal {
namespace {

// As the kernel's own limit on links followed in one lookup.
constexpr int kMaxLinksFollowed = 40;

constexpr int kLookupFlags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC;
constexpr unsigned kLookupMask = STATX_TYPE | STATX_INO | STATX_BTIME;

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { reset(-1); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] int get() const { return fd_; }
    void reset(int fd) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_;
};

bool hasAttribute(const struct statx& status, uint64_t attribute) {
    return (status.stx_attributes_mask & attribute) != 0 &&
           (status.stx_attributes & attribute) != 0;
}

uint64_t deviceOf(const struct statx& status) {
    return makedev(status.stx_dev_major, status.stx_dev_minor);
}

FolderLookup failure(int error) {
    return {std::nullopt, error};
}

// The identity of the folder open at `folder`.
FolderLookup identify(int folder, std::filesystem::path path) {
    struct statx status {};
    if (::statx(folder, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, kLookupMask, &status) != 0) {
        return failure(errno);
    }
    FolderIdentity identity;
    identity.path = std::move(path);
    identity.device = deviceOf(status);
    identity.inode = status.stx_ino;
    if ((status.stx_mask & STATX_BTIME) != 0) {
        identity.birthTime = BirthTime{status.stx_btime.tv_sec, status.stx_btime.tv_nsec};
    }
    if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
        identity.mountRoot = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    } else {
        // Kernels before 5.8 don't report mount roots: a change of device from the parent is
        // the same fact for every case that matters here.
        struct statx parent {};
        identity.mountRoot = ::statx(folder, "..", AT_STATX_DONT_SYNC, STATX_INO, &parent) != 0 ||
                             deviceOf(parent) != identity.device ||
                             parent.stx_ino == identity.inode;
    }
    return {std::move(identity), 0};
}

}  // namespace

FolderLookup lookUpFolder(const std::filesystem::path& path) {
    if (!path.is_absolute()) {
        return failure(EINVAL);
    }
    std::deque<std::string> remaining;
    for (const std::filesystem::path& component : path.relative_path()) {
        remaining.push_back(component.string());
    }
    Descriptor folder(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0) {
        return failure(errno);
    }
    std::filesystem::path walked = "/";
    int linksFollowed = 0;

    while (!remaining.empty()) {
        const std::string name = std::move(remaining.front());
        remaining.pop_front();
        if (name.empty() || name == ".") {
            continue;
        }
        if (name == "..") {
            const int parent = ::openat(folder.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (parent < 0) {
                return failure(errno);
            }
            folder.reset(parent);
            walked = walked.parent_path();
            continue;
        }

        struct statx status {};
        if (::statx(folder.get(), name.c_str(), kLookupFlags, kLookupMask, &status) != 0) {
            return failure(errno);
        }
        if (hasAttribute(status, STATX_ATTR_AUTOMOUNT)) {
            return failure(EREMOTE);
        }
        if (S_ISLNK(status.stx_mode)) {
            if (++linksFollowed > kMaxLinksFollowed) {
                return failure(ELOOP);
            }
            std::array<char, PATH_MAX> buffer{};
            const ssize_t length =
                ::readlinkat(folder.get(), name.c_str(), buffer.data(), buffer.size());
            if (length < 0) {
                return failure(errno);
            }
            if (static_cast<size_t>(length) >= buffer.size()) {
                return failure(ENAMETOOLONG);
            }
            const std::filesystem::path target(std::string(buffer.data(), length));
            if (target.is_absolute()) {
                const int root = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
                if (root < 0) {
                    return failure(errno);
                }
                folder.reset(root);
                walked = "/";
            }
            std::deque<std::string> expanded;
            for (const std::filesystem::path& component : target.relative_path()) {
                expanded.push_back(component.string());
            }
            remaining.insert(remaining.begin(), expanded.begin(), expanded.end());
            continue;
        }
        if (!S_ISDIR(status.stx_mode)) {
            return failure(ENOTDIR);
        }
        const int next =
            ::openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0) {
            return failure(errno);
        }
        folder.reset(next);
        walked /= name;
    }
    return identify(folder.get(), std::move(walked));
}

}  // namespace tessarin::app::destinations_internal
