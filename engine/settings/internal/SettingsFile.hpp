// File work behind SettingsStore: reading the file, the lock beside it, the atomic replacement,
// and keeping a corrupt file aside. Not for use outside engine/settings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace tessarin::engine::settings_internal {

// The identity of one version of a file: a replaced or rewritten file gets a new stamp.
struct FileStamp {
    uint64_t device = 0;
    uint64_t inode = 0;
    int64_t size = 0;
    int64_t modifiedNanoseconds = 0;

    friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

struct ReadResult {
    enum class State { missing, valid, corrupt, unreadable };
    State state = State::missing;
    nlohmann::json object;  // the parsed object when valid
    std::string reason;     // why corrupt ("parse", "not-object", "too-large", "too-deep")
    int error = 0;          // errno when unreadable
    FileStamp stamp;        // of the version read, when it exists
};

// Parses `text` as one JSON value into `value`. Returns false and sets `reason` to "parse" when
// the text is not valid UTF-8 JSON, or "too-deep" when arrays and objects nest deeper than
// `maxDepth`; the depth is checked first, so the parser never sees such text.
[[nodiscard]] bool parseJsonText(std::string_view text, int maxDepth, nlohmann::json& value,
                                 std::string& reason);

// Reads and parses `file`. A missing file (or missing folder) is `missing`; any other failure to
// open or read it is `unreadable` with its errno; a file that is not a regular file is
// unreadable (EISDIR or EINVAL); one that is not a JSON object within the limits is `corrupt`.
// Never throws except std::bad_alloc.
[[nodiscard]] ReadResult readSettingsFile(const std::filesystem::path& file, std::size_t maxBytes,
                                          int maxDepth);

// Creates `folder` and its missing parents with mode 0700. Throws std::system_error.
void createFolders(const std::filesystem::path& folder);

// An exclusive flock on `lockFile` (created with mode 0600, its folder with 0700, when missing),
// held until destruction. Blocks until the lock is free. Throws std::system_error. Separate
// instances conflict even within one process, since each opens the file anew.
class FileLock {
public:
    explicit FileLock(const std::filesystem::path& lockFile);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int fd_ = -1;
};

// Replaces `file` by a file holding `text`: a temporary ".tessarin-<name>-XXXXXX" in the same
// folder (mode of the old file, else 0600) is written, fsynced and renamed over `file`. On failure
// the temporary is removed, `file` is as it was, and std::system_error is thrown. Returns 0, or the
// errno of the folder's fsync after the rename, which the caller reports once it has taken note
// that the new file is in place.
[[nodiscard]] int replaceFileAtomically(const std::filesystem::path& file, std::string_view text);

// Removes temporaries of `file` that a writer which died left behind. Call with the lock held:
// then no live writer has one. Never throws.
void sweepTemporaries(const std::filesystem::path& file);

// Renames `file` to "<file>.corrupt-<utcStamp>", or with "-2", "-3"... appended when that is
// taken, never replacing anything. Returns the new path. Throws std::system_error.
[[nodiscard]] std::filesystem::path keepAside(const std::filesystem::path& file,
                                              std::string_view utcStamp);

}  // namespace tessarin::engine::settings_internal
