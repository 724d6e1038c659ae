#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <array>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

#include "engine/publish/VolumeInfo.hpp"

namespace tessarin::engine {

namespace {

// Not every magic is in linux/magic.h on every kernel-header version.
constexpr uint64_t kCifsMagic = 0xFF534D42;
constexpr uint64_t kSmb2Magic = 0xFE534D42;
constexpr uint64_t kSmbMagic = 0x517B;
constexpr uint64_t kNfsMagic = 0x6969;
constexpr uint64_t kV9fsMagic = 0x01021997;
constexpr uint64_t kAfsMagic = 0x5346414F;
constexpr uint64_t kKafsMagic = 0x6B414653;
constexpr uint64_t kCephMagic = 0x00C36400;
constexpr uint64_t kCodaMagic = 0x73757245;
constexpr uint64_t kNcpMagic = 0x564C;
constexpr uint64_t kLustreMagic = 0x0BD00BD0;
constexpr uint64_t kFuseMagic = 0x65735546;
constexpr uint64_t kMsdosMagic = 0x4d44;
constexpr uint64_t kExfatMagic = 0x2011BAB0;
constexpr uint64_t kNtfsMagic = 0x5346544e;

constexpr std::array<uint64_t, 11> kNetworkMagics = {
    kCifsMagic, kSmb2Magic, kSmbMagic,  kNfsMagic, kV9fsMagic,  kAfsMagic,
    kKafsMagic, kCephMagic, kCodaMagic, kNcpMagic, kLustreMagic};

// FUSE file systems that talk to another machine.
constexpr std::array<std::string_view, 10> kNetworkFuseTypes = {
    "fuse.sshfs",    "fuse.gvfsd-fuse", "fuse.rclone", "fuse.s3fs",   "fuse.curlftpfs",
    "fuse.smbnetfs", "fuse.gcsfuse",    "fuse.goofys", "fuse.davfs2", "fuse.glusterfs"};

// The mount type of the FUSE mount with this device number, from /proc/self/mountinfo.
std::string fuseMountType(dev_t device) {
    std::ifstream mountinfo("/proc/self/mountinfo");
    const std::string wanted = std::to_string(major(device)) + ":" + std::to_string(minor(device));
    std::string line;
    while (std::getline(mountinfo, line)) {
        // "id parent maj:min root mountpoint options [optional...] - fstype source superoptions"
        std::size_t fieldStart = 0;
        for (int field = 0; field < 2 && fieldStart != std::string::npos; ++field) {
            fieldStart = line.find(' ', fieldStart);
            if (fieldStart != std::string::npos) {
                ++fieldStart;
            }
        }
        if (fieldStart == std::string::npos) {
            continue;
        }
        const std::size_t fieldEnd = line.find(' ', fieldStart);
        if (line.compare(fieldStart, fieldEnd - fieldStart, wanted) != 0) {
            continue;
        }
        const std::size_t separator = line.find(" - ");
        if (separator == std::string::npos) {
            continue;
        }
        const std::size_t typeStart = separator + 3;
        return line.substr(typeStart, line.find(' ', typeStart) - typeStart);
    }
    return {};
}

VolumeFacts classify(uint64_t type, std::optional<dev_t> device) {
    VolumeFacts facts;
    for (uint64_t magic : kNetworkMagics) {
        if (type == magic) {
            facts.isLocal = false;
        }
    }
    if (type == kMsdosMagic) {
        facts.isMsdos = true;
        facts.ignoresOwnership = true;
    }
    if (type == kExfatMagic || type == kNtfsMagic) {
        facts.ignoresOwnership = true;
    }
    if (type == kFuseMagic && device) {
        const std::string mountType = fuseMountType(*device);
        if (mountType == "fuseblk") {
            facts.ignoresOwnership = true;  // ntfs-3g, exfat-fuse: one fixed owner for all files
        }
        for (std::string_view network : kNetworkFuseTypes) {
            if (mountType == network) {
                facts.isLocal = false;
            }
        }
    }
    return facts;
}

}  // namespace

std::optional<VolumeFacts> volumeFactsOf(int descriptor) {
    struct statfs fsStat {};
    if (::fstatfs(descriptor, &fsStat) != 0) {
        return std::nullopt;
    }
    struct stat st {};
    const std::optional<dev_t> device =
        ::fstat(descriptor, &st) == 0 ? std::optional(st.st_dev) : std::nullopt;
    return classify(static_cast<uint64_t>(fsStat.f_type), device);
}

std::optional<VolumeFacts> volumeFactsAt(const std::filesystem::path& path) {
    struct statfs fsStat {};
    if (::statfs(path.c_str(), &fsStat) != 0) {
        return std::nullopt;
    }
    struct stat st {};
    const std::optional<dev_t> device =
        ::stat(path.c_str(), &st) == 0 ? std::optional(st.st_dev) : std::nullopt;
    return classify(static_cast<uint64_t>(fsStat.f_type), device);
}

std::optional<int64_t> availableCapacity(const std::filesystem::path& path,
                                         const VolumeOverrides& overrides) {
    if (overrides.availableCapacityOverride) {
        return overrides.availableCapacityOverride(path);
    }
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0) {
        return std::nullopt;
    }
    const uint64_t blocks = vfs.f_bavail;
    const uint64_t blockSize = vfs.f_frsize == 0 ? vfs.f_bsize : vfs.f_frsize;
    if (blockSize != 0 && blocks > static_cast<uint64_t>(INT64_MAX) / blockSize) {
        return INT64_MAX;
    }
    return static_cast<int64_t>(blocks * blockSize);
}

bool isLocalVolume(const std::filesystem::path& path, const VolumeOverrides& overrides) {
    if (overrides.localVolumeOverride) {
        return overrides.localVolumeOverride(path);
    }
    const std::optional<VolumeFacts> facts = volumeFactsAt(path);
    return !facts || facts->isLocal;
}

bool isMsdosVolume(const std::filesystem::path& path) {
    const std::optional<VolumeFacts> facts = volumeFactsAt(path);
    return facts && facts->isMsdos;
}

}  // namespace tessarin::engine
