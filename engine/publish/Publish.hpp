// Exclusive publication: a finished file appears under its final name in one step, complete,
// never replacing anything, with the permissions a new file in that folder would have had.
// The guarantees come from the file system (exclusive rename, descriptors, checks that the folder
// is still the one opened), so several threads and processes may publish into one folder at once.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>

#include "engine/model/Preset.hpp"
#include "engine/publish/VolumeInfo.hpp"

namespace tessarin::engine {

// What `publish` did. settled with code 0: published. settled with another code: the name was
// taken (try the next one). Not settled: failed with `code` as errno (ECANCELED when cancelled).
struct PublishOutcome {
    int32_t code = 0;
    bool settled = false;

    bool operator==(const PublishOutcome&) const = default;
};

// Gives the empty regular file `targetFd` the contents of `sourceFd` by sharing extents.
// Returns 0 or errno; EOPNOTSUPP, EXDEV and EINVAL mean "this file system can't", and the data is
// then copied instead.
using CloneFunction = std::function<int(int sourceFd, int targetFd)>;
// Renames fromDirectory/fromName to toDirectory/toName only if toName does not exist yet.
// Returns 0, EEXIST when the name is taken, or another errno.
using RenameFunction = std::function<int(int fromDirectoryFd, const char* fromName,
                                         int toDirectoryFd, const char* toName)>;

// The real clone: ioctl FICLONE (btrfs, xfs with reflink).
[[nodiscard]] int cloneFileContents(int sourceFd, int targetFd);
// The real exclusive rename: renameat2 with RENAME_NOREPLACE; where the file system rejects the
// flag (EINVAL), linkat then unlinkat, which is exclusive too.
[[nodiscard]] int renameExclusive(int fromDirectoryFd, const char* fromName, int toDirectoryFd,
                                  const char* toName);

// Publishes the regular file `source` as `destination`. On success `source` is consumed (moved or
// deleted). The file first takes shape in a private scratch folder inside the destination folder
// (a clone, a copy, or the source itself when it already lies in a private folder on the same
// volume), gets the mode and default ACL a new file in the destination would get, and is then
// renamed exclusively into place. Fails with ESTALE when the destination's folder path stops
// leading to the folder that was opened, EOPNOTSUPP on a volume that is not local or ignores
// ownership, ECANCELED when `isCancelled` says so (asked before work, between copy chunks, and
// before the rename), EIO when the source changed during the copy. Blocks; call on the job's
// thread. Never throws. `clone` and `rename` are seams for tests; empty means the real ones.
[[nodiscard]] PublishOutcome publish(const std::filesystem::path& source,
                                     const std::filesystem::path& destination,
                                     const std::function<bool()>& isCancelled,
                                     const CloneFunction& clone = cloneFileContents,
                                     const RenameFunction& rename = renameExclusive,
                                     const VolumeOverrides& overrides = {});

// Publishes `file` under the first free name for `namingSource` with `naming` in the output
// folder (`outputDirectory`, or the folder of `namingSource`), trying a fresh name after each
// lost race, up to 64 names. Returns the published path. Throws JobFailure: "publish", "could not
// find a free output name (64 tries)"; "publish", "cancelled" with wasCancelled; "destination"
// when the output folder has gone; "publish" with the errno and the sharing-policy sentence for
// EOPNOTSUPP, EINVAL and ENOSYS; otherwise "publish", "could not save to the destination
// (errno n)".
[[nodiscard]] std::filesystem::path publishUnderFreeName(
    const std::filesystem::path& file, const std::filesystem::path& namingSource,
    const OutputNaming& naming, const std::optional<std::filesystem::path>& outputDirectory,
    const std::function<bool()>& isCancelled, const CloneFunction& clone = cloneFileContents,
    const RenameFunction& rename = renameExclusive, const VolumeOverrides& overrides = {});

}  // namespace tessarin::engine
