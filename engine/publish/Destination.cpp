#include "engine/publish/Destination.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>

#include "engine/publish/OutputNames.hpp"
#include "engine/publish/internal/FileSystemLinux.hpp"

namespace tessarin::engine {

namespace {

using internal::UniqueFd;

std::string trimmedDecimal(double value, int decimals) {
    std::string text = fmt::format("{:.{}f}", value, decimals);
    if (text.find('.') != std::string::npos) {
        while (text.back() == '0') {
            text.pop_back();
        }
        if (text.back() == '.') {
            text.pop_back();
        }
    }
    return text;
}

}  // namespace

std::string formatByteCount(int64_t bytes) {
    if (bytes == 0) {
        return "Zero KB";
    }
    if (bytes < 1000 && bytes > -1000) {
        return fmt::format("{} {}", bytes, bytes == 1 ? "byte" : "bytes");
    }
    struct Unit {
        const char* name;
        int decimals;
    };
    static constexpr std::array<Unit, 6> kUnits = {
        {{"KB", 0}, {"MB", 1}, {"GB", 2}, {"TB", 2}, {"PB", 2}, {"EB", 2}}};
    double value = static_cast<double>(bytes) / 1000.0;
    std::size_t unit = 0;
    // Move up a unit when rounding would print 1000 or more of this one.
    const auto rounded = [](double v, int decimals) {
        const double scale = std::pow(10.0, decimals);
        return std::round(std::fabs(v) * scale) / scale;
    };
    while (unit + 1 < kUnits.size() && rounded(value, kUnits[unit].decimals) >= 1000.0) {
        value /= 1000.0;
        ++unit;
    }
    return fmt::format("{} {}", trimmedDecimal(value, kUnits[unit].decimals), kUnits[unit].name);
}

void checkDestination(const std::filesystem::path& folder, bool lowSpace,
                      const VolumeOverrides& overrides) {
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        throw JobFailure::sentence("preflight",
                                   "Destination folder does not exist: " + folder.string());
    }
    if (::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        throw JobFailure::sentence("preflight",
                                   "Destination folder is not writable: " + folder.string());
    }
    if (lowSpace) {
        const std::optional<int64_t> capacity = availableCapacity(folder, overrides);
        if (capacity && *capacity < kCriticallyLowFreeBytes) {
            throw JobFailure::sentence(
                "preflight",
                "Destination volume is critically low on free space (< 50 MB available): " +
                    folder.string());
        }
    }
}

std::filesystem::path copyToDestination(
    const std::filesystem::path& encoded, const std::filesystem::path& outputFolder,
    std::string_view finalName, const std::function<bool()>& isCancelled,
    const std::function<void(JobPhase)>& onPhase,
    const std::function<void(std::optional<double>)>& onProgress, double top,
    const VolumeOverrides& overrides) {
    struct stat encodedStat {};
    const std::optional<int64_t> size = ::stat(encoded.c_str(), &encodedStat) == 0
                                            ? std::optional<int64_t>(encodedStat.st_size)
                                            : std::nullopt;
    const std::optional<int64_t> free = availableCapacity(outputFolder, overrides);
    if (size && *size > 0 && free && *free > 0 && *free < *size) {
        throw JobFailure::sentence(
            "destination",
            fmt::format("The destination doesn't have room for this file: it needs {} but only "
                        "{} is available.",
                        formatByteCount(*size), formatByteCount(*free)));
    }
    if (onPhase) {
        onPhase(JobPhase::copyingToDestination);
    }

    const std::filesystem::path temporary = outputFolder / newConvertingName(finalName);
    UniqueFd input(::open(encoded.c_str(), O_RDONLY | O_CLOEXEC));
    if (!input.valid()) {
        throw JobFailure::sentence("copy", "could not open the encoded file");
    }
    UniqueFd output(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!output.valid()) {
        throw JobFailure::sentence("copy", "could not create the destination temp");
    }
    const auto failAndRemove = [&](JobFailure failure) -> JobFailure {
        output.reset();
        ::unlink(temporary.c_str());
        if (internal::folderHasGone(outputFolder)) {
            return JobFailure::sentence("destination", std::string(kDestinationGone));
        }
        return failure;
    };

    if (!size && onProgress) {
        onProgress(std::nullopt);
    }
    const auto progress = [&](uint64_t total) {
        if (size && *size > 0 && onProgress) {
            onProgress(top + (1.0 - top) * static_cast<double>(total) / static_cast<double>(*size));
        }
    };
    const internal::CopyResult copied =
        internal::copyFileData(input.get(), output.get(), kCopyChunkBytes, isCancelled, progress);
    switch (copied.failure) {
        case internal::CopyFailure::none:
            break;
        case internal::CopyFailure::read:
            throw failAndRemove(JobFailure::sentence("copy", "read of the encoded file failed"));
        case internal::CopyFailure::write:
            throw failAndRemove(JobFailure::sentence("copy", "write to the destination failed"));
        case internal::CopyFailure::cancelled:
            throw failAndRemove(JobFailure::cancelled("copy"));
    }
    if (::fsync(output.get()) != 0) {
        throw failAndRemove(JobFailure::sentence("copy", "flushing the destination copy failed"));
    }
    if (size && static_cast<uint64_t>(*size) != copied.copied) {
        throw failAndRemove(JobFailure::sentence("copy", "the destination copy is incomplete"));
    }
    return temporary;
}

}  // namespace tessarin::engine
