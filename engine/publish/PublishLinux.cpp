#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "engine/model/JobFailure.hpp"
#include "engine/publish/Destination.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/Publish.hpp"
#include "engine/publish/internal/FileSystemLinux.hpp"

namespace tessarin::engine {

namespace {

using internal::sameObject;
using internal::UniqueFd;

constexpr const char* kPolicyName = "policy";
constexpr const char* kReadyName = "ready";

constexpr std::string_view kSharingPolicySentence =
    "This destination cannot atomically publish output with its sharing policy. Choose a local "
    "Linux-formatted drive (ext4, btrfs, xfs) with ownership enabled.";

PublishOutcome failed(int error) {
    return {static_cast<int32_t>(error), false};
}

bool sameContentStamp(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec && a.st_ctim.tv_sec == b.st_ctim.tv_sec &&
           a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// The private scratch of one publish attempt. Whatever happens, "ready", "policy" and the folder
// itself are removed when it goes out of scope; through the destination's descriptor once the
// scratch is known to be in it, so that a renamed destination folder is cleaned too.
class ScratchGuard {
public:
    ScratchGuard(std::filesystem::path path, UniqueFd fd)
        : path_(std::move(path)), fd_(std::move(fd)) {}
    ScratchGuard(const ScratchGuard&) = delete;
    ScratchGuard& operator=(const ScratchGuard&) = delete;
    ~ScratchGuard() {
        if (fd_.valid()) {
            ::unlinkat(fd_.get(), kReadyName, 0);
            ::unlinkat(fd_.get(), kPolicyName, 0);
        }
        struct stat now {};
        if (parentFd_ >= 0) {
            const std::string name = path_.filename().string();
            if (::fstatat(parentFd_, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
                sameObject(now, stat_)) {
                ::unlinkat(parentFd_, name.c_str(), AT_REMOVEDIR);
            }
        } else if (!opened_ || (::lstat(path_.c_str(), &now) == 0 && S_ISDIR(now.st_mode) &&
                                sameObject(now, stat_))) {
            // Unopened, it is still the empty folder makeScratch made; rmdir takes nothing else.
            ::rmdir(path_.c_str());
        }
    }
    [[nodiscard]] int fd() const { return fd_.get(); }
    void opened(const struct stat& st) {
        stat_ = st;
        opened_ = true;
    }
    // The scratch was found inside the folder of `parentFd`, which outlives this guard.
    void insideParent(int parentFd) { parentFd_ = parentFd; }

private:
    std::filesystem::path path_;
    UniqueFd fd_;
    struct stat stat_ {};
    bool opened_ = false;
    int parentFd_ = -1;
};

// Whether the source may be renamed into place as it is: it lies, as its only name, in a
// private folder of ours on the destination's device, so nobody else can hold or reach it.
UniqueFd privateSourceFolder(const std::filesystem::path& source, const struct stat& sourceStat,
                             dev_t destinationDevice) {
    if (sourceStat.st_nlink != 1 || sourceStat.st_uid != ::geteuid() ||
        sourceStat.st_dev != destinationDevice) {
        return {};
    }
    const std::filesystem::path folder =
        source.parent_path().empty() ? std::filesystem::path(".") : source.parent_path();
    UniqueFd folderFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat folderStat {};
    if (!folderFd.valid() || ::fstat(folderFd.get(), &folderStat) != 0 ||
        folderStat.st_uid != ::geteuid() || (folderStat.st_mode & 077) != 0) {
        return {};
    }
    struct stat named {};
    if (::fstatat(folderFd.get(), source.filename().c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        !sameObject(named, sourceStat)) {
        return {};
    }
    return folderFd;
}

// Gives `fd` what a new file in the destination would have: the policy file's ACL and
// permission bits, the effective user, and the group a new file there takes.
int applyPolicy(int fd, int policyFd, const struct stat& policyStat,
                const struct stat& destinationStat) {
    if (const int error = internal::copyAccessAcl(policyFd, fd); error != 0) {
        return error;
    }
    const gid_t group =
        (destinationStat.st_mode & S_ISGID) != 0 ? destinationStat.st_gid : ::getegid();
    if (::fchown(fd, ::geteuid(), group) != 0) {
        return errno;
    }
    if (::fchmod(fd, policyStat.st_mode & 07777) != 0) {
        return errno;
    }
    if (::fsync(fd) != 0) {
        return errno;
    }
    return 0;
}

bool isCloneUnsupported(int error) {
    return error == EOPNOTSUPP || error == ENOTSUP || error == EXDEV || error == EINVAL ||
           error == ENOTTY || error == ENOSYS;
}

}  // namespace

int cloneFileContents(int sourceFd, int targetFd) {
    return ::ioctl(targetFd, FICLONE, sourceFd) == 0 ? 0 : errno;
}

int renameExclusive(int fromDirectoryFd, const char* fromName, int toDirectoryFd,
                    const char* toName) {
    if (::renameat2(fromDirectoryFd, fromName, toDirectoryFd, toName, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    // File systems without RENAME_NOREPLACE: a hard link is exclusive too, and the final name
    // holds the complete file from its first moment.
    if (::linkat(fromDirectoryFd, fromName, toDirectoryFd, toName, 0) != 0) {
        return errno;
    }
    ::unlinkat(fromDirectoryFd, fromName, 0);
    return 0;
}

PublishOutcome publish(const std::filesystem::path& source,
                       const std::filesystem::path& destination,
                       const std::function<bool()>& isCancelled, const CloneFunction& clone,
                       const RenameFunction& rename, const VolumeOverrides& overrides) {
    const CloneFunction& cloneCall = clone ? clone : CloneFunction(cloneFileContents);
    const RenameFunction& renameCall = rename ? rename : RenameFunction(renameExclusive);
    const auto cancelled = [&] { return isCancelled && isCancelled(); };

    UniqueFd sourceFd(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!sourceFd.valid()) {
        return failed(errno);
    }
    struct stat sourceStat {};
    if (::fstat(sourceFd.get(), &sourceStat) != 0) {
        return failed(errno);
    }
    if (!S_ISREG(sourceStat.st_mode)) {
        return failed(EINVAL);
    }

    const std::filesystem::path folder =
        destination.parent_path().empty() ? std::filesystem::path(".") : destination.parent_path();
    const std::string finalName = destination.filename().string();
    UniqueFd directory(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat directoryStat {};
    if (!directory.valid() || ::fstat(directory.get(), &directoryStat) != 0) {
        return failed(EOPNOTSUPP);
    }
    std::optional<VolumeFacts> facts;
    if (overrides.volumeFactsOverride) {
        facts = overrides.volumeFactsOverride(folder);
    }
    if (!facts) {
        facts = volumeFactsOf(directory.get());
    }
    if (!facts || !facts->isLocal || facts->ignoresOwnership) {
        return failed(EOPNOTSUPP);
    }
    if (cancelled()) {
        return failed(ECANCELED);
    }
    const auto folderStillOpened = [&] {
        struct stat now {};
        return ::stat(folder.c_str(), &now) == 0 && sameObject(now, directoryStat);
    };
    if (!folderStillOpened()) {
        return failed(ESTALE);
    }

    std::filesystem::path scratchPath;
    try {
        scratchPath = makeScratch(folder, overrides);
    } catch (const JobFailure& failure) {
        return failed(failure.exitCode.value_or(EACCES));
    } catch (...) {
        return failed(EACCES);
    }
    ScratchGuard scratch(
        scratchPath,
        UniqueFd(::open(scratchPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
    struct stat scratchStat {};
    if (scratch.fd() < 0 || ::fstat(scratch.fd(), &scratchStat) != 0) {
        return failed(EACCES);
    }
    scratch.opened(scratchStat);
    if (scratchStat.st_dev != directoryStat.st_dev) {
        return failed(EXDEV);
    }
    struct stat scratchNamed {};
    if (::fstatat(directory.get(), scratchPath.filename().c_str(), &scratchNamed,
                  AT_SYMLINK_NOFOLLOW) != 0 ||
        !sameObject(scratchNamed, scratchStat)) {
        return failed(ESTALE);  // the folder path was given to another folder in the meantime
    }
    scratch.insideParent(directory.get());

    // "policy" is created under the destination's default ACL and the umask, so it holds exactly
    // what a new file there would get.
    if (const int error = internal::copyDefaultAcl(directory.get(), scratch.fd()); error != 0) {
        return failed(error);
    }
    UniqueFd policy(::openat(scratch.fd(), kPolicyName,
                             O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    struct stat policyStat {};
    if (!policy.valid() || ::fstat(policy.get(), &policyStat) != 0) {
        return failed(errno);
    }
    if (policyStat.st_size != 0) {
        return failed(EIO);
    }
    if (internal::sealPrivateDirectory(scratch.fd(), scratchStat) != 0) {
        return failed(EACCES);
    }

    const UniqueFd sourceFolder = privateSourceFolder(source, sourceStat, directoryStat.st_dev);
    UniqueFd ready(::openat(scratch.fd(), kReadyName,
                            O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!ready.valid()) {
        return failed(errno);
    }
    const int cloneError = cloneCall(sourceFd.get(), ready.get());
    if (cloneError != 0 && !isCloneUnsupported(cloneError)) {
        return failed(cloneError);
    }
    const bool moveSource = cloneError != 0 && sourceFolder.valid();
    if (moveSource) {
        ready.reset();
        ::unlinkat(scratch.fd(), kReadyName, 0);
    } else {
        if (cloneError != 0) {
            // Truncate what a failed clone may have left; the copy starts at offset 0.
            if (::ftruncate(ready.get(), 0) != 0) {
                return failed(errno);
            }
            const internal::CopyResult copied =
                internal::copyFileData(sourceFd.get(), ready.get(), kCopyChunkBytes, isCancelled);
            if (copied.failure == internal::CopyFailure::cancelled) {
                return failed(ECANCELED);
            }
            if (copied.failure != internal::CopyFailure::none) {
                return failed(copied.error);
            }
        }
        struct stat sourceAfter {};
        struct stat readyStat {};
        if (::fstat(sourceFd.get(), &sourceAfter) != 0 || ::fstat(ready.get(), &readyStat) != 0 ||
            !sameContentStamp(sourceAfter, sourceStat) || readyStat.st_size != sourceStat.st_size) {
            return failed(EIO);
        }
    }

    const int target = moveSource ? sourceFd.get() : ready.get();
    if (const int error = applyPolicy(target, policy.get(), policyStat, directoryStat);
        error != 0) {
        return failed(error);
    }
    if (cancelled()) {
        return failed(ECANCELED);
    }
    if (!folderStillOpened()) {
        return failed(ESTALE);
    }

    const std::string sourceName = source.filename().string();
    const int renameError =
        moveSource
            ? renameCall(sourceFolder.get(), sourceName.c_str(), directory.get(), finalName.c_str())
            : renameCall(scratch.fd(), kReadyName, directory.get(), finalName.c_str());
    if (renameError == EEXIST) {
        return {1, true};
    }
    if (renameError != 0) {
        return failed(renameError);
    }
    if (!folderStillOpened()) {
        return failed(ESTALE);
    }
    if (!moveSource) {
        struct stat now {};
        if (::lstat(source.c_str(), &now) == 0 && sameObject(now, sourceStat)) {
            ::unlink(source.c_str());
        }
    }
    return {0, true};
}

std::filesystem::path publishUnderFreeName(
    const std::filesystem::path& file, const std::filesystem::path& namingSource,
    const OutputNaming& naming, const std::optional<std::filesystem::path>& outputDirectory,
    const std::function<bool()>& isCancelled, const CloneFunction& clone,
    const RenameFunction& rename, const VolumeOverrides& overrides) {
    const std::filesystem::path folder = outputFolder(namingSource, outputDirectory);
    for (int triesLeft = kPublicationTries - 1;; --triesLeft) {
        const std::filesystem::path candidate = firstFreeName(
            namingSource, naming.filenameSuffix, naming.fileExtension, outputDirectory);
        const PublishOutcome outcome =
            publish(file, candidate, isCancelled, clone, rename, overrides);
        if (outcome.settled) {
            if (outcome.code == 0) {
                return candidate;
            }
            if (triesLeft > 0) {
                continue;
            }
            throw JobFailure::sentence(
                "publish",
                fmt::format("could not find a free output name ({} tries)", kPublicationTries));
        }
        if (outcome.code == ECANCELED) {
            throw JobFailure("publish", std::nullopt, "cancelled", true);
        }
        if (internal::folderHasGone(folder)) {
            throw JobFailure::sentence("destination", std::string(kDestinationGone));
        }
        if (outcome.code == EOPNOTSUPP || outcome.code == EINVAL || outcome.code == ENOSYS) {
            throw JobFailure("publish", outcome.code, std::string(kSharingPolicySentence));
        }
        throw JobFailure("publish", outcome.code,
                         fmt::format("could not save to the destination (errno {})", outcome.code));
    }
}

}  // namespace tessarin::engine
