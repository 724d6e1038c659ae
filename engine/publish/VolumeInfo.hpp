// What the engine needs to know about the volume under a path: whether it is local, whether it
// keeps file ownership, whether it is FAT, and how much room it has.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>

namespace tessarin::engine {

struct VolumeFacts {
    // False for network file systems (NFS, SMB/CIFS, 9P, AFS, Ceph, network FUSE mounts).
    bool isLocal = true;
    // True for file systems without POSIX ownership (FAT, exFAT, NTFS, FUSE block mounts).
    bool ignoresOwnership = false;
    // FAT (vfat/msdos): files of 4 GB and more cannot be stored.
    bool isMsdos = false;

    bool operator==(const VolumeFacts&) const = default;
};

// Test seams. The running application leaves them all empty.
struct VolumeOverrides {
    // Replaces the free-space reading of `availableCapacity`.
    std::function<std::optional<int64_t>(const std::filesystem::path&)> availableCapacityOverride;
    // Replaces the local-volume test of `isLocalVolume`.
    std::function<bool(const std::filesystem::path&)> localVolumeOverride;
    // Replaces what the file-system statistics say of a destination folder in `makeScratch` and
    // `publish` (a folder path in, nothing back means "read the real statistics").
    std::function<std::optional<VolumeFacts>(const std::filesystem::path&)> volumeFactsOverride;
};

// The facts of the file system holding the open descriptor, or nothing when `fstatfs` fails.
[[nodiscard]] std::optional<VolumeFacts> volumeFactsOf(int descriptor);
// The same for a path (links followed), or nothing when `statfs` fails.
[[nodiscard]] std::optional<VolumeFacts> volumeFactsAt(const std::filesystem::path& path);

// Free bytes that an unprivileged writer may use on the volume under `path`, or nothing when
// unknown. The override, when set, answers instead.
[[nodiscard]] std::optional<int64_t> availableCapacity(const std::filesystem::path& path,
                                                       const VolumeOverrides& overrides = {});

// True when the volume under `path` is local, and also when its statistics cannot be read: the
// encode then goes to the destination directly and real trouble surfaces as a normal error. The
// override, when set, answers instead.
[[nodiscard]] bool isLocalVolume(const std::filesystem::path& path,
                                 const VolumeOverrides& overrides = {});

// True when the volume under `path` is FAT (the 4 GB file notice).
[[nodiscard]] bool isMsdosVolume(const std::filesystem::path& path);

}  // namespace tessarin::engine
