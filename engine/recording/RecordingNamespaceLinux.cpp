#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "engine/clips/Uuid.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/VolumeInfo.hpp"
#include "engine/recording/RecordingError.hpp"
#include "engine/recording/RecordingNamespace.hpp"
#include "engine/recording/internal/Posix.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using internal::posixError;
using internal::sameObject;

namespace {

using Case = RecordingError::Case;

constexpr const char* kPublishedMarker = "take.published";
constexpr const char* kManifestName = "take.json";

fs::path dataHome() {
    if (const char* value = std::getenv("XDG_DATA_HOME"); value != nullptr && value[0] == '/') {
        return value;
    }
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/') {
        throw std::runtime_error("no home folder");
    }
    return fs::path(home) / ".local" / "share";
}

// Makes `path` and any missing parents with mode 0700; an existing directory is accepted.
void makeFolders(const fs::path& path) {
    if (::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) {
        return;
    }
    if (errno != ENOENT || path.parent_path() == path) {
        throw posixError(errno, "mkdir");
    }
    makeFolders(path.parent_path());
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        throw posixError(errno, "mkdir");
    }
}

[[noreturn]] void throwProblem(int problem, const char* what) {
    if (problem == EOPNOTSUPP) {
        throw RecordingError(Case::unsupportedRecordingStorage);
    }
    throw posixError(problem, what);
}

std::optional<RecordingNamespace::DestinationIdentity> identityOfOpenFolder(int fd) {
    struct statx sx {};
    if (::statx(fd, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &sx) != 0) {
        return std::nullopt;
    }
    RecordingNamespace::DestinationIdentity identity;
    identity.inode = sx.stx_ino;
    const dev_t device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    identity.device = static_cast<int64_t>(device);
    if ((sx.stx_mask & STATX_BTIME) != 0) {
        identity.birthSeconds = sx.stx_btime.tv_sec;
        identity.birthNanoseconds = sx.stx_btime.tv_nsec;
    }
    if (std::string uuid = internal::volumeUUIDOfDevice(device); !uuid.empty()) {
        identity.volumeUUID = std::move(uuid);
    }
    return identity;
}

}  // namespace

fs::path RecordingNamespace::recordingRoot() {
    return dataHome() / "tessarin" / std::string(kRootName);
}

fs::path RecordingNamespace::resolve(const fs::path& path) {
    char* real = ::realpath(path.c_str(), nullptr);
    if (real == nullptr) {
        throw posixError(errno, "realpath");
    }
    fs::path result(real);
    std::free(real);
    return result;
}

void RecordingNamespace::validateRoot(const fs::path& root) {
    const auto walk = [](const fs::path& path) {
        fs::path prefix;
        for (const fs::path& component : path) {
            prefix /= component;
            struct stat st {};
            if (::lstat(prefix.c_str(), &st) != 0) {
                if (errno == ENOENT) {
                    return true;  // made later with mode 0700
                }
                return false;
            }
            if (!isProtectedDirectory(prefix)) {
                return false;
            }
        }
        return true;
    };
    const fs::path standard = fs::absolute(root).lexically_normal();
    if (!walk(standard)) {
        throw RecordingError(Case::unsupportedRecordingStorage);
    }
    // The existing part of the real path, walked again without the links.
    fs::path existing = standard;
    while (!existing.empty() && existing != existing.root_path() && ::access(existing.c_str(), F_OK) != 0) {
        existing = existing.parent_path();
    }
    try {
        if (!walk(resolve(existing))) {
            throw RecordingError(Case::unsupportedRecordingStorage);
        }
    } catch (const std::system_error&) {
        throw RecordingError(Case::unsupportedRecordingStorage);
    }
}

bool RecordingNamespace::passesStorageTest(int descriptor) {
    const std::optional<VolumeFacts> facts = volumeFactsOf(descriptor);
    return facts && facts->isLocal && !facts->ignoresOwnership;
}

int RecordingNamespace::privacyProblem(int descriptor) {
    struct stat st {};
    if (::fstat(descriptor, &st) != 0) {
        return errno;
    }
    if (!S_ISDIR(st.st_mode)) {
        return ENOTDIR;
    }
    if (!passesStorageTest(descriptor)) {
        return EOPNOTSUPP;
    }
    if (st.st_uid != ::geteuid() || (st.st_mode & 07777) != 0700) {
        return EACCES;
    }
    return internal::aclGrantsNothing(descriptor);
}

FileDescriptor RecordingNamespace::openPrivate(const fs::path& path, bool create) {
    if (create) {
        if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
            if (errno != ENOENT) {
                throw posixError(errno, "mkdir");
            }
            makeFolders(path);
        }
    }
    FileDescriptor fd(internal::openDirectoryNoFollow(path.c_str()));
    if (!fd.valid()) {
        throw posixError(errno, "open");
    }
    int problem = privacyProblem(fd.get());
    if (problem == EACCES && create) {
        struct stat st {};
        if (::fstat(fd.get(), &st) == 0 && st.st_uid == ::geteuid() &&
            (st.st_mode & 07777) != 0700 && ::fchmod(fd.get(), 0700) == 0) {
            problem = privacyProblem(fd.get());
        }
        if (problem == EACCES) {
            throw RecordingError(Case::unsupportedRecordingStorage);
        }
    }
    if (problem != 0) {
        throwProblem(problem, "private folder");
    }
    return fd;
}

fs::path RecordingNamespace::createTakeFolder(const fs::path& root) {
    const fs::path folder = root / (std::string(kTakePrefix) + Uuid::random().text());
    if (::mkdir(folder.c_str(), 0700) != 0) {
        throw posixError(errno, "mkdir");
    }
    try {
        [[maybe_unused]] const FileDescriptor fd = openPrivate(folder, false);
    } catch (...) {
        ::rmdir(folder.c_str());
        throw;
    }
    return folder;
}

RecordingNamespace::Lease RecordingNamespace::acquire(const fs::path& folder) {
    FileDescriptor fd = openPrivate(folder, false);
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            throw RecordingError(Case::recordingInUse);
        }
        throw posixError(errno, "flock");
    }
    return Lease(std::move(fd));
}

RecordingNamespace::DestinationIdentity RecordingNamespace::destinationIdentity(
    const fs::path& folder) {
    const FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat opened {};
    struct stat named {};
    if (!fd.valid() || ::fstat(fd.get(), &opened) != 0 || ::lstat(folder.c_str(), &named) != 0 ||
        !sameObject(opened, named)) {
        throw RecordingError(Case::destinationCheckFailed);
    }
    std::optional<DestinationIdentity> identity = identityOfOpenFolder(fd.get());
    if (!identity) {
        throw RecordingError(Case::destinationCheckFailed);
    }
    return *identity;
}

bool RecordingNamespace::matches(const DestinationIdentity& stored, const DestinationIdentity& now) {
    if (stored.inode != now.inode) {
        return false;
    }
    if (stored.birthSeconds && stored.birthSeconds != now.birthSeconds) {
        return false;
    }
    if (stored.birthNanoseconds && stored.birthNanoseconds != now.birthNanoseconds) {
        return false;
    }
    if (stored.volumeUUID) {
        return stored.volumeUUID == now.volumeUUID;
    }
    return stored.device && now.device && *stored.device == *now.device;
}

bool RecordingNamespace::matches(const DestinationIdentity& stored, const fs::path& folder) {
    try {
        return matches(stored, destinationIdentity(folder));
    } catch (const RecordingError&) {
        return false;
    }
}

void RecordingNamespace::checkDestination(const fs::path& folder) {
    fs::path real;
    FileDescriptor fd;
    try {
        real = resolve(folder);
        fd = FileDescriptor(::open(real.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    } catch (const std::system_error&) {
    }
    if (!fd.valid()) {
        throw RecordingError(Case::destinationUnavailable);
    }
    if (!passesStorageTest(fd.get())) {
        throw RecordingError(Case::unsupportedRecordingStorage);
    }
    const std::string probeName = ".tessarin-recording-check-" + Uuid::random().text();
    if (::mkdirat(fd.get(), probeName.c_str(), 0700) != 0) {
        throw RecordingError(Case::destinationCheckFailed);
    }
    bool passed = false;
    {
        const FileDescriptor probe(internal::openDirectoryNoFollowAt(fd.get(), probeName.c_str()));
        if (probe.valid()) {
            const FileDescriptor file(::openat(probe.get(), "check",
                                               O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                               0600));
            passed = file.valid() && ::fchmod(file.get(), 0600) == 0 &&
                     ::fchmod(probe.get(), 0700) == 0 && privacyProblem(probe.get()) == 0;
            if (file.valid()) {
                passed = ::unlinkat(probe.get(), "check", 0) == 0 && passed;
            }
        }
    }
    passed = ::unlinkat(fd.get(), probeName.c_str(), AT_REMOVEDIR) == 0 && passed;
    if (!passed) {
        throw RecordingError(Case::destinationCheckFailed);
    }
}

std::optional<std::string> RecordingNamespace::takeId(std::string_view folderName) {
    if (!folderName.starts_with(kTakePrefix)) {
        return std::nullopt;
    }
    const std::string_view rest = folderName.substr(kTakePrefix.size());
    if (!Uuid::fromText(rest)) {
        return std::nullopt;
    }
    return std::string(rest);
}

bool RecordingNamespace::isUnfinishedTake(const fs::path& folder) {
    if (!takeId(folder.filename().string())) {
        return false;
    }
    try {
        const Lease lease = acquire(folder);
        struct stat st {};
        if (::fstatat(lease.descriptor(), kPublishedMarker, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode) && st.st_uid == ::geteuid() && (st.st_mode & 07777) == 0600) {
            return false;
        }
        return ::fstatat(lease.descriptor(), kManifestName, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
               S_ISREG(st.st_mode);
    } catch (...) {
        return false;
    }
}

nlohmann::json toJson(const RecordingNamespace::DestinationIdentity& identity) {
    nlohmann::json value = nlohmann::json::object();
    if (identity.volumeUUID) {
        value["volumeUUID"] = *identity.volumeUUID;
    }
    if (identity.device) {
        value["device"] = *identity.device;
    }
    value["inode"] = identity.inode;
    if (identity.birthSeconds) {
        value["birthSeconds"] = *identity.birthSeconds;
    }
    if (identity.birthNanoseconds) {
        value["birthNanoseconds"] = *identity.birthNanoseconds;
    }
    return value;
}

std::optional<RecordingNamespace::DestinationIdentity> destinationIdentityFromJson(
    const nlohmann::json& value) {
    if (!value.is_object()) {
        return std::nullopt;
    }
    RecordingNamespace::DestinationIdentity identity;
    const auto inode = value.find("inode");
    if (inode == value.end() || !inode->is_number_unsigned()) {
        return std::nullopt;
    }
    identity.inode = inode->get<uint64_t>();
    const auto signedField = [&value](const char* key, std::optional<int64_t>& field) {
        const auto found = value.find(key);
        if (found == value.end() || found->is_null()) {
            return true;
        }
        if (!found->is_number_integer() ||
            (found->is_number_unsigned() &&
             found->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX))) {
            return false;
        }
        field = found->get<int64_t>();
        return true;
    };
    if (!signedField("device", identity.device) ||
        !signedField("birthSeconds", identity.birthSeconds) ||
        !signedField("birthNanoseconds", identity.birthNanoseconds)) {
        return std::nullopt;
    }
    if (const auto uuid = value.find("volumeUUID"); uuid != value.end() && !uuid->is_null()) {
        if (!uuid->is_string()) {
            return std::nullopt;
        }
        if (const auto parsed = Uuid::fromText(uuid->get<std::string>())) {
            std::string text = parsed->text();
            for (char& c : text) {
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            }
            identity.volumeUUID = std::move(text);
        }
    }
    return identity;
}

}  // namespace tessarin::engine
