#include "engine/recording/RecordingFiles.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "engine/clips/Uuid.hpp"
#include "engine/recording/FreedesktopTrash.hpp"
#include "engine/recording/internal/Posix.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using internal::posixError;
using internal::sameObject;
using Case = RecordingError::Case;

namespace {

constexpr std::string_view kSegmentPrefix = "segment-";
constexpr std::string_view kSegmentSuffix = ".mp4";

std::optional<int64_t> segmentNumber(std::string_view name) {
    if (!name.starts_with(kSegmentPrefix) || !name.ends_with(kSegmentSuffix) ||
        name.size() <= kSegmentPrefix.size() + kSegmentSuffix.size()) {
        return std::nullopt;
    }
    const std::string_view digits = name.substr(
        kSegmentPrefix.size(), name.size() - kSegmentPrefix.size() - kSegmentSuffix.size());
    if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    int64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size() ||
        segmentName(number) != name) {
        return std::nullopt;
    }
    return number;
}

// The folder's descriptor: the lease's when held, otherwise a fresh one opened without links.
FileDescriptor openTakeFolder(const fs::path& directory) {
    FileDescriptor fd(internal::openDirectoryNoFollow(directory.c_str()));
    if (!fd.valid()) {
        throw posixError(errno, "open take folder");
    }
    return fd;
}

std::string readManifestText(int folderFd) {
    const FileDescriptor file(::openat(folderFd, RecordingFiles::kManifestName,
                                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!file.valid() || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        st.st_size > static_cast<off_t>(TakeManifest::kMaximumBytes)) {
        throw TakeFolderInvalid("take.json is missing, not a regular file, or too large");
    }
    std::string text(TakeManifest::kMaximumBytes + 1, '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t got = ::read(file.get(), text.data() + filled, text.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw TakeFolderInvalid("take.json could not be read");
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    if (filled > TakeManifest::kMaximumBytes) {
        throw TakeFolderInvalid("take.json grew past its limit");
    }
    text.resize(filled);
    return text;
}

}  // namespace

std::string segmentName(int64_t number) {
    return fmt::format("segment-{:05d}.mp4", number);
}

TakeManifest RecordingFiles::manifest() const {
    TakeManifest manifest;
    manifest.version = isPrivate ? 2 : 1;
    manifest.filename = destination.filename().string();
    manifest.destinationPath = destination.string();
    manifest.destinationIdentity = destinationIdentity;
    if (legacyDirectory) {
        manifest.legacyDirectory = legacyDirectory->string();
    }
    manifest.framesPerSecond = framesPerSecond;
    manifest.startedSegments = startedSegments;
    manifest.expectedAudioTrackCount = expectedAudioTrackCount;
    return manifest;
}

void RecordingFiles::saveManifest() const {
    const std::string text = encodeTakeManifest(manifest());
    const FileDescriptor folder = openTakeFolder(directory);
    const std::string temporary = ".tessarin-take-" + Uuid::random().text() + ".json";
    {
        const FileDescriptor file(::openat(folder.get(), temporary.c_str(),
                                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                           0600));
        if (!file.valid()) {
            throw posixError(errno, "write take.json");
        }
        std::size_t written = 0;
        while (written < text.size()) {
            const ssize_t put = ::write(file.get(), text.data() + written, text.size() - written);
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put < 0) {
                const int error = errno;
                ::unlinkat(folder.get(), temporary.c_str(), 0);
                throw posixError(error, "write take.json");
            }
            written += static_cast<std::size_t>(put);
        }
        if (::fsync(file.get()) != 0) {
            const int error = errno;
            ::unlinkat(folder.get(), temporary.c_str(), 0);
            throw posixError(error, "fsync take.json");
        }
    }
    if (::renameat(folder.get(), temporary.c_str(), folder.get(), kManifestName) != 0) {
        const int error = errno;
        ::unlinkat(folder.get(), temporary.c_str(), 0);
        throw posixError(error, "rename take.json");
    }
    if (const int error = internal::syncDescriptor(folder.get()); error != 0) {
        throw posixError(error, "fsync take folder");
    }
}

RecordingFiles RecordingFiles::create(const fs::path& root, const fs::path& destinationFolder,
                                      const std::string& filename, int64_t framesPerSecond,
                                      std::optional<int64_t> expectedAudioTrackCount) {
    if (!isAllowedTakeFilename(filename)) {
        throw std::invalid_argument("a take's file name must be a plain .mp4 name");
    }
    RecordingNamespace::checkDestination(destinationFolder);
    const fs::path realDestination = RecordingNamespace::resolve(destinationFolder);
    RecordingNamespace::validateRoot(root);
    { [[maybe_unused]] const FileDescriptor rootFd = RecordingNamespace::openPrivate(root, true); }
    RecordingFiles files;
    files.directory = RecordingNamespace::createTakeFolder(root);
    files.destination = realDestination / filename;
    files.framesPerSecond = framesPerSecond;
    files.expectedAudioTrackCount = expectedAudioTrackCount;
    files.isPrivate = true;
    files.destinationIdentity = RecordingNamespace::destinationIdentity(realDestination);
    files.ownership =
        std::make_shared<RecordingNamespace::Lease>(RecordingNamespace::acquire(files.directory));
    files.saveManifest();
    return files;
}

RecordingFiles RecordingFiles::load(const fs::path& directory,
                                    const std::optional<fs::path>& fallbackDestinationFolder) {
    const FileDescriptor folder(internal::openDirectoryNoFollow(directory.c_str()));
    if (!folder.valid()) {
        throw TakeFolderInvalid(errno == ELOOP || errno == ENOTDIR
                                    ? "the take folder is a link or not a folder"
                                    : "the take folder can't be opened");
    }
    if (RecordingNamespace::privacyProblem(folder.get()) != 0) {
        throw TakeFolderInvalid("the take folder is not private");
    }
    TakeManifest manifest;
    try {
        manifest = decodeTakeManifest(readManifestText(folder.get()));
    } catch (const TakeManifestInvalid& error) {
        throw TakeFolderInvalid(error.what());
    }
    RecordingFiles files;
    files.directory = directory;
    files.isPrivate = manifest.version == 2;
    if (manifest.destinationPath) {
        files.destination = *manifest.destinationPath;
    } else if (fallbackDestinationFolder) {
        files.destination = *fallbackDestinationFolder / manifest.filename;
    } else {
        throw TakeFolderInvalid("the take names no destination");
    }
    if (manifest.legacyDirectory) {
        files.legacyDirectory = *manifest.legacyDirectory;
    }
    files.framesPerSecond = manifest.framesPerSecond;
    files.startedSegments = manifest.startedSegments;
    files.expectedAudioTrackCount = manifest.expectedAudioTrackCount;
    files.destinationIdentity = manifest.destinationIdentity;
    return files;
}

fs::path RecordingFiles::nextSegmentURL() {
    const int64_t number = startedSegments;
    ++startedSegments;
    try {
        saveManifest();
    } catch (...) {
        --startedSegments;
        throw;
    }
    return directory / segmentName(number);
}

std::vector<RecordingSegment> RecordingFiles::listSegments() const {
    const FileDescriptor folder = openTakeFolder(directory);
    const int listingFd = ::dup(folder.get());
    DIR* listing = listingFd >= 0 ? ::fdopendir(listingFd) : nullptr;
    if (listing == nullptr) {
        if (listingFd >= 0) {
            ::close(listingFd);
        }
        throw posixError(errno, "list take folder");
    }
    std::vector<RecordingSegment> segments;
    std::vector<int64_t> unusable;
    while (const dirent* entry = ::readdir(listing)) {
        const std::optional<int64_t> number = segmentNumber(entry->d_name);
        if (!number) {
            continue;
        }
        struct stat st {};
        if (::fstatat(folder.get(), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(st.st_mode)) {
            unusable.push_back(*number);
        }
        segments.push_back({*number, directory / entry->d_name});
    }
    ::closedir(listing);
    std::sort(segments.begin(), segments.end(),
              [](const RecordingSegment& a, const RecordingSegment& b) { return a.number < b.number; });
    for (std::size_t index = 0; index < segments.size(); ++index) {
        if (std::find(unusable.begin(), unusable.end(), segments[index].number) != unusable.end()) {
            throw RecordingError::unreadablePart(static_cast<int64_t>(index) + 1);
        }
    }
    return segments;
}

void RecordingFiles::trash() {
    if (!ownership) {
        ownership = std::make_shared<RecordingNamespace::Lease>(RecordingNamespace::acquire(directory));
    }
    const int folder = ownership->descriptor();
    struct stat opened {};
    struct stat named {};
    if (::fstat(folder, &opened) != 0 || ::lstat(directory.c_str(), &named) != 0 ||
        !sameObject(opened, named)) {
        throw RecordingError(Case::unsafeRecoveryDiscard);
    }
    const int listingFd = ::dup(folder);
    DIR* listing = listingFd >= 0 ? ::fdopendir(listingFd) : nullptr;
    if (listing == nullptr) {
        if (listingFd >= 0) {
            ::close(listingFd);
        }
        throw RecordingError(Case::unsafeRecoveryDiscard);
    }
    ::rewinddir(listing);
    bool safe = true;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        struct stat st {};
        if (::fstatat(folder, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) {
            safe = false;
            break;
        }
    }
    ::closedir(listing);
    if (!safe) {
        throw RecordingError(Case::unsafeRecoveryDiscard);
    }
    try {
        (void)moveToTrash(directory);
    } catch (const std::system_error&) {  // filesystem_error too
        throw RecordingError(Case::unsafeRecoveryDiscard);
    }
}

}  // namespace tessarin::engine
