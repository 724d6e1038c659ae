// Descriptor-level helpers shared by the publish unit: owned descriptors, POSIX ACLs through
// libacl, sealing a private directory, and the chunked data copy. Not for use outside
// engine/publish.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <utility>

namespace tessarin::engine::internal {

// Owns one descriptor and closes it on every way out.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    ~UniqueFd();

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }
    void reset();

private:
    int fd_ = -1;
};

// True when both describe the same object (device and inode).
[[nodiscard]] inline bool sameObject(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// True when `path` no longer names a directory (ejected, unmounted, removed).
[[nodiscard]] bool folderHasGone(const std::filesystem::path& path);

// Whether the access ACL of `fd` is acceptable for a protected directory: absent or minimal, or
// valid with no named user, named group or mask entry carrying write. File systems without
// ACL support count as absent.
[[nodiscard]] bool accessAclGrantsNoWrite(int fd);

// Makes the ACLs of a directory descriptor minimal: the access ACL is reduced to the mode bits and
// the default ACL is removed; both are read back. 0, or the errno that stopped it (EACCES when the
// read-back still shows extended entries).
[[nodiscard]] int clearDirectoryAcls(int directoryFd);

// Copies the default ACL of `fromDirectoryFd` (if it has one) to `toDirectoryFd`. 0 or errno.
[[nodiscard]] int copyDefaultAcl(int fromDirectoryFd, int toDirectoryFd);

// Gives `toFd` the extended access ACL of `fromFd`, if it has one. 0 or errno.
[[nodiscard]] int copyAccessAcl(int fromFd, int toFd);

// Seals an open directory created by us: fchmod 0700, clear the ACLs, then fstat must show a
// directory of the effective user with permission bits exactly 0700 on `expected`'s device and
// inode. 0 or errno (EACCES for a failed verification).
[[nodiscard]] int sealPrivateDirectory(int directoryFd, const struct stat& expected);

// Creates `path` as a sealed private directory (mkdir 0700, lstat, open without following links,
// same object, seal). On a failure after mkdir the directory is removed again if it is still the
// one we made. The parent is not checked here. 0 or errno.
[[nodiscard]] int createPrivateDirectory(const std::filesystem::path& path);

enum class CopyFailure { none, read, write, cancelled };

struct CopyResult {
    CopyFailure failure = CopyFailure::none;
    int error = 0;        // errno of a read or write failure
    uint64_t copied = 0;  // bytes written to `outFd`
};

// Copies all bytes of `inFd` from offset 0 to `outFd` from offset 0, in chunks of `chunkBytes`,
// with copy_file_range and a read/write loop where the kernel can't. `isCancelled` is asked
// before every chunk; `onChunk` gets the running total after every chunk. Blocks.
[[nodiscard]] CopyResult copyFileData(int inFd, int outFd, std::size_t chunkBytes,
                                      const std::function<bool()>& isCancelled,
                                      const std::function<void(uint64_t)>& onChunk = {});

}  // namespace tessarin::engine::internal
