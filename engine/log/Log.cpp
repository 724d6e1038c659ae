#include "engine/log/Log.hpp"

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <system_error>

namespace tessarin::engine {

namespace {

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";  // "…"

// Length of the UTF-8 sequence that starts at text[i], or 0 when it is not valid there.
std::size_t utf8SequenceLength(std::string_view text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    unsigned char min = 0x80;
    unsigned char max = 0xBF;
    if (lead < 0x80) {
        return 1;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        min = lead == 0xE0 ? 0xA0 : 0x80;
        max = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        min = lead == 0xF0 ? 0x90 : 0x80;
        max = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (i + length > text.size() || byte(i + 1) < min || byte(i + 1) > max) {
        return 0;
    }
    for (std::size_t k = 2; k < length; ++k) {
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) {
            return 0;
        }
    }
    return length;
}

bool isLineSeparator(std::string_view sequence) {
    return sequence == "\xC2\x85" || sequence == "\xE2\x80\xA8" || sequence == "\xE2\x80\xA9";
}

// Valid UTF-8 of at most maxBytes (plus the ellipsis when cut) with no control characters or
// line separators: each of those becomes a space, each invalid byte a "?".
std::string sanitize(std::string_view text, std::size_t maxBytes) {
    std::string out;
    out.reserve(std::min(text.size(), maxBytes) + kEllipsis.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const std::size_t length = utf8SequenceLength(text, i);
        if (length == 0) {
            if (out.size() + 1 > maxBytes) {
                out.append(kEllipsis);
                break;
            }
            out.push_back('?');
            ++i;
            continue;
        }
        if (out.size() + length > maxBytes) {
            out.append(kEllipsis);
            break;
        }
        const std::string_view sequence = text.substr(i, length);
        const unsigned char c = static_cast<unsigned char>(sequence.front());
        if ((length == 1 && (c < 0x20 || c == 0x7F)) || isLineSeparator(sequence)) {
            out.push_back(' ');
        } else {
            out.append(sequence);
        }
        i += length;
    }
    return out;
}

std::string sanitizeKey(std::string_view key) {
    if (key.empty()) {
        return "_";
    }
    std::string out(key);
    for (char& c : out) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
        if (!allowed) {
            c = '_';
        }
    }
    return out;
}

bool needsQuotes(std::string_view value) {
    if (value.empty()) {
        return true;
    }
    for (const char c : value) {
        if (c == ' ' || c == '"' || c == '\\' || c == '=') {
            return true;
        }
    }
    return false;
}

std::string_view priorityName(int priority) {
    switch (priority) {
        case LOG_DEBUG:
            return "debug";
        case LOG_INFO:
            return "info";
        case LOG_NOTICE:
            return "notice";
        default:
            return "error";
    }
}

bool environmentFlag(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && std::string_view(value) == "1";
}

// "2025-01-02T03:04:05.678Z", from the C library's calendar, not the user's locale.
std::string timestamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900,
                       utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                       now.tv_nsec / 1'000'000);
}

std::atomic<bool> journalEnabled{true};

class FileSink {
public:
    void setTestPath(std::optional<std::filesystem::path> path, std::uint64_t capBytes) {
        const std::lock_guard lock(mutex_);
        testPath_ = std::move(path);
        capBytes_ = capBytes;
    }

    std::optional<std::filesystem::path> path() const {
        const std::lock_guard lock(mutex_);
        return pathLocked();
    }

    // One write of the whole line with O_APPEND, so that lines of other processes never land
    // inside it. The file is opened for each line, so that a rotation done by another process
    // is followed at once; the mutex keeps this process's own rotations apart.
    void append(std::string_view line) {
        const std::lock_guard lock(mutex_);
        const std::optional<std::filesystem::path> file = pathLocked();
        if (!file) {
            return;
        }
        int fd = openForAppend(*file);
        if (fd < 0) {
            return;
        }
        struct stat opened {};
        if (fstat(fd, &opened) == 0 && opened.st_size > 0 &&
            static_cast<std::uint64_t>(opened.st_size) + line.size() > capBytes_) {
            rotate(fd, opened, *file, line.size());
            close(fd);
            fd = openForAppend(*file);
            if (fd < 0) {
                return;
            }
        }
        writeAll(fd, line);
        close(fd);
    }

private:
    std::optional<std::filesystem::path> pathLocked() const {
        if (testPath_) {
            return testPath_;
        }
        const char* stateHome = std::getenv("XDG_STATE_HOME");
        if (stateHome != nullptr && stateHome[0] == '/') {
            return std::filesystem::path(stateHome) / "tessarin" / "tessarin.log";
        }
        const char* home = std::getenv("HOME");
        if (home != nullptr && home[0] == '/') {
            return std::filesystem::path(home) / ".local" / "state" / "tessarin" / "tessarin.log";
        }
        return std::nullopt;
    }

    static int openForAppend(const std::filesystem::path& file) {
        constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
        int fd = ::open(file.c_str(), kFlags, 0600);
        if (fd < 0 && errno == ENOENT) {
            std::error_code ignored;
            std::filesystem::create_directories(file.parent_path().parent_path(), ignored);
            ::mkdir(file.parent_path().c_str(), 0700);
            fd = ::open(file.c_str(), kFlags, 0600);
        }
        return fd;
    }

    // Under an exclusive flock on the full file, and only if the path still names that file and
    // it is still too full, so that of several processes that saw it full only one renames it.
    void rotate(int fd, const struct stat& opened, const std::filesystem::path& file,
                std::size_t lineBytes) const {
        while (flock(fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                return;
            }
        }
        struct stat current {};
        if (::stat(file.c_str(), &current) == 0 && current.st_dev == opened.st_dev &&
            current.st_ino == opened.st_ino && current.st_size > 0 &&
            static_cast<std::uint64_t>(current.st_size) + lineBytes > capBytes_) {
            std::filesystem::path rotated = file;
            rotated += ".1";
            ::rename(file.c_str(), rotated.c_str());
        }
        flock(fd, LOCK_UN);
    }

    static void writeAll(int fd, std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(fd, bytes.data(), bytes.size());
            if (written < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return;
            }
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
    }

    mutable std::mutex mutex_;
    std::optional<std::filesystem::path> testPath_;
    std::uint64_t capBytes_ = kLogFileCapBytes;
};

FileSink& fileSink() {
    static FileSink sink;
    return sink;
}

}  // namespace

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(sanitizeKey(subsystem)), category_(sanitizeKey(category)) {}

void Logger::debug(std::string_view message) const noexcept {
    send(LOG_DEBUG, message);
}
void Logger::info(std::string_view message) const noexcept {
    send(LOG_INFO, message);
}
void Logger::notice(std::string_view message) const noexcept {
    send(LOG_NOTICE, message);
}
void Logger::error(std::string_view message) const noexcept {
    send(LOG_ERR, message);
}

void Logger::send(int priority, std::string_view message) const noexcept {
    try {
        const std::string text = sanitize(message, kMaxLogMessageBytes);
        if (journalEnabled.load(std::memory_order_relaxed)) {
            // Without a journal this fails with an error code, which is all we can do about it.
            sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%d", priority,
                            "SYSLOG_IDENTIFIER=tessarin", "TESSARIN_SUBSYSTEM=%s",
                            subsystem_.c_str(), "TESSARIN_CATEGORY=%s", category_.c_str(), nullptr);
        }
        if (priority != LOG_DEBUG || environmentFlag("TESSARIN_LOG_DEBUG")) {
            fileSink().append(fmt::format("{} {} {} {} {}: {}\n", timestamp(), getpid(),
                                          priorityName(priority), subsystem_, category_, text));
        }
    } catch (...) {
        // A log line is never worth an exception in the caller.
    }
}

std::string privateValue(std::string_view value) {
    if (environmentFlag("TESSARIN_LOG_PRIVATE")) {
        return std::string(value);
    }
    return "<private>";
}

KeyValues& KeyValues::add(std::string_view key, std::string_view value) {
    if (!text_.empty()) {
        text_.push_back(' ');
    }
    text_.append(sanitizeKey(key));
    text_.push_back('=');
    const std::string clean = sanitize(value, std::string::npos);
    if (!needsQuotes(clean)) {
        text_.append(clean);
        return *this;
    }
    text_.push_back('"');
    for (const char c : clean) {
        if (c == '"' || c == '\\') {
            text_.push_back('\\');
        }
        text_.push_back(c);
    }
    text_.push_back('"');
    return *this;
}

std::string logLine(std::initializer_list<std::pair<std::string_view, std::string_view>> pairs) {
    KeyValues values;
    for (const auto& [key, value] : pairs) {
        values.add(key, value);
    }
    return std::move(values).str();
}

void setLogFileForTesting(std::optional<std::filesystem::path> path, std::uint64_t capBytes) {
    fileSink().setTestPath(std::move(path), capBytes);
}

void setJournalSinkEnabled(bool enabled) {
    journalEnabled.store(enabled, std::memory_order_relaxed);
}

std::optional<std::filesystem::path> currentLogFilePath() {
    return fileSink().path();
}

}  // namespace tessarin::engine
