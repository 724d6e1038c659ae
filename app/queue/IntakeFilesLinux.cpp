#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <system_error>

#include "app/queue/IntakeFiles.hpp"

namespace tessarin::app {

namespace {

// Movie and video types by extension, as a desktop's MIME database classes them video/*.
constexpr std::array<std::string_view, 28> kVideoExtensions{
    "3g2",  "3gp", "asf", "avi",   "divx", "dv",  "f4v",  "flv", "h264", "m2t",
    "m2ts", "m2v", "m4v", "mjpeg", "mkv",  "mov", "mp4",  "mpe", "mpeg", "mpg",
    "mts",  "mxf", "ogv", "qt",    "rm",   "ts",  "webm", "wmv"};

MediaFileIdentity identityOf(const struct stat& status) {
    return {static_cast<uint32_t>(status.st_dev), static_cast<uint64_t>(status.st_ino)};
}

bool isHidden(const std::filesystem::path& path) {
    const std::string name = path.filename().string();
    return !name.empty() && name.front() == '.';
}

}  // namespace

bool hasVideoType(const std::filesystem::path& path) {
    std::string extension = path.extension().string();
    if (extension.size() < 2) {
        return false;
    }
    extension.erase(0, 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::find(kVideoExtensions.begin(), kVideoExtensions.end(), extension) !=
           kVideoExtensions.end();
}

std::optional<ExaminedPath> examinePath(const std::filesystem::path& path) {
    struct stat raw {};
    if (::lstat(path.c_str(), &raw) != 0) {
        return std::nullopt;
    }
    ExaminedPath examined;
    examined.id.raw = identityOf(raw);
    struct stat target = raw;
    if (S_ISLNK(raw.st_mode)) {
        if (::stat(path.c_str(), &target) != 0) {
            return std::nullopt;
        }
    }
    examined.id.target = identityOf(target);
    if (S_ISDIR(target.st_mode)) {
        examined.kind = ExaminedPath::Kind::folder;
    } else if (S_ISREG(target.st_mode) && hasVideoType(path)) {
        examined.kind = ExaminedPath::Kind::videoFile;
    }
    return examined;
}

FolderWalkResult walkFolders(const std::vector<std::filesystem::path>& folders,
                             std::size_t entryLimit, std::size_t videoLimit,
                             const CancellationFlag& cancel) {
    namespace fs = std::filesystem;
    std::vector<FoundVideo> found;
    std::size_t entries = 0;
    for (const fs::path& folder : folders) {
        std::vector<FoundVideo> inFolder;
        std::error_code error;
        fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied,
                                            error);
        for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
            if (cancel.isCancelled()) {
                return FolderIntakeFailure::cancelled;
            }
            const fs::directory_entry& entry = *it;
            if (isHidden(entry.path())) {
                it.disable_recursion_pending();
                continue;
            }
            if (++entries > entryLimit) {
                return FolderIntakeFailure::entryLimit;
            }
            // The iterator itself never descends through a link to a folder; a link to a video
            // file is taken like the file.
            std::optional<ExaminedPath> examined = examinePath(entry.path());
            if (!examined || examined->kind != ExaminedPath::Kind::videoFile) {
                continue;
            }
            if (found.size() + inFolder.size() + 1 > videoLimit) {
                return FolderIntakeFailure::videoLimit;
            }
            inFolder.push_back({entry.path(), examined->id});
        }
        std::sort(inFolder.begin(), inFolder.end(),
                  [](const FoundVideo& a, const FoundVideo& b) { return a.path < b.path; });
        found.insert(found.end(), std::make_move_iterator(inFolder.begin()),
                     std::make_move_iterator(inFolder.end()));
    }
    if (cancel.isCancelled()) {
        return FolderIntakeFailure::cancelled;
    }
    return found;
}

}  // namespace tessarin::app
