// The program's persistent settings: one JSON object in a file, by default
// `$XDG_CONFIG_HOME/tessarin/settings.json` (`~/.config/...` when the variable is unset).
//
//   SettingsStore store = SettingsStore::standard();
//   store.setBool("diagnosticsConsent", true);
//   std::optional<bool> consent = store.boolValue("diagnosticsConsent");  // true
//   std::optional<int64_t> wrong = store.integerValue("diagnosticsConsent");  // nullopt
//
// Reads come from an in-memory copy of the file, taken at construction and refreshed by reload()
// and by every write. Each write is one read-modify-write of the whole file under an exclusive
// flock of "<file>.lock" beside it: the file is read again under the lock, the change is applied,
// and the result replaces the file atomically (a temporary file in the same folder, fsync, rename,
// fsync of the folder). So several stores, threads or processes writing different keys of one
// file never lose each other's keys, and the file on disk is always either the old or the new
// whole object.
//
// A file that is not a JSON object (truncated, another JSON value, not UTF-8, larger than
// kMaxSettingsFileBytes or nested deeper than kMaxSettingsDepth) reads as an empty store, with one
// log line under the subsystem "com.tessarin.settings". Before the next write it is renamed to
// "<file>.corrupt-<yyyyMMdd-HHmmss>" (UTC; "-2", "-3"... when taken), never overwriting anything,
// so that the user's data can still be recovered by hand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/settings/internal/SettingsFile.hpp"

namespace tessarin::engine {

// A settings file larger than this is treated as corrupt rather than read.
inline constexpr std::size_t kMaxSettingsFileBytes = 16 * 1024 * 1024;
// Deeper nesting of arrays and objects is treated as corrupt, which keeps the recursive JSON
// writer's stack use bounded for any file it may be handed.
inline constexpr int kMaxSettingsDepth = 128;

// Thread-safe: every member may be called from any thread at once. The store's own mutex guards
// the in-memory copy and is held only while it is read or replaced, never during file work or
// while `update`'s callback runs. Getters never touch the disk and never throw.
class SettingsStore {
public:
    // A store of `file`, read at once. Nothing is created on disk until the first update (the
    // folder and the lock file; the settings file itself only when a value changes). A file that
    // cannot be read (permissions, a folder in its place) reads as empty with a log line; the next
    // write then fails rather than replace it.
    explicit SettingsStore(std::filesystem::path file);

    // Moves lock the source's mutex; the source must not be in use by other threads meanwhile.
    SettingsStore(SettingsStore&& other) noexcept;
    SettingsStore& operator=(SettingsStore&& other) noexcept;
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;
    ~SettingsStore() = default;

    // $XDG_CONFIG_HOME when it is set to an absolute path, otherwise "$HOME/.config", otherwise
    // the account's home folder from the password database followed by ".config". Read at each
    // call. Throws std::runtime_error when no home folder can be found at all.
    [[nodiscard]] static std::filesystem::path configHome();
    // configHome()/tessarin/settings.json.
    [[nodiscard]] static SettingsStore standard();
    // configHome()/<name>/settings.json, e.g. the earlier program's suite
    // "com.orchardine.tessarin". `name` must be one non-empty path component other than "." and
    // ".."; anything else throws std::invalid_argument.
    [[nodiscard]] static SettingsStore suite(std::string_view name);

    // The value under `key` when it is stored with the asked-for type, otherwise nullopt.
    // integerValue accepts only integral JSON numbers within int64_t; doubleValue accepts any
    // number; stringListValue only an array whose elements are all strings.
    [[nodiscard]] std::optional<bool> boolValue(std::string_view key) const;
    [[nodiscard]] std::optional<int64_t> integerValue(std::string_view key) const;
    [[nodiscard]] std::optional<double> doubleValue(std::string_view key) const;
    [[nodiscard]] std::optional<std::string> stringValue(std::string_view key) const;
    [[nodiscard]] std::optional<std::vector<std::string>> stringListValue(
        std::string_view key) const;
    // The compact JSON text of whatever is stored under `key`.
    [[nodiscard]] std::optional<std::string> dataValue(std::string_view key) const;

    // Each is one locked read-modify-write (see update). They throw std::system_error when the
    // file cannot be written, leaving the file on disk as it was; std::invalid_argument for a
    // non-finite double, text (keys included) that is not UTF-8, or, in setData, `jsonText` that is
    // not one JSON value within the limits above. Blocking (file work and fsync).
    void setBool(std::string_view key, bool value);
    void setInteger(std::string_view key, int64_t value);
    void setDouble(std::string_view key, double value);
    void setString(std::string_view key, std::string_view value);
    void setStringList(std::string_view key, const std::vector<std::string>& value);
    void setData(std::string_view key, std::string_view jsonText);
    // Removing a key that is not there writes nothing.
    void remove(std::string_view key);

    [[nodiscard]] bool contains(std::string_view key) const;
    // All keys, in sorted order.
    [[nodiscard]] std::vector<std::string> keys() const;

    // One read-modify-write under the file lock: reads the file again, calls `change` with its
    // object (empty when the file is missing or corrupt), and writes the result unless it equals
    // what was read (a missing file stays missing while the object stays empty). The in-memory copy
    // then holds the result, other writers' keys included. `change` runs on the calling thread with
    // the file lock held: it must be quick and must not write to this file through any store (that
    // would wait for itself). Whatever `change` throws propagates and nothing is written; leaving a
    // non-object behind throws std::invalid_argument. Throws std::system_error when the folder
    // cannot be created, the lock taken, the file read or the new file written; the file on disk is
    // then unchanged, except that a corrupt file may already have been renamed aside.
    void update(const std::function<void(nlohmann::json& object)>& change);

    // Whether the file is on disk now.
    [[nodiscard]] bool exists() const;
    // Reads the file again into the in-memory copy (no lock is needed: files are only ever
    // replaced whole). Never throws; problems are handled as in the constructor.
    void reload();
    [[nodiscard]] const std::filesystem::path& file() const { return file_; }

private:
    // The object that `read` holds; logs a corrupt file once per version, an unreadable one at
    // each read.
    nlohmann::json objectFromRead(const settings_internal::ReadResult& read);
    void install(nlohmann::json object);

    std::filesystem::path file_;
    mutable std::mutex mutex_;
    nlohmann::json values_;  // guarded by mutex_; always an object
    // The version of the file last reported as corrupt, so that one bad file is logged once.
    std::optional<settings_internal::FileStamp> reportedCorrupt_;  // guarded by mutex_
};

}  // namespace tessarin::engine
