// The program's log: short `key=value` lines under a subsystem that begins "com.tessarin" and a
// category, sent to the systemd journal and mirrored to a size-capped file that the support report
// can read without journal rights.
//
//   const Logger log("com.tessarin.engine", "job");
//   log.notice(KeyValues().add("event", "published").add("file", privateValue(name)).str());
//   // -> event=published file=<private>
//
// Paths and file names never reach the log in clear: pass them through privateValue(). Values go
// through KeyValues or logLine(), which quote and neutralise them, so that text from outside the
// process cannot forge a second line or a misleading key.
//
// Sinks, each skipped silently when it cannot be used:
// - the journal, through sd_journal_send with SYSLOG_IDENTIFIER=tessarin, TESSARIN_SUBSYSTEM,
//   TESSARIN_CATEGORY and PRIORITY;
// - the file `$XDG_STATE_HOME/tessarin/tessarin.log` (default `~/.local/state/...`), one append
//   of a whole line per message, "<UTC time> <pid> <level> <subsystem> <category>: <message>",
//   renamed to `tessarin.log.1` when the next line would take it past kLogFileCapBytes. Safe with
//   several threads and several processes. Debug messages go to the file only when
//   TESSARIN_LOG_DEBUG=1.
//
// Nothing here throws or stops the process.
#pragma once

#include <fmt/format.h>

#include <concepts>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tessarin::engine {

inline constexpr std::uint64_t kLogFileCapBytes = 1024 * 1024;

// A message longer than this is cut (at a UTF-8 boundary) and marked with "…".
inline constexpr std::size_t kMaxLogMessageBytes = 4000;

// One subsystem and category; cheap to copy and safe to use from any thread at once.
class Logger {
public:
    // `subsystem` should begin "com.tessarin" ("com.tessarin.engine"); `category` is a short word
    // ("job", "probe"). Characters other than letters, digits, "_", "-" and "." become "_", so
    // that each stays one word of a file line.
    Logger(std::string subsystem, std::string category);

    // Each sends one line at its priority (LOG_DEBUG, LOG_INFO, LOG_NOTICE, LOG_ERR). Control
    // characters in the message, line breaks among them, become spaces. Never throws.
    void debug(std::string_view message) const noexcept;
    void info(std::string_view message) const noexcept;
    void notice(std::string_view message) const noexcept;
    void error(std::string_view message) const noexcept;

    [[nodiscard]] const std::string& subsystem() const { return subsystem_; }
    [[nodiscard]] const std::string& category() const { return category_; }

private:
    void send(int priority, std::string_view message) const noexcept;

    std::string subsystem_;
    std::string category_;
};

// "<private>", or the value itself when TESSARIN_LOG_PRIVATE=1 is set in the environment (read at
// each call; for local debugging only, never set by the program).
[[nodiscard]] std::string privateValue(std::string_view value);

// Builds "key=value key2=value2". A value is written bare when it is a non-empty run of printable
// characters without blanks, quotes, backslashes or "="; otherwise it is put in double quotes with
// `"` and `\` escaped. In either form control characters (line breaks, tabs, DEL) and the Unicode
// line separators U+0085, U+2028, U+2029 become spaces. Characters of a key other than letters,
// digits, "_", "-" and "." become "_". Not thread-safe; a plain value.
class KeyValues {
public:
    KeyValues& add(std::string_view key, std::string_view value);
    KeyValues& add(std::string_view key, const char* value) {
        return add(key, std::string_view(value == nullptr ? "" : value));
    }
    KeyValues& add(std::string_view key, const std::string& value) {
        return add(key, std::string_view(value));
    }
    template <typename Number>
    requires std::integral<Number> || std::floating_point<Number> KeyValues& add(
        std::string_view key, Number value) {
        return add(key, std::string_view(fmt::format("{}", value)));
    }

    [[nodiscard]] const std::string& str() const& { return text_; }
    [[nodiscard]] std::string str() && { return std::move(text_); }

private:
    std::string text_;
};

// The same as KeyValues with each pair added in order.
[[nodiscard]] std::string logLine(
    std::initializer_list<std::pair<std::string_view, std::string_view>> pairs);

// Sends file lines to `path` with the given cap instead of the XDG location; nullopt goes back to
// the XDG location, whose environment variables are read at each write. For tests; thread-safe.
void setLogFileForTesting(std::optional<std::filesystem::path> path,
                          std::uint64_t capBytes = kLogFileCapBytes);

// Turns the journal sink off or on again (on by default), e.g. for tests. Thread-safe.
void setJournalSinkEnabled(bool enabled);

// Where file lines go now: the test path, or the XDG location; nothing when neither
// XDG_STATE_HOME (absolute) nor HOME is set.
[[nodiscard]] std::optional<std::filesystem::path> currentLogFilePath();

}  // namespace tessarin::engine
