#include "engine/recording/RecordingRecovery.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>

#include "engine/log/Log.hpp"
#include "engine/recording/SegmentJoin.hpp"
#include "engine/recording/internal/Posix.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

const Logger& log() {
    static const Logger logger("com.tessarin.recording", "recovery");
    return logger;
}

std::optional<int64_t> birthSeconds(const fs::path& folder) {
    struct statx sx {};
    if (::statx(AT_FDCWD, folder.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &sx) !=
        0) {
        return std::nullopt;
    }
    return (sx.stx_mask & STATX_BTIME) != 0 ? sx.stx_btime.tv_sec : sx.stx_mtime.tv_sec;
}

std::vector<std::string> childNames(const fs::path& root) {
    std::vector<std::string> names;
    const FileDescriptor fd(internal::openDirectoryNoFollow(root.c_str()));
    if (!fd.valid() || RecordingNamespace::privacyProblem(fd.get()) != 0) {
        if (fd.valid()) {
            log().notice(KeyValues().add("event", "rootRefused").str());
        }
        return names;
    }
    const int listingFd = ::dup(fd.get());
    DIR* listing = listingFd >= 0 ? ::fdopendir(listingFd) : nullptr;
    if (listing == nullptr) {
        if (listingFd >= 0) {
            ::close(listingFd);
        }
        return names;
    }
    while (const dirent* entry = ::readdir(listing)) {
        if (RecordingNamespace::takeId(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(listing);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

std::vector<UnfinishedTake> findUnfinishedTakes(const fs::path& root,
                                                const std::optional<fs::path>& fallbackDestination,
                                                const RecordingWork* work) {
    std::vector<UnfinishedTake> takes;
    for (const std::string& name : childNames(root)) {
        const fs::path folder = root / name;
        if (!RecordingNamespace::isUnfinishedTake(folder)) {
            log().info(KeyValues().add("event", "skipped").add("reason", "notUnfinished").str());
            continue;
        }
        UnfinishedTake take;
        try {
            // Held while the segments are scanned, since the scan leaves work files in the folder.
            const RecordingNamespace::Lease lease = RecordingNamespace::acquire(folder);
            const RecordingFiles files = RecordingFiles::load(folder, fallbackDestination);
            take.id = *RecordingNamespace::takeId(name);
            take.directory = folder;
            take.destination = files.destination;
            take.startedSeconds = birthSeconds(folder);
            const std::vector<RecordingSegment> segments = files.listSegments();
            take.segments = static_cast<int64_t>(segments.size());
            if (work != nullptr) {
                double total = 0;
                for (const std::optional<SegmentScan>& scan : scanSegments(folder, segments, *work)) {
                    total += scan ? scan->videoSeconds.value_or(0) : 0;
                }
                take.recoverableSeconds = total;
            }
        } catch (const TakeFolderInvalid&) {
            log().notice(KeyValues().add("event", "skipped").add("reason", "invalidManifest").str());
            continue;
        } catch (const RecordingError& error) {
            // A take whose parts can't all be read is still offered, and recovery says what
            // failed; one that has just been taken up by a recorder is not.
            if (error.kind != RecordingError::Case::unreadablePart) {
                continue;
            }
        } catch (const std::system_error& error) {
            if (error.code().value() == ECANCELED) {
                throw;
            }
            continue;
        }
        takes.push_back(std::move(take));
    }
    std::stable_sort(takes.begin(), takes.end(), [](const UnfinishedTake& a, const UnfinishedTake& b) {
        return a.startedSeconds.value_or(0) < b.startedSeconds.value_or(0);
    });
    return takes;
}

std::optional<fs::path> takeFolder(const fs::path& root, const std::string& take) {
    const std::string name =
        RecordingNamespace::takeId(take) ? take : std::string(RecordingNamespace::kTakePrefix) + take;
    if (!RecordingNamespace::takeId(name)) {
        return std::nullopt;
    }
    return root / name;
}

RecoveredTake recoverTake(const fs::path& directory, const std::optional<fs::path>& fallbackDestination,
                          const RecordingWork& work) {
    auto lease = std::make_shared<RecordingNamespace::Lease>(RecordingNamespace::acquire(directory));
    RecordingFiles files = RecordingFiles::load(directory, fallbackDestination);
    files.ownership = std::move(lease);
    const RecordingFiles::Finalized done = files.finalize(work);
    return {done.published, done.parts, done.leftOver, recoverySummary(done.parts)};
}

void discardTake(const fs::path& directory) {
    auto lease = std::make_shared<RecordingNamespace::Lease>(RecordingNamespace::acquire(directory));
    RecordingFiles files = RecordingFiles::load(directory, fs::path("/"));
    files.ownership = std::move(lease);
    files.trash();
}

std::string recoverySummary(int64_t parts) {
    if (parts > 1) {
        return fmt::format("Recovered recording from {} saved parts.", parts);
    }
    return "Recovered unfinished recording.";
}

}  // namespace tessarin::engine
