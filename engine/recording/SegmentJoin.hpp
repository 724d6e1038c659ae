// The media side of a take: what ffprobe says of one segment, how much of it can be read back
// (a segment cut short by a crash ends at its last complete fragment), and the join of several
// segments by ffmpeg's concat demuxer with stream copy. Every run goes through ProcessRunner.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "engine/probe/MediaInfo.hpp"
#include "engine/recording/RecordingFiles.hpp"

namespace tessarin::engine {

// What one ffprobe run reads from a segment: its streams, and the span of its video packets
// from the first one's time to the end of the last whole or partial one. A segment cut short by
// a crash ends at what can still be read.
struct SegmentScan {
    int64_t videoStreams = 0;
    int64_t audioStreams = 0;
    std::optional<double> videoSeconds;  // nothing when no video packet could be read
};

// Scans `file` with ffprobe (streams and packet times, no decoding). Nothing when ffprobe can't
// open it. Throws std::system_error (ECANCELED) when the run was cancelled.
[[nodiscard]] std::optional<SegmentScan> scanSegment(const std::filesystem::path& file,
                                                     const RecordingWork& work);

// Scans `segments` (in `folder`) with as few tool runs as possible: ffmpeg copies up to
// kSegmentsPerScan of them at a time, without decoding, into one "framecrc" listing each (hidden
// work files in `folder`, removed afterwards). A batch that ffmpeg refuses as a whole (a segment
// it can't open) is scanned one segment at a time with ffprobe, so each result stands for its own
// segment. Nothing in a result means that segment can't be opened. Throws std::system_error
// (ECANCELED) when cancelled.
inline constexpr std::size_t kSegmentsPerScan = 32;
[[nodiscard]] std::vector<std::optional<SegmentScan>> scanSegments(
    const std::filesystem::path& folder, const std::vector<RecordingSegment>& segments,
    const RecordingWork& work);

struct JoinOutcome {
    bool joined = false;  // ffmpeg wrote `output` and ended well
    std::vector<std::optional<SegmentScan>> scans;  // one per segment, as scanSegments gives
};

// Joins `segments` (in `folder`, by name) into `output` with the concat demuxer and stream copy,
// and scans them as scanSegments does. Up to kSegmentsPerScan segments, one ffmpeg run does both
// (each segment is then read twice by one process, which costs less than a tool start-up).
// Work files (the list, the listings) are hidden files in `folder`, removed afterwards. Throws
// std::system_error (ECANCELED when cancelled, or the errno of the list).
[[nodiscard]] JoinOutcome concatenateSegments(const std::filesystem::path& folder,
                                              const std::vector<RecordingSegment>& segments,
                                              const std::filesystem::path& output,
                                              const RecordingWork& work);

// The number of audio tracks in `info`.
[[nodiscard]] int64_t audioTrackCount(const MediaInfo& info);

// The facts of a joined file from the media probe, or nothing when it can't be read. Throws
// std::system_error (ECANCELED) when cancelled.
[[nodiscard]] std::optional<MediaInfo> probeJoined(const std::filesystem::path& file,
                                                   const RecordingWork& work);

}  // namespace tessarin::engine
