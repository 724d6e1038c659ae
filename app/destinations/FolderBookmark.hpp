// A remembered folder, kept as opaque data: JSON of the folder's path, its device, its inode, its
// birth time (where the file system records one) and whether it was the root of a mounted file
// system. The data is what the settings store keeps under "outputFolderBookmark"; nobody else
// looks inside it.
//
//   std::string data = FolderBookmark::make("/media/me/Drive/Exports").data();
//   ...
//   if (std::optional<ResolvedBookmark> found = FolderBookmark::resolve(data)) {
//       if (found->stale) { /* make a new bookmark of found->path and store it */ }
//   }
//
// Looking a folder up never mounts anything: the path is walked one component at a time, and a
// component that is an automount trigger not yet mounted ends the walk as "not available". Cached
// attributes are accepted from network file systems rather than asking the server. A mount that
// has died under an already-mounted point can still make the kernel wait; that is beyond what a
// lookup from user space can prevent, so callers run lookups off the main thread where they can.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tessarin::app {

// What a bookmark resolved to: the folder now at its path, and whether the bookmark should be made
// again (the path now names another folder than the one bookmarked, or leads there another way).
struct ResolvedBookmark {
    std::filesystem::path path;
    bool stale = false;

    bool operator==(const ResolvedBookmark&) const = default;
};

struct BirthTime {
    int64_t seconds = 0;
    uint32_t nanoseconds = 0;

    bool operator==(const BirthTime&) const = default;
};

class FolderBookmark {
public:
    // Thrown by make() when no bookmark can be made of a path.
    class MakeError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    // A bookmark of the folder at `folder`, an absolute path; symbolic links on the way are
    // followed and the bookmark keeps the path they lead to. Throws MakeError when the path is
    // relative, missing, not a folder, behind an automount trigger, or can't be examined.
    // Blocking (file-system lookups).
    [[nodiscard]] static FolderBookmark make(const std::filesystem::path& folder);

    // The bookmark held by `data`; nothing when the data is not a bookmark this version reads.
    [[nodiscard]] static std::optional<FolderBookmark> fromData(std::string_view data);

    // What `data` resolves to; nothing when it can't be resolved: the data is unreadable, the
    // path is gone or is not a folder, the way there crosses a mount trigger, or the bookmarked
    // folder was the root of a file system that is no longer mounted there. Never throws.
    // Blocking (file-system lookups).
    [[nodiscard]] static std::optional<ResolvedBookmark> resolve(std::string_view data);

    // The compact JSON text to store. Never throws for a bookmark from make() or fromData().
    [[nodiscard]] std::string data() const;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] uint64_t device() const { return device_; }
    [[nodiscard]] uint64_t inode() const { return inode_; }
    [[nodiscard]] const std::optional<BirthTime>& birthTime() const { return birthTime_; }
    [[nodiscard]] bool mountRoot() const { return mountRoot_; }

    bool operator==(const FolderBookmark&) const = default;

private:
    FolderBookmark() = default;

    std::filesystem::path path_;
    uint64_t device_ = 0;
    uint64_t inode_ = 0;
    std::optional<BirthTime> birthTime_;
    bool mountRoot_ = false;
};

}  // namespace tessarin::app
