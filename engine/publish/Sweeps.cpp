#include "engine/publish/Sweeps.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "engine/publish/OutputNames.hpp"

namespace tessarin::engine {

namespace {

struct DirectoryCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirectoryHandle = std::unique_ptr<DIR, DirectoryCloser>;

int64_t nowSeconds() {
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec);
}

std::vector<std::string> entryNames(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    DirectoryHandle dir(::opendir(folder.c_str()));
    if (!dir) {
        return names;
    }
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    return names;
}

// The newest modification time of the folder and its direct entries, or nothing on any failure.
std::optional<int64_t> newestModification(const std::filesystem::path& folder) {
    struct stat st {};
    if (::lstat(folder.c_str(), &st) != 0) {
        return std::nullopt;
    }
    int64_t newest = st.st_mtim.tv_sec;
    for (const std::string& name : entryNames(folder)) {
        struct stat child {};
        if (::lstat((folder / name).c_str(), &child) == 0) {
            newest = std::max<int64_t>(newest, child.st_mtim.tv_sec);
        }
    }
    return newest;
}

bool isOurDirectory(const std::filesystem::path& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::geteuid();
}

void removeFolderIfStale(const std::filesystem::path& folder, int64_t limitSeconds, int64_t now) {
    if (!isOurDirectory(folder)) {
        return;
    }
    const std::optional<int64_t> newest = newestModification(folder);
    if (newest && now - *newest >= limitSeconds) {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
}

}  // namespace

void sweepTemporaryDirectory(const std::filesystem::path& temporaryDirectory) noexcept {
    try {
        const int64_t now = nowSeconds();
        for (const std::string& name : entryNames(temporaryDirectory)) {
            if (isWorkFolderName(name)) {
                removeFolderIfStale(temporaryDirectory / name, kStaleWorkFolderSeconds, now);
            }
        }
    } catch (...) {
        // A sweep is housekeeping; a job never fails for it.
    }
}

void sweepOutputFolder(const std::filesystem::path& outputFolder) noexcept {
    try {
        const int64_t now = nowSeconds();
        for (const std::string& name : entryNames(outputFolder)) {
            const std::filesystem::path path = outputFolder / name;
            if (isConvertingName(name)) {
                struct stat st {};
                if (::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
                    st.st_uid == ::geteuid() &&
                    now - st.st_mtim.tv_sec >= kStaleTemporaryFileSeconds) {
                    ::unlink(path.c_str());
                }
            } else if (isWorkFolderName(name)) {
                removeFolderIfStale(path, kStaleTemporaryFileSeconds, now);
            } else if (isScratchName(name)) {
                removeFolderIfStale(path, kStaleWorkFolderSeconds, now);
            }
        }
    } catch (...) {
        // A sweep is housekeeping; a job never fails for it.
    }
}

}  // namespace tessarin::engine
