// One ffprobe run reduced to MediaInfo: every decision about a source rests on it.
//
//   ProcessRunner runner;  // another thread may call runner.cancel(...)
//   MediaInfo info = MediaProbe::probe(source, tools, MediaInputPolicy::unrestricted, runner);
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "engine/probe/MediaInfo.hpp"
#include "engine/probe/MediaInputPolicy.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

// Why a probe gave no MediaInfo. Callers choose their own words for each kind.
class MediaProbeError : public std::runtime_error {
public:
    enum class Kind { ffprobeFailed, unparseableOutput, outputTooLarge, timedOut, cancelled };

    // what() is a short English description; for ffprobeFailed it includes `stderrText`,
    // which may name the source, so it is not for logs.
    explicit MediaProbeError(Kind kind, int32_t exitCode = 0, std::string stderrText = {});

    Kind kind;
    int32_t exitCode;        // ffprobeFailed only: the exit status, -1 when ffprobe couldn't start
    std::string stderrText;  // ffprobeFailed only: the tail of ffprobe's standard error
};

class MediaProbe {
public:
    static constexpr double kTimeoutSeconds = 30;

    // The formats ffprobe and ffmpeg may open under the transcription policy.
    static constexpr std::string_view kFormatAllowList =
        "mov,matroska,avi,asf,asf_o,flv,live_flv,kux,mpegts,mpeg,mpegvideo,dv,ogg,nut,mxf,gxf,rm,"
        "wav,w64,flac,aac,ac3,eac3,dts,dtshd,mp3,aiff,caf,amr,amrnb,amrwb,ape,tta,wv,au,voc,ivf,"
        "mjpeg,srt,ass";

    // ffprobe's arguments: JSON of format and streams, chapters when asked, and with
    // `restricted` the format allow-list and the file protocol only. The source path is last.
    [[nodiscard]] static std::vector<std::string> arguments(const std::filesystem::path& source,
                                                            bool includeChapters, bool restricted);

    // Runs `tools.ffprobe` on `runner`, which must be fresh (a runner runs once); any thread
    // may cancel it, also before this call. Blocks the calling thread for ffprobe's whole run,
    // at most `timeout` seconds plus the runner's grace. Standard output is captured up to
    // ProcessRunner::kStdoutCapacity; more is outputTooLarge rather than a cut document.
    // Throws MediaProbeError only: cancelled (also when the run never launched), timedOut,
    // ffprobeFailed (non-zero exit, or exit code -1 when ffprobe could not be started),
    // outputTooLarge, unparseableOutput.
    [[nodiscard]] static MediaInfo probe(const std::filesystem::path& source, const Tools& tools,
                                         MediaInputPolicy policy, ProcessRunner& runner,
                                         double timeout = kTimeoutSeconds,
                                         bool includeChapters = false);

    // Decodes ffprobe's JSON. Absent keys and null values are not errors and unknown keys are
    // ignored; text that is not JSON, or a known key holding another type than ffprobe writes
    // there, throws MediaProbeError(unparseableOutput). Pure; any thread.
    [[nodiscard]] static MediaInfo decode(std::string_view bytes);

    // True when a failure's error text shows that the transcription policy's allow-lists
    // refused the source; always false under `unrestricted`.
    [[nodiscard]] static bool isPolicyRejection(std::string_view stderrText,
                                                MediaInputPolicy policy);
};

}  // namespace tessarin::engine
