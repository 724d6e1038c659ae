// One take on disk: its private folder under a Lease, its manifest, its segments
// ("segment-%05d.mp4"), and the road to one published file. A take is finalised by joining its
// segments (ffmpeg's concat demuxer, stream copy, verified by ffprobe; a single segment is copied
// as it is), publishing the result by an exclusive rename between two marker files
// ("take.publishing", then "take.published"), and only then removing the folder. No failure
// deletes a segment.
//
//   RecordingFiles files = RecordingFiles::create(root, destinationFolder, name, 30, 1);
//   std::filesystem::path segment = files.nextSegmentURL();  // capture writes it
//   RecordingFiles::Finalized done = files.finalize(context);
//
// Threads: blocking file work and child processes; call on a background thread. One value is
// used by one thread at a time; the Lease keeps other processes (and other values) out.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"
#include "engine/recording/RecordingError.hpp"
#include "engine/recording/RecordingNamespace.hpp"
#include "engine/recording/TakeManifest.hpp"

namespace tessarin::engine {

// A folder that is no take at all (see TakeManifest and RecordingFiles::load).
class TakeFolderInvalid : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct RecordingSegment {
    int64_t number = 0;  // from the file name
    std::filesystem::path path;
};

// What joining and publishing use: the tools, and a hook that sees every runner before it runs
// so that the caller can cancel it (Ctrl-C, quit).
struct RecordingWork {
    Tools tools;
    std::function<void(const std::shared_ptr<ProcessRunner>&)> watchRunner;
    std::function<bool()> isCancelled;
};

struct RecordingFiles {
    static constexpr const char* kManifestName = "take.json";
    static constexpr const char* kPublishingMarker = "take.publishing";
    static constexpr const char* kPublishedMarker = "take.published";

    std::filesystem::path directory;
    std::filesystem::path destination;  // the final file
    int64_t framesPerSecond = 30;
    std::optional<int64_t> expectedAudioTrackCount;
    std::optional<std::filesystem::path> legacyDirectory;
    bool isPrivate = true;
    std::optional<RecordingNamespace::DestinationIdentity> destinationIdentity;
    std::shared_ptr<RecordingNamespace::Lease> ownership;
    int64_t startedSegments = 0;

    // Checks the destination folder (RecordingNamespace::checkDestination), makes the root and a
    // take folder in it, takes the Lease and writes a version 2 manifest with the folder's
    // identity. Throws RecordingError, or std::system_error for file calls without a case.
    [[nodiscard]] static RecordingFiles create(const std::filesystem::path& root,
                                               const std::filesystem::path& destinationFolder,
                                               const std::string& filename,
                                               int64_t framesPerSecond,
                                               std::optional<int64_t> expectedAudioTrackCount);

    // Reads a take folder: opened without following links, private (version 2), "take.json" a
    // regular file of at most 65,536 bytes that decodes and passes the rules. A version 2
    // manifest without a destination path publishes into `fallbackDestinationFolder`. Takes no
    // lease. Throws TakeFolderInvalid.
    [[nodiscard]] static RecordingFiles load(
        const std::filesystem::path& directory,
        const std::optional<std::filesystem::path>& fallbackDestinationFolder = std::nullopt);

    // Raises startedSegments, saves the manifest (atomically), and returns the path of the new
    // segment. The manifest never understates what exists. Throws std::system_error.
    [[nodiscard]] std::filesystem::path nextSegmentURL();

    // The segments present: regular files named exactly as "segment-%05d.mp4" formats their
    // number, sorted by number. Other names are passed over; a symbolic link or anything that is
    // not a regular file under a segment name is RecordingError(unreadablePart).
    [[nodiscard]] std::vector<RecordingSegment> listSegments() const;

    struct Finalized {
        std::filesystem::path published;
        int64_t parts = 0;  // segments that went into it
        // The take's folder when it could not be emptied and removed; retry later.
        std::optional<std::filesystem::path> leftOver;
    };

    // Joins, verifies and publishes the take, then removes its folder (see the banner). Takes the
    // Lease first unless held. Throws RecordingError (recordingInUse, missingSegments, noVideo,
    // unreadablePart, incompatibleSegments, outputExists, destinationUnavailable,
    // unsupportedRecordingStorage), or std::system_error (ECANCELED when `work` cancelled it).
    [[nodiscard]] Finalized finalize(const RecordingWork& work);

    // Moves the take's folder to the Trash under its Lease, after checking that the folder is the
    // one opened and every entry is a regular file of the effective user. Throws
    // RecordingError(recordingInUse or unsafeRecoveryDiscard).
    void trash();

    // Retries the clean-up of a folder that finalize() returned as left over: under the folder's
    // lease, and only when it holds no "take.json" any more (so it is no take that still needs
    // saving), removes the take's own files and the folder. True when the folder is gone (also
    // when it already was). Never throws.
    [[nodiscard]] static bool removeLeftOver(const std::filesystem::path& directory);

    // Writes the manifest of this take atomically. Throws std::system_error.
    void saveManifest() const;
    [[nodiscard]] TakeManifest manifest() const;
};

// "segment-%05d.mp4" of `number`.
[[nodiscard]] std::string segmentName(int64_t number);

}  // namespace tessarin::engine
