// Finalising a take: join, verify, publish between the two markers, then clean up.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>

#include "engine/clips/Uuid.hpp"
#include "engine/log/Log.hpp"
#include "engine/publish/Publish.hpp"
#include "engine/recording/RecordingFiles.hpp"
#include "engine/recording/SegmentJoin.hpp"
#include "engine/recording/internal/Posix.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using internal::posixError;
using internal::sameObject;
using Case = RecordingError::Case;

namespace {

// Each seam of the concat demuxer may add up to one audio frame where the longer stream of a
// segment ran on; a truncated fragment may end on a partial one.
constexpr double kSeamToleranceSeconds = 0.1;

const Logger& log() {
    static const Logger logger("com.tessarin.recording", "take");
    return logger;
}

bool validMarker(int folderFd, const char* name) {
    struct stat st {};
    return ::fstatat(folderFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
           st.st_uid == ::geteuid() && (st.st_mode & 07777) == 0600;
}

void checkCancelled(const RecordingWork& work) {
    if (work.isCancelled && work.isCancelled()) {
        throw posixError(ECANCELED, "finalize");
    }
}

// "take.publishing": an empty regular file of ours with mode 0600, made durable with its folder.
// One left by an earlier attempt that passes the same checks is taken over.
FileDescriptor beginPublishing(int folderFd) {
    FileDescriptor marker(::openat(folderFd, RecordingFiles::kPublishingMarker,
                                   O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!marker.valid()) {
        throw posixError(errno, "take.publishing");
    }
    struct stat st {};
    if (::fstat(marker.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::geteuid() ||
        (st.st_mode & 07777) != 0600 || st.st_size != 0) {
        throw posixError(EACCES, "take.publishing");
    }
    if (::fsync(marker.get()) != 0 || ::fsync(folderFd) != 0) {
        throw posixError(errno, "fsync take.publishing");
    }
    return marker;
}

void finishPublishing(int folderFd, int markerFd) {
    struct stat opened {};
    struct stat named {};
    if (::fstat(markerFd, &opened) != 0 ||
        ::fstatat(folderFd, RecordingFiles::kPublishingMarker, &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        !sameObject(opened, named)) {
        throw posixError(ESTALE, "take.publishing");
    }
    if (const int error = renameExclusive(folderFd, RecordingFiles::kPublishingMarker, folderFd,
                                          RecordingFiles::kPublishedMarker);
        error != 0) {
        throw posixError(error, "take.published");
    }
    if (::fsync(folderFd) != 0) {
        throw posixError(errno, "fsync take folder");
    }
}

// The destination's folder must open, be on storage that keeps ownership, and still be the
// folder whose identity the take stored.
void checkDestinationFolder(const RecordingFiles& files) {
    const fs::path parent = files.destination.parent_path();
    const FileDescriptor fd(internal::openDirectoryNoFollow(parent.c_str()));
    if (!fd.valid()) {
        throw RecordingError(Case::destinationUnavailable);
    }
    if (!RecordingNamespace::passesStorageTest(fd.get())) {
        throw RecordingError(Case::unsupportedRecordingStorage);
    }
    if (files.destinationIdentity &&
        !RecordingNamespace::matches(*files.destinationIdentity, parent)) {
        throw RecordingError(Case::destinationUnavailable);
    }
}

void publishFile(const fs::path& source, const RecordingFiles& files, int folderFd,
                 const RecordingWork& work) {
    const FileDescriptor marker = beginPublishing(folderFd);
    checkDestinationFolder(files);
    const PublishOutcome outcome = publish(source, files.destination, work.isCancelled);
    if (outcome.settled && outcome.code != 0) {
        throw RecordingError::outputExists(files.destination.filename().string());
    }
    if (!outcome.settled) {
        switch (outcome.code) {
            case ECANCELED:
                throw posixError(ECANCELED, "publish");
            case ESTALE:
                throw RecordingError(Case::destinationUnavailable);
            case EOPNOTSUPP:
                throw RecordingError(Case::unsupportedRecordingStorage);
            default:
                throw posixError(outcome.code, "publish");
        }
    }
    finishPublishing(folderFd, marker.get());
}

// Removes what the take left, manifest first: from then on the folder is no take, so a crash
// half-way can't offer a published recording for recovery again. Returns whether the folder
// is gone.
bool removeTakeFolder(const fs::path& directory, int folderFd) {
    ::unlinkat(folderFd, RecordingFiles::kManifestName, 0);
    const int listingFd = ::dup(folderFd);
    if (DIR* listing = listingFd >= 0 ? ::fdopendir(listingFd) : nullptr) {
        ::rewinddir(listing);
        std::vector<std::string> names;
        while (const dirent* entry = ::readdir(listing)) {
            const std::string_view name = entry->d_name;
            if (name.starts_with("segment-") || name.starts_with("joined-") ||
                name.starts_with(".tessarin-")) {
                names.emplace_back(name);
            }
        }
        ::closedir(listing);
        for (const std::string& name : names) {
            ::unlinkat(folderFd, name.c_str(), 0);
        }
    } else if (listingFd >= 0) {
        ::close(listingFd);
    }
    ::unlinkat(folderFd, RecordingFiles::kPublishingMarker, 0);
    ::unlinkat(folderFd, RecordingFiles::kPublishedMarker, 0);
    struct stat opened {};
    struct stat named {};
    if (::fstat(folderFd, &opened) != 0) {
        return false;
    }
    if (::lstat(directory.c_str(), &named) != 0) {
        return errno == ENOENT;
    }
    if (!sameObject(opened, named)) {
        return false;
    }
    return ::rmdir(directory.c_str()) == 0 || errno == ENOENT;
}

// The scans of every segment: one that can't be opened or has no readable video is
// unreadablePart with its number, counted from 1 (the first such number when there are several).
std::vector<SegmentScan> checkedScans(const std::vector<std::optional<SegmentScan>>& scans) {
    std::vector<SegmentScan> result;
    for (std::size_t index = 0; index < scans.size(); ++index) {
        const std::optional<SegmentScan>& scan = scans[index];
        if (!scan || scan->videoStreams == 0 || !scan->videoSeconds) {
            throw RecordingError::unreadablePart(static_cast<int64_t>(index) + 1);
        }
        result.push_back(*scan);
    }
    return result;
}

void discardJoined(int folder, const fs::path& joined, std::size_t segments) {
    ::unlinkat(folder, joined.filename().c_str(), 0);
    log().notice(KeyValues()
                     .add("event", "joinRefused")
                     .add("segments", static_cast<int64_t>(segments))
                     .str());
}

// Joins two or more segments into `joined` and checks the result against the segments: nothing
// joined is kept unless every segment is readable, all have the same audio tracks, and the joined
// video lasts as long as their readable parts together.
void joinChecked(const std::vector<RecordingSegment>& segments, const fs::path& joined,
                 int folder, const RecordingWork& work, std::optional<int64_t> expectedAudio) {
    checkCancelled(work);
    std::vector<SegmentScan> scans;
    std::optional<MediaInfo> info;
    try {
        const JoinOutcome outcome = concatenateSegments(joined.parent_path(), segments, joined, work);
        scans = checkedScans(outcome.scans);
        // The joined file is an ordinary MP4 whose video duration is the sum of its samples.
        if (outcome.joined) {
            info = probeJoined(joined, work);
        }
    } catch (...) {
        ::unlinkat(folder, joined.filename().c_str(), 0);
        throw;
    }
    double expected = 0;
    for (const SegmentScan& scan : scans) {
        if (scan.audioStreams != scans.front().audioStreams ||
            (expectedAudio && scan.audioStreams != *expectedAudio)) {
            discardJoined(folder, joined, segments.size());
            throw RecordingError(Case::incompatibleSegments);
        }
        expected += *scan.videoSeconds;
    }
    const double slack = kSeamToleranceSeconds * static_cast<double>(segments.size());
    if (!info || !info->videoCodec || audioTrackCount(*info) != scans.front().audioStreams ||
        !info->videoDuration || std::abs(*info->videoDuration - expected) > slack) {
        discardJoined(folder, joined, segments.size());
        throw RecordingError(Case::incompatibleSegments);
    }
}

}  // namespace

bool RecordingFiles::removeLeftOver(const fs::path& directory) {
    struct stat st {};
    if (::lstat(directory.c_str(), &st) != 0 && errno == ENOENT) {
        return true;
    }
    try {
        const RecordingNamespace::Lease lease = RecordingNamespace::acquire(directory);
        if (::fstatat(lease.descriptor(), kManifestName, &st, AT_SYMLINK_NOFOLLOW) == 0) {
            return false;
        }
        return removeTakeFolder(directory, lease.descriptor());
    } catch (...) {
        return false;
    }
}

RecordingFiles::Finalized RecordingFiles::finalize(const RecordingWork& work) {
    if (!ownership) {
        ownership = std::make_shared<RecordingNamespace::Lease>(RecordingNamespace::acquire(directory));
    }
    const int folder = ownership->descriptor();
    struct stat opened {};
    struct stat named {};
    if (::fstat(folder, &opened) != 0 || ::lstat(directory.c_str(), &named) != 0 ||
        !sameObject(opened, named)) {
        throw posixError(ESTALE, "take folder");
    }

    Finalized result;
    result.published = destination;
    if (!validMarker(folder, kPublishedMarker)) {
        const std::vector<RecordingSegment> segments = listSegments();
        if (segments.empty()) {
            throw RecordingError(startedSegments == 0 ? Case::noVideo : Case::missingSegments);
        }
        if (static_cast<int64_t>(segments.size()) < startedSegments) {
            throw RecordingError(Case::missingSegments);
        }
        result.parts = static_cast<int64_t>(segments.size());
        const fs::path joined = directory / ("joined-" + Uuid::random().text() + ".mp4");
        if (segments.size() == 1) {
            (void)checkedScans(scanSegments(directory, segments, work));
            // A second name for the segment, so that publishing copies it and the segment itself
            // stays until the take is published.
            if (::linkat(folder, segments.front().path.filename().c_str(), folder,
                         joined.filename().c_str(), 0) != 0) {
                throw posixError(errno, "link segment");
            }
        } else {
            joinChecked(segments, joined, folder, work, expectedAudioTrackCount);
        }
        checkCancelled(work);
        try {
            publishFile(joined, *this, folder, work);
        } catch (...) {
            ::unlinkat(folder, joined.filename().c_str(), 0);
            throw;
        }
        log().notice(KeyValues()
                         .add("event", "published")
                         .add("parts", result.parts)
                         .add("file", privateValue(destination.filename().string()))
                         .str());
    }
    if (!removeTakeFolder(directory, folder)) {
        result.leftOver = directory;
    }
    return result;
}

}  // namespace tessarin::engine
