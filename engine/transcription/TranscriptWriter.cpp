#include "engine/transcription/TranscriptWriter.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fmt/format.h>

#include "engine/clips/Uuid.hpp"
#include "engine/log/Log.hpp"
#include "engine/publish/Publish.hpp"
#include "engine/transcription/TranscriptionError.hpp"

namespace tessarin::engine {

namespace {

namespace fs = std::filesystem;

const Logger& log() {
    static const Logger logger("com.tessarin.transcription", "writer");
    return logger;
}

bool writeAll(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return true;
}

// Creates `path` exclusively with `text` in it, synced. False (and nothing left) on failure.
bool writeNewFile(const fs::path& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0) {
        return false;
    }
    const bool ok = writeAll(fd, text) && ::fsync(fd) == 0;
    const bool closed = ::close(fd) == 0;
    if (!ok || !closed) {
        ::unlink(path.c_str());
        return false;
    }
    return true;
}

}  // namespace

std::string TranscriptWriter::fileName(const std::string& stem, int attempt,
                                       TranscriptFormat format) {
    return attempt >= 2 ? fmt::format("{}-{}.transcript.{}", stem, attempt, fileExtension(format))
                        : fmt::format("{}.transcript.{}", stem, fileExtension(format));
}

TranscriptWriter::ClaimResult TranscriptWriter::claim(const fs::path& temporary,
                                                      const fs::path& final) {
    const int result = renameExclusive(AT_FDCWD, temporary.c_str(), AT_FDCWD, final.c_str());
    if (result == 0) {
        return ClaimResult::ok;
    }
    return result == EEXIST ? ClaimResult::exists : ClaimResult::failed;
}

bool TranscriptWriter::probe(const fs::path& folder) {
    const fs::path check = folder / (".tessarin-write-check-" + Uuid::random().text());
    const int fd = ::open(check.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    const bool written = ::write(fd, "x", 1) == 1;
    const bool closed = ::close(fd) == 0;
    const bool removed = ::unlink(check.c_str()) == 0;
    return written && closed && removed;
}

fs::path TranscriptWriter::write(const std::string& text, const fs::path& folder,
                                 const std::string& stem, TranscriptFormat format) {
    const fs::path temporary = folder / (".tessarin-transcript-" + Uuid::random().text().substr(0, 8));
    if (!writeNewFile(temporary, text)) {
        log().error(logLine({{"event", "transcript-write-failed"}, {"step", "temporary"}}));
        throw TranscriptionError(TranscriptionError::Code::writeFailed);
    }
    for (int attempt = 1; attempt <= kMaxAttempts; ++attempt) {
        const fs::path final = folder / fileName(stem, attempt, format);
        struct stat status {};
        if (::lstat(final.c_str(), &status) == 0) {
            continue;
        }
        switch (claim(temporary, final)) {
            case ClaimResult::ok:
                log().info(KeyValues()
                               .add("event", "transcript-written")
                               .add("attempt", attempt)
                               .add("extension", fileExtension(format))
                               .str());
                return final;
            case ClaimResult::exists: continue;
            case ClaimResult::failed: attempt = kMaxAttempts; break;
        }
    }
    ::unlink(temporary.c_str());
    log().error(logLine({{"event", "transcript-write-failed"}, {"step", "claim"}}));
    throw TranscriptionError(TranscriptionError::Code::writeFailed);
}

}  // namespace tessarin::engine
