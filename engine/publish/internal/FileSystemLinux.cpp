#include "engine/publish/internal/FileSystemLinux.hpp"

#include <acl/libacl.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace tessarin::engine::internal {

namespace {

// Owns one libacl object.
class AclHandle {
public:
    explicit AclHandle(acl_t acl) : acl_(acl) {}
    AclHandle(const AclHandle&) = delete;
    AclHandle& operator=(const AclHandle&) = delete;
    ~AclHandle() {
        if (acl_ != nullptr) {
            acl_free(acl_);
        }
    }
    [[nodiscard]] acl_t get() const { return acl_; }
    explicit operator bool() const { return acl_ != nullptr; }

private:
    acl_t acl_;
};

bool aclUnsupported(int error) {
    return error == ENOTSUP || error == EOPNOTSUPP || error == ENOSYS;
}

// libacl has no descriptor call for default ACLs; the descriptor's /proc link names exactly the
// object we hold open, so no path race is possible.
std::string descriptorPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// True when the ACL has more than the three entries the mode bits express.
bool isExtended(acl_t acl) {
    return acl_equiv_mode(acl, nullptr) != 0;
}

int retryEintr(const std::function<ssize_t()>& call, ssize_t& result) {
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result < 0 ? errno : 0;
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

UniqueFd::~UniqueFd() {
    reset();
}

void UniqueFd::reset() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool folderHasGone(const std::filesystem::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode);
}

bool accessAclGrantsNoWrite(int fd) {
    AclHandle acl(acl_get_fd(fd));
    if (!acl) {
        return aclUnsupported(errno);
    }
    if (!isExtended(acl.get())) {
        return true;
    }
    if (acl_valid(acl.get()) != 0) {
        return false;
    }
    acl_entry_t entry = nullptr;
    for (int got = acl_get_entry(acl.get(), ACL_FIRST_ENTRY, &entry); got == 1;
         got = acl_get_entry(acl.get(), ACL_NEXT_ENTRY, &entry)) {
        acl_tag_t tag = ACL_UNDEFINED_TAG;
        acl_permset_t permissions = nullptr;
        if (acl_get_tag_type(entry, &tag) != 0 || acl_get_permset(entry, &permissions) != 0) {
            return false;
        }
        const bool grantsWrite = acl_get_perm(permissions, ACL_WRITE) != 0;
        if (grantsWrite && (tag == ACL_USER || tag == ACL_GROUP || tag == ACL_MASK)) {
            return false;
        }
    }
    return true;
}

int clearDirectoryAcls(int directoryFd) {
    struct stat st {};
    if (::fstat(directoryFd, &st) != 0) {
        return errno;
    }
    AclHandle minimal(acl_from_mode(st.st_mode & 0777));
    if (!minimal) {
        return errno;
    }
    if (acl_set_fd(directoryFd, minimal.get()) != 0 && !aclUnsupported(errno)) {
        return errno;
    }
    const std::string self = descriptorPath(directoryFd);
    if (acl_delete_def_file(self.c_str()) != 0 && !aclUnsupported(errno)) {
        return errno;
    }
    AclHandle access(acl_get_fd(directoryFd));
    if (!access) {
        if (!aclUnsupported(errno)) {
            return errno;
        }
    } else if (isExtended(access.get())) {
        return EACCES;
    }
    AclHandle defaults(acl_get_file(self.c_str(), ACL_TYPE_DEFAULT));
    if (!defaults) {
        return aclUnsupported(errno) ? 0 : errno;
    }
    return acl_entries(defaults.get()) == 0 ? 0 : EACCES;
}

int copyDefaultAcl(int fromDirectoryFd, int toDirectoryFd) {
    AclHandle defaults(acl_get_file(descriptorPath(fromDirectoryFd).c_str(), ACL_TYPE_DEFAULT));
    if (!defaults) {
        return aclUnsupported(errno) ? 0 : errno;
    }
    if (acl_entries(defaults.get()) <= 0) {
        return 0;
    }
    if (acl_set_file(descriptorPath(toDirectoryFd).c_str(), ACL_TYPE_DEFAULT, defaults.get()) !=
        0) {
        return errno;
    }
    return 0;
}

int copyAccessAcl(int fromFd, int toFd) {
    AclHandle access(acl_get_fd(fromFd));
    if (!access) {
        return aclUnsupported(errno) ? 0 : errno;
    }
    if (!isExtended(access.get())) {
        return 0;
    }
    return acl_set_fd(toFd, access.get()) == 0 ? 0 : errno;
}

int sealPrivateDirectory(int directoryFd, const struct stat& expected) {
    const auto verify = [&]() {
        struct stat now {};
        if (::fstat(directoryFd, &now) != 0) {
            return errno;
        }
        const bool good = S_ISDIR(now.st_mode) && now.st_uid == ::geteuid() &&
                          (now.st_mode & 07777) == 0700 && sameObject(now, expected);
        return good ? 0 : EACCES;
    };
    if (::fchmod(directoryFd, 0700) != 0) {
        return errno;
    }
    if (const int error = verify(); error != 0) {
        return error;
    }
    if (const int error = clearDirectoryAcls(directoryFd); error != 0) {
        return error;
    }
    return verify();
}

int createPrivateDirectory(const std::filesystem::path& path) {
    if (::mkdir(path.c_str(), 0700) != 0) {
        return errno;
    }
    struct stat made {};
    if (::lstat(path.c_str(), &made) != 0) {
        return errno;  // not ours to remove: we can no longer tell what stands there
    }
    const auto removeIfStillOurs = [&]() {
        struct stat now {};
        if (::lstat(path.c_str(), &now) == 0 && S_ISDIR(now.st_mode) && now.st_uid == ::geteuid() &&
            sameObject(now, made)) {
            ::rmdir(path.c_str());
        }
    };
    const auto fail = [&](int error) {
        removeIfStillOurs();
        return error == 0 ? EACCES : error;
    };
    if (!S_ISDIR(made.st_mode) || made.st_uid != ::geteuid()) {
        return EACCES;
    }
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        return fail(errno);
    }
    struct stat opened {};
    if (::fstat(fd.get(), &opened) != 0) {
        return fail(errno);
    }
    if (!sameObject(opened, made)) {
        return fail(EACCES);
    }
    if (const int error = sealPrivateDirectory(fd.get(), made); error != 0) {
        return fail(error);
    }
    return 0;
}

CopyResult copyFileData(int inFd, int outFd, std::size_t chunkBytes,
                        const std::function<bool()>& isCancelled,
                        const std::function<void(uint64_t)>& onChunk) {
    CopyResult result;
    loff_t inOffset = 0;
    loff_t outOffset = 0;
    bool kernelCopy = true;
    std::vector<char> buffer;
    for (;;) {
        if (isCancelled && isCancelled()) {
            result.failure = CopyFailure::cancelled;
            return result;
        }
        if (kernelCopy) {
            ssize_t copied = 0;
            const int error = retryEintr(
                [&] {
                    return ::copy_file_range(inFd, &inOffset, outFd, &outOffset, chunkBytes, 0);
                },
                copied);
            if (error == 0) {
                if (copied == 0) {
                    return result;
                }
                result.copied += static_cast<uint64_t>(copied);
                if (onChunk) {
                    onChunk(result.copied);
                }
                continue;
            }
            // Not every pair of file systems can copy in the kernel, and a real fault shows up
            // again below with its side (read or write) known.
            kernelCopy = false;
            buffer.resize(chunkBytes);
        }
        ssize_t got = 0;
        if (const int error = retryEintr(
                [&] { return ::pread(inFd, buffer.data(), buffer.size(), inOffset); }, got);
            error != 0) {
            result.failure = CopyFailure::read;
            result.error = error;
            return result;
        }
        if (got == 0) {
            return result;
        }
        inOffset += got;
        for (ssize_t written = 0; written < got;) {
            ssize_t put = 0;
            if (const int error = retryEintr(
                    [&] {
                        return ::pwrite(outFd, buffer.data() + written,
                                        static_cast<std::size_t>(got - written), outOffset);
                    },
                    put);
                error != 0) {
                result.failure = CopyFailure::write;
                result.error = error;
                return result;
            }
            if (put == 0) {
                result.failure = CopyFailure::write;
                result.error = EIO;
                return result;
            }
            written += put;
            outOffset += put;
            result.copied += static_cast<uint64_t>(put);
        }
        if (onChunk) {
            onChunk(result.copied);
        }
    }
}

}  // namespace tessarin::engine::internal
