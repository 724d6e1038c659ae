#include "engine/recording/FreedesktopTrash.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "engine/publish/Publish.hpp"
#include "engine/recording/FileDescriptor.hpp"
#include "engine/recording/internal/Posix.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using internal::posixError;

namespace {

constexpr int kNameTries = 1000;

FileDescriptor openFolderMaking(const fs::path& path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        throw posixError(errno, "mkdir trash");
    }
    FileDescriptor fd(internal::openDirectoryNoFollow(path.c_str()));
    if (!fd.valid()) {
        throw posixError(errno, "open trash");
    }
    return fd;
}

// The path as the Trash info file wants it in "Path=": bytes outside the unreserved set escaped.
std::string percentEncoded(const std::string& path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
            (byte >= '0' && byte <= '9') || c == '-' || c == '_' || c == '.' || c == '~' ||
            c == '/') {
            out += c;
        } else {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 0xF];
        }
    }
    return out;
}

std::string deletionDate() {
    const std::time_t now = std::time(nullptr);
    std::tm local {};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

}  // namespace

fs::path homeTrash() {
    if (const char* value = std::getenv("XDG_DATA_HOME"); value != nullptr && value[0] == '/') {
        return fs::path(value) / "Trash";
    }
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/') {
        throw posixError(ENOENT, "no home folder");
    }
    return fs::path(home) / ".local" / "share" / "Trash";
}

fs::path moveToTrash(const fs::path& item) {
    struct stat itemStat {};
    if (::lstat(item.c_str(), &itemStat) != 0) {
        throw posixError(errno, "lstat");
    }
    const fs::path trash = homeTrash();
    fs::create_directories(trash.parent_path());
    const FileDescriptor trashFd = openFolderMaking(trash);
    const FileDescriptor files = openFolderMaking(trash / "files");
    const FileDescriptor info = openFolderMaking(trash / "info");
    struct stat filesStat {};
    if (::fstat(files.get(), &filesStat) != 0) {
        throw posixError(errno, "fstat trash");
    }
    if (filesStat.st_dev != itemStat.st_dev) {
        throw posixError(EXDEV, "trash on another file system");
    }
    const FileDescriptor from(::open(item.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!from.valid()) {
        throw posixError(errno, "open parent");
    }
    const std::string base = item.filename().string();
    const std::string contents = "[Trash Info]\nPath=" + percentEncoded(item.string()) +
                                 "\nDeletionDate=" + deletionDate() + "\n";
    for (int attempt = 1; attempt <= kNameTries; ++attempt) {
        const std::string name = attempt == 1 ? base : base + "." + std::to_string(attempt);
        const std::string infoName = name + ".trashinfo";
        FileDescriptor infoFd(::openat(info.get(), infoName.c_str(),
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!infoFd.valid()) {
            if (errno == EEXIST) {
                continue;
            }
            throw posixError(errno, "trashinfo");
        }
        const bool written =
            ::write(infoFd.get(), contents.data(), contents.size()) ==
                static_cast<ssize_t>(contents.size()) &&
            ::fsync(infoFd.get()) == 0;
        if (!written) {
            const int error = errno;
            ::unlinkat(info.get(), infoName.c_str(), 0);
            throw posixError(error, "trashinfo");
        }
        const int moved = renameExclusive(from.get(), base.c_str(), files.get(), name.c_str());
        if (moved == 0) {
            ::fsync(files.get());
            return trash / "files" / name;
        }
        ::unlinkat(info.get(), infoName.c_str(), 0);
        if (moved != EEXIST) {
            throw posixError(moved, "move to trash");
        }
    }
    throw posixError(EEXIST, "no free name in the trash");
}

}  // namespace tessarin::engine
