// Small POSIX helpers of the recording layer. Not for use outside engine/recording.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace tessarin::engine::internal {

[[nodiscard]] inline std::system_error posixError(int error, const std::string& what) {
    return {error, std::generic_category(), what};
}

[[nodiscard]] inline bool sameObject(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Opens a directory read-only, close-on-exec, without following a link at the last component.
[[nodiscard]] int openDirectoryNoFollow(const char* path);
[[nodiscard]] int openDirectoryNoFollowAt(int directoryFd, const char* name);

// fsync of a descriptor; 0 or errno.
[[nodiscard]] int syncDescriptor(int fd);

// The file-system UUID of the block device `device` from /dev/disk/by-uuid, upper case, or
// empty when it is unknown (no such folder, a device without one, btrfs' anonymous devices).
[[nodiscard]] std::string volumeUUIDOfDevice(dev_t device);

// Whether the access and default ACLs of `fd` grant nothing to named users or groups; file
// systems without ACLs have none. 0, EACCES, or the errno of the ACL call.
[[nodiscard]] int aclGrantsNothing(int fd);

// Whether process `pid` runs: false once it exited, even before its parent reaped it.
[[nodiscard]] bool processRunning(int pid);

}  // namespace tessarin::engine::internal
