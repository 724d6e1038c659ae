// The disk steps that finish a frames staging folder, on Linux: naming the scratch pictures and
// writing frames.json. Everything is done relative to one descriptor of the folder, so that a
// folder renamed or replaced halfway is never written into by path.
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "engine/frames/FrameManifest.hpp"

namespace tessarin::engine {

namespace {

// Owns one descriptor and closes it on every way out.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};

Descriptor openFolder(const std::filesystem::path& folder) {
    return Descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// fsync is the full flush (data, metadata and the drive's cache); some file systems refuse it
// with EINVAL and accept fdatasync. 0 or errno.
int flushToDisk(int fd) {
    if (::fsync(fd) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOTSUP) {
        return errno;
    }
    return ::fdatasync(fd) == 0 ? 0 : errno;
}

// Renames within one folder without replacing an existing name. File systems without
// RENAME_NOREPLACE fall back to a plain rename: the folder is private to this export.
int renameWithoutReplacing(int folderFd, const std::string& from, const std::string& to) {
    if (::renameat2(folderFd, from.c_str(), folderFd, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return errno;
    }
    return ::renameat(folderFd, from.c_str(), folderFd, to.c_str()) == 0 ? 0 : errno;
}

// A file name of one component: anything else would leave the folder.
bool isPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

int makePrivate(int folderFd, const std::string& name) {
    const Descriptor file(::openat(folderFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.valid()) {
        return errno;
    }
    return ::fchmod(file.get(), 0600) == 0 ? 0 : errno;
}

[[noreturn]] void failNaming(int error) {
    throw FrameManifest::WriteFailure(fmt::format("Could not name the frames (errno {}).", error),
                                      error);
}

[[noreturn]] void failWriting(int error) {
    throw FrameManifest::WriteFailure(
        fmt::format("Could not write the frame list (errno {}).", error), error);
}

}  // namespace

void nameFrames(const std::filesystem::path& stagingFolder, const FrameManifest& manifest,
                bool privacyEnforced) {
    const Descriptor folder = openFolder(stagingFolder);
    if (!folder.valid()) {
        failNaming(errno);
    }
    for (const FrameManifest::Frame& frame : manifest.frames) {
        if (!isPlainName(frame.file)) {
            failNaming(EINVAL);
        }
        const std::string scratch = scratchFrameFileName(frame.index, manifest.settings.format);
        if (const int error = renameWithoutReplacing(folder.get(), scratch, frame.file)) {
            failNaming(error);
        }
        if (privacyEnforced) {
            if (const int error = makePrivate(folder.get(), frame.file)) {
                failNaming(error);
            }
        }
    }
}

void writeFramesJson(const std::filesystem::path& stagingFolder, const FrameManifest& manifest,
                     bool privacyEnforced) {
    std::string text;
    try {
        text = manifest.encodedText();
    } catch (const std::exception& error) {
        throw FrameManifest::WriteFailure(
            fmt::format("Could not write the frame list ({}).", error.what()), std::nullopt);
    }

    const Descriptor folder = openFolder(stagingFolder);
    if (!folder.valid()) {
        failWriting(errno);
    }
    const std::string name(FrameManifest::kFileName);
    // O_EXCL never follows a link at the name, so a planted link fails with EEXIST; O_NOFOLLOW
    // says the same to a reader.
    const Descriptor file(::openat(folder.get(), name.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                   privacyEnforced ? 0600 : 0644));
    if (!file.valid()) {
        failWriting(errno);
    }
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(file.get(), text.data() + written, text.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            failWriting(errno);
        }
        written += static_cast<std::size_t>(count);
    }
    if (const int error = flushToDisk(file.get())) {
        failWriting(error);
    }
    // The name of the new file lives in the folder; a failure here changes nothing the user
    // could act on, so it is not reported.
    static_cast<void>(flushToDisk(folder.get()));
}

}  // namespace tessarin::engine
