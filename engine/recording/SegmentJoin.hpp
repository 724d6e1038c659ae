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

// The facts of one segment, or nothing when ffprobe can't read it. Throws std::system_error
// (ECANCELED) when the run was cancelled.
[[nodiscard]] std::optional<MediaInfo> probeSegment(const std::filesystem::path& segment,
                                                    const RecordingWork& work);

// Seconds of video that can be read from `segment`: from the first video packet's time to the
// end of the last whole one. Nothing when no packet can be read. Throws std::system_error
// (ECANCELED) when cancelled.
[[nodiscard]] std::optional<double> readableSeconds(const std::filesystem::path& segment,
                                                    const RecordingWork& work);

// Joins `segments` (in `folder`, by name) into `output` with the concat demuxer and stream copy,
// writing the list as a hidden work file in `folder` and removing it afterwards. False when
// ffmpeg failed. Throws std::system_error (ECANCELED when cancelled, or the errno of the list).
[[nodiscard]] bool concatenateSegments(const std::filesystem::path& folder,
                                       const std::vector<RecordingSegment>& segments,
                                       const std::filesystem::path& output,
                                       const RecordingWork& work);

// The number of audio tracks in `info`.
[[nodiscard]] int64_t audioTrackCount(const MediaInfo& info);

}  // namespace tessarin::engine
