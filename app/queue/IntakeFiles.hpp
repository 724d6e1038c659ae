// What intake knows of a file before it is queued: which files are videos, the identity that
// finds duplicates, and the walk of dropped folders.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tessarin::app {

// The two hard limits of one intake: entries given or walked, and video files taken.
inline constexpr std::size_t kIntakeEntryLimit = 30'000;
inline constexpr std::size_t kIntakeVideoLimit = 1'000;

struct MediaFileIdentity {
    uint32_t device = 0;
    uint64_t inode = 0;
    auto operator<=>(const MediaFileIdentity&) const = default;
};

// `raw` is the path itself as lstat sees it, `target` the file behind a symbolic link. Two
// paths that reach one file, by a link or as hard links, are one identity.
struct IntakeFileID {
    MediaFileIdentity raw;
    std::optional<MediaFileIdentity> target;

    // The file itself: the target when there is one.
    [[nodiscard]] MediaFileIdentity file() const { return target.value_or(raw); }
    friend bool operator==(const IntakeFileID& a, const IntakeFileID& b) {
        return a.file() == b.file();
    }
};

// A path as intake examined it: lstat and, through a link, stat.
struct ExaminedPath {
    enum class Kind { videoFile, folder, other };
    Kind kind = Kind::other;
    IntakeFileID id;
};

// Whether a file name has a video type: by its extension, lower-cased, from the list of movie
// and video types (mp4, mov, m4v, mkv, webm, avi, ts, m2ts, mts, mpg, flv, wmv, 3gp, ...).
[[nodiscard]] bool hasVideoType(const std::filesystem::path& path);

// Examines one path; nothing when it can't be examined. A symbolic link counts as what it
// points to. Blocks on the file system.
[[nodiscard]] std::optional<ExaminedPath> examinePath(const std::filesystem::path& path);

// A flag that asks a walk to stop; safe from any thread.
class CancellationFlag {
public:
    void cancel() { cancelled_.store(true, std::memory_order_relaxed); }
    [[nodiscard]] bool isCancelled() const { return cancelled_.load(std::memory_order_relaxed); }

private:
    std::atomic<bool> cancelled_{false};
};

enum class FolderIntakeFailure { videoLimit, entryLimit, cancelled };

// A video found in a folder, with its identity.
struct FoundVideo {
    std::filesystem::path path;
    IntakeFileID id;
};

using FolderWalkResult = std::variant<std::vector<FoundVideo>, FolderIntakeFailure>;

// The default walk: each folder in order, hidden entries skipped, symbolic links to folders not
// followed (so a loop can't hang it), every entry counted against `entryLimit`, more than
// `videoLimit` videos a failure, each folder's videos in ascending path order. Checks `cancel`
// at every entry. Blocks on the file system; any thread.
[[nodiscard]] FolderWalkResult walkFolders(const std::vector<std::filesystem::path>& folders,
                                           std::size_t entryLimit, std::size_t videoLimit,
                                           const CancellationFlag& cancel);

}  // namespace tessarin::app
