// Where unfinished takes live and who may touch them. The recording root
// ($XDG_DATA_HOME/tessarin/Tessarin Recording Recovery, mode 0700) holds one folder a take,
// "Unfinished Recording <UUID>". A folder is used only after it is proven private (a directory of
// the effective user, mode exactly 0700, no ACL entry granting anyone anything, on a local file
// system that keeps ownership), and a take is worked on only under its Lease, a flock on the open
// folder, which a crash releases with the process. The identity of the destination folder (inode,
// birth time, file-system UUID or device) lets a later publish tell that its path now leads to
// another folder.
//
// Everything here is synchronous system calls: any thread, usually a background one.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "engine/recording/FileDescriptor.hpp"

namespace tessarin::engine {

class RecordingNamespace {
public:
    static constexpr std::string_view kRootName = "Tessarin Recording Recovery";
    static constexpr std::string_view kTakePrefix = "Unfinished Recording ";

    // One file-system object.
    struct Identity {
        int64_t device = 0;
        uint64_t inode = 0;
        bool operator==(const Identity&) const = default;
    };

    // A folder by its volume and creation time as well as its inode, since inodes are reused.
    struct DestinationIdentity {
        std::optional<std::string> volumeUUID;  // upper case, only when it parses as a UUID
        std::optional<int64_t> device;
        uint64_t inode = 0;
        std::optional<int64_t> birthSeconds;
        std::optional<int64_t> birthNanoseconds;
        bool operator==(const DestinationIdentity&) const = default;
    };

    // The inter-process lock on a take: an open descriptor of its folder holding
    // flock(LOCK_EX). Destroying it closes the descriptor, which releases the lock; nothing else
    // does. Renaming the folder doesn't lose it.
    class Lease {
    public:
        explicit Lease(FileDescriptor descriptor) : descriptor_(std::move(descriptor)) {}
        [[nodiscard]] int descriptor() const { return descriptor_.get(); }

    private:
        FileDescriptor descriptor_;
    };

    // $XDG_DATA_HOME/tessarin/Tessarin Recording Recovery ($HOME/.local/share when the variable
    // is unset or relative). Throws std::runtime_error when there is no home folder.
    [[nodiscard]] static std::filesystem::path recordingRoot();

    // The real path of `path`. Throws std::system_error.
    [[nodiscard]] static std::filesystem::path resolve(const std::filesystem::path& path);

    // Refuses a root that another user could redirect: every component of the standardised path
    // and of the real path must be a directory that only root or the effective user can change
    // (links planted by others included). Throws RecordingError(unsupportedRecordingStorage).
    static void validateRoot(const std::filesystem::path& root);

    // Opens `path` as a directory without following links and proves it private (storage test,
    // owner, mode 0700, no granting ACL entry). With `create` the folder is made first (mode
    // 0700, an existing one accepted; parents as needed, 0700) and a wrong mode is repaired once.
    // Throws RecordingError(unsupportedRecordingStorage) for storage that can't keep it private,
    // std::system_error otherwise (EACCES for a folder that isn't private, ELOOP/ENOTDIR for a
    // link or a file).
    [[nodiscard]] static FileDescriptor openPrivate(const std::filesystem::path& path, bool create);

    // Makes "Unfinished Recording <UUID>" in `root` with mode 0700 and proves it private;
    // removes it again on failure. Throws like openPrivate.
    [[nodiscard]] static std::filesystem::path createTakeFolder(const std::filesystem::path& root);

    // Opens the take folder through the privacy test and locks it (LOCK_EX | LOCK_NB). Throws
    // RecordingError(recordingInUse) when another descriptor holds it, otherwise like
    // openPrivate.
    [[nodiscard]] static Lease acquire(const std::filesystem::path& folder);

    // The identity of the folder now. Throws RecordingError(destinationCheckFailed) when it
    // can't be opened or when its path and the opened folder differ.
    [[nodiscard]] static DestinationIdentity destinationIdentity(const std::filesystem::path& folder);

    // Whether `stored` describes `now`: equal inodes; equal birth times where `stored` has them;
    // equal volume UUIDs when `stored` has one (devices are then not compared, as they change
    // between mounts), otherwise equal devices.
    [[nodiscard]] static bool matches(const DestinationIdentity& stored,
                                      const DestinationIdentity& now);
    // The same against the folder at `folder` now; a folder that isn't there doesn't match.
    [[nodiscard]] static bool matches(const DestinationIdentity& stored,
                                      const std::filesystem::path& folder);

    // Tests a candidate destination before a take begins: it opens, passes the storage test,
    // and can hold a private folder with a file in it (made and removed again). Throws
    // RecordingError: destinationUnavailable when the folder doesn't open,
    // unsupportedRecordingStorage for the storage test, destinationCheckFailed for the rest.
    static void checkDestination(const std::filesystem::path& folder);

    // Whether `folder` (in the root) is a take that was left unfinished: its name is the take
    // prefix and a UUID, it is private, its lease can be had (and is let go at once), it holds no
    // valid "take.published" and it has a "take.json". Never throws.
    [[nodiscard]] static bool isUnfinishedTake(const std::filesystem::path& folder);

    // The UUID part of a take folder's name, or nothing when the name isn't one.
    [[nodiscard]] static std::optional<std::string> takeId(std::string_view folderName);

    // The storage test of an open descriptor: a local file system that keeps ownership.
    [[nodiscard]] static bool passesStorageTest(int descriptor);
    // The privacy test of an open directory descriptor; 0, EACCES (not private),
    // EOPNOTSUPP (storage test) or the errno of a failed call.
    [[nodiscard]] static int privacyProblem(int descriptor);
};

// JSON with the keys of DestinationIdentity; absent values are left out.
[[nodiscard]] nlohmann::json toJson(const RecordingNamespace::DestinationIdentity& identity);
// Reads the same form: `inode` is required, an unsigned integer; the rest, when present, integers
// (and a text for volumeUUID, kept only when it is a UUID). Nothing for anything else.
[[nodiscard]] std::optional<RecordingNamespace::DestinationIdentity> destinationIdentityFromJson(
    const nlohmann::json& value);

}  // namespace tessarin::engine
