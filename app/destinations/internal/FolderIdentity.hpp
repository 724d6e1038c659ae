// The platform's side of folder bookmarks: where a path leads and what it finds there.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "app/destinations/FolderBookmark.hpp"

namespace tessarin::app::destinations_internal {

struct FolderIdentity {
    std::filesystem::path path;  // the path walked, with symbolic links replaced by their targets
    uint64_t device = 0;
    uint64_t inode = 0;
    std::optional<BirthTime> birthTime;
    bool mountRoot = false;
};

// Either the identity of the folder at `path` or the errno that ended the lookup: ENOENT for a
// missing component, ENOTDIR when something on the way is not a folder, EREMOTE for an automount
// trigger that isn't mounted (it is never mounted here), EINVAL for a relative path, ELOOP for
// too many links. Never throws but std::bad_alloc.
struct FolderLookup {
    std::optional<FolderIdentity> identity;
    int error = 0;
};

[[nodiscard]] FolderLookup lookUpFolder(const std::filesystem::path& path);

}  // namespace tessarin::app::destinations_internal
