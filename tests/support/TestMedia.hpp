// Tiny media files for tests, generated on demand with the helper folder's ffmpeg from lavfi
// sources and cached in the build tree by recipe, so a clip is made once per build tree.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "engine/probe/MediaInfo.hpp"
#include "engine/process/Tools.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::test {

enum class TestClip {
    h264Aac,         // MP4, H.264 160x120 10 fps + AAC, 1 s
    h264NoAudio,     // MP4, H.264 only
    h264Opus,        // MKV, H.264 + Opus
    vp9Opus,         // WebM, VP9 + Opus
    hevc,            // MP4, H.265 + AAC
    av1,             // MP4, AV1 (SVT-AV1) + AAC
    tenBit,          // MP4, H.264 10-bit 4:2:0, SDR
    coverArtAudio,   // M4A, AAC whose only video stream is an attached PNG picture
    chapters,        // MP4 with three titled chapters, 3 s
    oddDimensions,   // MP4, 321x241
    offsetTimeline,  // MPEG-TS whose timeline starts at 10 s
    // MP4, H.264 + AAC, 10 s: a 440 Hz tone silenced from 2 to 4 s and from 6 s to the end;
    // the picture is a still colour, so nearly all of the file is audio.
    pausedTone,
    // MP4, H.264 160x120 at 25 fps + AAC, 20 s, with keyframes at 0, 5, 10 and 15 s only.
    keyframesEvery5s,
    // MP4, H.264 160x120 at 10 fps, 4 s, with a keyframe every second; no audio.
    keyframesEverySecond,
};

// The path of the clip, generating it first if the cache doesn't hold it. Safe from several
// threads and processes: a clip is written under a temporary name and renamed into place.
// Aborts the test (ADD_FAILURE + throw) when ffmpeg fails.
[[nodiscard]] std::filesystem::path testClip(TestClip clip);

// A clip from a custom recipe: `ffmpegArguments` are the arguments between "-y -nostdin -v
// error" and the output path. `name` ends with the extension the output should have. Cached by
// the recipe's hash.
[[nodiscard]] std::filesystem::path makeClip(const std::string& name,
                                             const std::vector<std::string>& ffmpegArguments);

// The facts of `file` by the helper folder's ffprobe. Throws engine::MediaProbeError.
[[nodiscard]] engine::MediaInfo probeFile(const std::filesystem::path& file);

// "MD5:<hex>" of the data of each packet of the first video stream of `file`, in file order: a
// stream copy carries the source's packets unchanged, a re-encode doesn't.
[[nodiscard]] std::vector<std::string> videoPacketHashes(const std::filesystem::path& file);

// The helper folder of this build (ffmpeg, ffprobe, gifsicle), and its tools.
[[nodiscard]] std::filesystem::path helperDirectory();
[[nodiscard]] engine::Tools helperTools();

}  // namespace tessarin::test
