#include <acl/libacl.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <memory>
#include <string>

#include "engine/clips/Uuid.hpp"
#include "engine/recording/internal/Posix.hpp"

namespace tessarin::engine::internal {

namespace {

struct AclFree {
    void operator()(void* acl) const { acl_free(acl); }
};
using AclHandle = std::unique_ptr<struct __acl_ext, AclFree>;

bool aclUnsupported(int error) {
    return error == ENOTSUP || error == EOPNOTSUPP || error == ENOSYS || error == ENODATA ||
           error == ENOENT || error == EINVAL;
}

// 0 when no named user or group entry of `acl` carries a permission.
int namedEntriesGrantNothing(acl_t acl) {
    acl_entry_t entry = nullptr;
    for (int got = acl_get_entry(acl, ACL_FIRST_ENTRY, &entry); got == 1;
         got = acl_get_entry(acl, ACL_NEXT_ENTRY, &entry)) {
        acl_tag_t tag = ACL_UNDEFINED_TAG;
        acl_permset_t permissions = nullptr;
        if (acl_get_tag_type(entry, &tag) != 0 || acl_get_permset(entry, &permissions) != 0) {
            return errno;
        }
        if (tag != ACL_USER && tag != ACL_GROUP) {
            continue;  // owner, owning group, other and mask are bounded by the mode 0700
        }
        if (acl_get_perm(permissions, ACL_READ) == 1 || acl_get_perm(permissions, ACL_WRITE) == 1 ||
            acl_get_perm(permissions, ACL_EXECUTE) == 1) {
            return EACCES;
        }
    }
    return 0;
}

}  // namespace

int openDirectoryNoFollow(const char* path) {
    return ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int openDirectoryNoFollowAt(int directoryFd, const char* name) {
    return ::openat(directoryFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int syncDescriptor(int fd) {
    return ::fsync(fd) == 0 ? 0 : errno;
}

std::string volumeUUIDOfDevice(dev_t device) {
    const int folder = openDirectoryNoFollow("/dev/disk/by-uuid");
    if (folder < 0) {
        return {};
    }
    DIR* listing = ::fdopendir(folder);
    if (listing == nullptr) {
        ::close(folder);
        return {};
    }
    std::string found;
    while (const dirent* entry = ::readdir(listing)) {
        struct stat st {};
        if (::fstatat(folder, entry->d_name, &st, 0) == 0 && S_ISBLK(st.st_mode) &&
            st.st_rdev == device) {
            if (const auto uuid = Uuid::fromText(entry->d_name)) {
                found = uuid->text();
                std::transform(found.begin(), found.end(), found.begin(),
                               [](unsigned char c) { return std::toupper(c); });
            }
            break;
        }
    }
    ::closedir(listing);
    return found;
}

int aclGrantsNothing(int fd) {
    AclHandle access(acl_get_fd(fd));
    if (!access) {
        return aclUnsupported(errno) ? 0 : errno;
    }
    if (const int problem = namedEntriesGrantNothing(access.get()); problem != 0) {
        return problem;
    }
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    AclHandle defaults(acl_get_file(self.c_str(), ACL_TYPE_DEFAULT));
    if (!defaults) {
        return aclUnsupported(errno) ? 0 : errno;
    }
    return namedEntriesGrantNothing(defaults.get());
}

bool processRunning(int pid) {
    if (pid <= 0) {
        return false;
    }
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return false;
    }
    // "pid (name) state …": the name may hold anything, so the state follows the last ')'. An
    // exited process not yet reaped is a zombie ("Z"); one being torn down is "X".
    const std::size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z' &&
           line[close + 2] != 'X';
}

}  // namespace tessarin::engine::internal
