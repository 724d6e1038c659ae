// One task on one source file, from the checks before any work through ffmpeg (and gifsicle for
// GIFs) to a verified output published under a free name by an exclusive rename. Nothing ever
// stands under the final name before it has been encoded, probed back and found to hold what was
// asked for; a failed or cancelled run leaves nothing behind but the sweepable remains of a crash.
//
//   ConversionJob job(source, MediaTask::convert(Preset::mp4H264()), Tools::locate(),
//                     MediaInputPolicy::unrestricted, policy, std::nullopt);
//   // elsewhere, any thread, any time: job.cancel(ConversionJob::kUserCancelGrace);
//   std::filesystem::path published = job.run({.onProgress = showFraction});
//
// Threads: run() blocks its (background) thread for the whole job, and every callback runs on
// that thread. cancel() and isCancelled() are safe from any thread at any moment, also before
// run() and after it returned; cancel() never waits for a child.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/clips/FastCut.hpp"
#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/encoders/HardwareEncoderProbe.hpp"
#include "engine/ffmpeg/FFmpegCommandBuilder.hpp"
#include "engine/model/JobFailure.hpp"
#include "engine/model/MediaTask.hpp"
#include "engine/probe/MediaInfo.hpp"
#include "engine/probe/MediaInputPolicy.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"
#include "engine/publish/VolumeInfo.hpp"

namespace tessarin::engine {

class ConversionJob {
public:
    // What a job tells its caller while it runs. Each may be empty. `onProgress` gets a fraction
    // from 0 to 1, or nothing when none can be computed (the display should then stay as it is).
    struct Callbacks {
        std::function<void(const std::string&)> onWarning;
        std::function<void(const MediaInfo&)> onInfo;
        std::function<void(JobPhase)> onPhase;
        std::function<void(std::optional<double>)> onProgress;
    };

    static constexpr double kUserCancelGrace = ProcessRunner::kUserCancelGrace;
    // ffprobe on the source and on the finished encode.
    static constexpr double kProbeTimeout = 30.0;
    // How often a long GIF job freshens its work folder against other jobs' sweeps.
    static constexpr double kWorkFolderTouchSeconds = 240.0;

    // `tools` are the helper folder's; for an `h265` encode under an `external` software HEVC
    // policy they must carry the validated identity. `hardwareEncoders` is what the start-up probe
    // found; it serves the two hardware codecs. An absent `outputDirectory` means the source's
    // folder. Nothing is touched until run().
    ConversionJob(std::filesystem::path source, MediaTask task, Tools tools,
                  MediaInputPolicy inputPolicy, EncoderCapabilityPolicy capabilityPolicy,
                  std::optional<std::filesystem::path> outputDirectory,
                  HardwareEncoderSupport hardwareEncoders = {});
    ConversionJob(const ConversionJob&) = delete;
    ConversionJob& operator=(const ConversionJob&) = delete;

    // Runs the job once and returns the published output's path. Throws JobFailure only
    // (`wasCancelled` when cancel() was called). A job runs at most once: a second call stops the
    // process.
    [[nodiscard]] std::filesystem::path run(const Callbacks& callbacks = {});

    // Marks the job cancelled (for good) and asks the child now running, if any, to stop: SIGTERM,
    // then SIGKILL after `grace` seconds. Any thread, any time; returns at once.
    void cancel(double grace = kUserCancelGrace);
    [[nodiscard]] bool isCancelled() const;

    [[nodiscard]] const std::filesystem::path& source() const { return source_; }
    [[nodiscard]] const MediaTask& task() const { return task_; }
    // The preset of a convert or join task.
    [[nodiscard]] const std::optional<Preset>& preset() const { return preset_; }

    // For a `fastCut` task: the plan the user reviewed. The job plans again and refuses with
    // the `changed` sentence when the source or the boundaries differ from it. Set before run().
    std::optional<FastCut::Plan> expectedFastCutPlan;

    // Test seams, left empty by the application and set before run(): the local-volume test
    // (false forces the network path), a call right before publication, and the free-space
    // reading of any folder.
    std::function<bool(const std::filesystem::path&)> localVolumeOverride;
    std::function<void()> prePublishHook;
    std::function<std::optional<int64_t>(const std::filesystem::path&)> availableCapacityOverride;

private:
    struct Workspace;

    [[nodiscard]] std::filesystem::path runSteps(const Callbacks& callbacks);
    void checkEncoder() const;
    [[nodiscard]] MediaInfo probeSource();
    [[nodiscard]] JoinRanges checkTask(const MediaInfo& info, const Trim& trim) const;
    void encode(const MediaInfo& info, const JoinRanges& ranges, std::optional<double> length,
                const Workspace& workspace, double top, const Callbacks& callbacks);
    void encodeGif(const ConversionOptions& options, const MediaInfo& info,
                   const JoinRanges& ranges, std::optional<double> length,
                   const Workspace& workspace, double top, const Callbacks& callbacks);
    // Probes the finished encode back; `source` is the source's facts, which a fast cut must
    // keep.
    void verify(const std::filesystem::path& encoded, const MediaInfo& source);

    // A fast cut: the plan made anew (and held against the reviewed one), then the copy and the
    // decode checks of its two ends. Throw JobFailure.
    [[nodiscard]] FastCut::Plan planFastCut(const MediaInfo& info, const Trim& trim);
    void copyFastCut(const FastCut::Plan& plan, const MediaInfo& info, std::optional<double> length,
                     const std::filesystem::path& target, double top, const Callbacks& callbacks);
    // Decodes one second of `output` (its first, or with `fromEnd` its last); false when no
    // video frame came out.
    [[nodiscard]] bool decodesBoundary(const std::filesystem::path& output, bool fromEnd);

    // One tool run with ffmpeg's progress on standard output, mapped to [lo, hi] of the job.
    // Returns the last frame count seen. Throws JobFailure with `step`, or LaunchError when the
    // tool could not be started.
    std::optional<int64_t> runTool(const std::string& step, const std::filesystem::path& executable,
                                   const std::vector<std::string>& arguments,
                                   std::optional<double> duration, double lo, double hi,
                                   const std::function<void(std::optional<double>)>& onProgress,
                                   std::optional<double> timeout = std::nullopt);

    // Makes a fresh runner the current one; sets `wasCancelled` to the job's flag as read under
    // the same lock, so that a cancel() either finds the runner or is seen here.
    [[nodiscard]] std::shared_ptr<ProcessRunner> installRunner(bool& wasCancelled);
    void clearRunner();
    [[nodiscard]] VolumeOverrides volumeOverrides() const;

    const std::filesystem::path source_;
    const MediaTask task_;
    const std::optional<Preset> preset_;
    const Tools tools_;
    const MediaInputPolicy inputPolicy_;
    const EncoderCapabilityPolicy capabilityPolicy_;
    const std::optional<std::filesystem::path> outputDirectory_;
    const HardwareEncoderSupport hardwareEncoders_;

    mutable std::mutex mutex_;                      // guards the next three fields
    std::shared_ptr<ProcessRunner> currentRunner_;  // the child now running
    double cancelGrace_ = kUserCancelGrace;         // as asked by the first cancel()
    bool cancelled_ = false;                        // set once, never cleared

    bool started_ = false;  // touched by run()'s thread only
};

}  // namespace tessarin::engine
