// Private folders: the checks that a directory cannot be tampered with by other users, the
// work folders made inside such directories, and the scratch folder on a destination volume in
// which unfinished media waits, unreadable by others, until it is published.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "engine/publish/VolumeInfo.hpp"

namespace tessarin::engine {

// The sentences of the scratch failures.
inline constexpr std::string_view kCannotProtectUnfinishedMedia =
    "This destination cannot protect unfinished media. Choose a local Linux-formatted drive "
    "(ext4, btrfs, xfs) with ownership enabled.";
inline constexpr std::string_view kNoProtectedNamespace =
    "The destination has no protected temporary namespace. Choose another local Linux-formatted "
    "drive (ext4, btrfs, xfs).";

// True when both `path` and its real path are directories that only root or the effective user
// can change: owned by one of them (the link too, if `path` is one), without write for group or
// others unless the sticky bit is set, on a local file system that keeps ownership, and with no
// named user, named group or mask ACL entry carrying write (again unless sticky). Any failure to
// find out means false. Blocks on file-system calls; any thread.
[[nodiscard]] bool isProtectedDirectory(const std::filesystem::path& path);

// Creates `path` as a private folder: mode 0700, owned by the effective user, without extended
// ACL entries, verified through a descriptor opened without following links. The parent must be
// protected. Throws std::system_error: EACCES for an unprotected parent or a failed
// verification, otherwise the errno of the step that failed (EEXIST when anything stands at
// `path`). A folder made before a failure is removed again if it is still ours.
void makePrivateFolder(const std::filesystem::path& path);

// Creates the scratch folder ".tessarin-scratch-<uuid>" inside `parent`, sealed like a private
// folder, and returns its path. The caller owns it and removes it. Throws JobFailure: "destination"
// with EOPNOTSUPP when the volume is not local or ignores ownership (`volumeFactsOverride` may
// stand in for the real statistics), "scratch" with EACCES when `parent` is not protected or the
// folder fails verification, "scratch" with the errno when it cannot be made.
[[nodiscard]] std::filesystem::path makeScratch(const std::filesystem::path& parent,
                                                const VolumeOverrides& overrides = {});

// The folder for private work folders: the environment's TMPDIR when it is set, absolute, an
// existing directory, owned by the effective user and protected; otherwise "/tmp".
[[nodiscard]] std::filesystem::path temporaryRoot(
    const std::map<std::string, std::string>& environment);
// The same, for this process's environment.
[[nodiscard]] std::filesystem::path temporaryRoot();

}  // namespace tessarin::engine
