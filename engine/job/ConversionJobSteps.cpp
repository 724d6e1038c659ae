// The steps of a conversion job that run tools: the source probe, the encodes (GIF passes and
// gifsicle among them) and the verification of the finished encode.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "engine/ffmpeg/AudioPlan.hpp"
#include "engine/job/ConversionJob.hpp"
#include "engine/job/internal/DecoderComplaints.hpp"
#include "engine/publish/FolderToucher.hpp"
#include "engine/job/internal/JobWorkspace.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "engine/progress/ProgressParser.hpp"
#include "engine/publish/OutputNames.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr const char* kZeroFrames =
    "The encode produced no frames, so the output would have had no video stream. Check the trim "
    "range against the source duration.";

template <typename Action>
class ScopeExit {
public:
    explicit ScopeExit(Action action) : action_(std::move(action)) {}
    ~ScopeExit() { action_(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    Action action_;
};

// The progress state of one tool run, fed from the runner's reading thread.
struct ParserBox {
    std::mutex lock;
    ProgressParser parser;          // guarded by lock
    std::optional<int64_t> frames;  // the last frame count seen; guarded by lock
};

// True when the file starts like a GIF.
bool hasGifSignature(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return false;
    }
    std::array<char, 6> head{};
    const ssize_t got = ::read(fd, head.data(), head.size());
    ::close(fd);
    if (got != static_cast<ssize_t>(head.size())) {
        return false;
    }
    const std::string_view start(head.data(), head.size());
    return start == "GIF87a" || start == "GIF89a";
}

std::optional<int64_t> sizeOf(const fs::path& path) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(path, error);
    if (error) {
        return std::nullopt;
    }
    return static_cast<int64_t>(size);
}

JobFailure launchFailure(const std::string& step, const fs::path& executable,
                         const LaunchError& error) {
    return JobFailure(step, -1,
                      fmt::format("{} could not be started ({}).", executable.filename().string(),
                                  error.code().message()));
}

}  // namespace

std::optional<int64_t> ConversionJob::runTool(
    const std::string& step, const fs::path& executable, const std::vector<std::string>& arguments,
    std::optional<double> duration, double lo, double hi,
    const std::function<void(std::optional<double>)>& onProgress, std::optional<double> timeout) {
    bool cancelledBefore = false;
    const std::shared_ptr<ProcessRunner> runner = installRunner(cancelledBefore);
    const ScopeExit clear([this] { clearRunner(); });
    if (cancelledBefore) {
        double grace = kUserCancelGrace;
        {
            const std::lock_guard lock(mutex_);
            grace = cancelGrace_;
        }
        runner->cancel(grace);
        throw JobFailure(step, std::nullopt,
                         describeCancellation(runner->cancellationOutcome(), ""), true);
    }

    ParserBox box;
    ProcessRunner::RawOptions options;
    options.timeout = timeout;
    options.stdoutHandler = [&](std::string_view chunk) {
        std::vector<ProgressSnapshot> snapshots;
        {
            const std::lock_guard lock(box.lock);
            snapshots = box.parser.feed(chunk);
            for (const ProgressSnapshot& snapshot : snapshots) {
                if (snapshot.frame) {
                    box.frames = snapshot.frame;
                }
            }
        }
        if (onProgress) {
            for (const ProgressSnapshot& snapshot : snapshots) {
                onProgress(ProgressParser::fraction(snapshot, duration, lo, hi));
            }
        }
    };
    const ProcessResult result = runner->runRaw(executable, arguments, std::move(options));

    const bool cancelled = isCancelled() || result.wasCancelled;
    if (result.timedOut) {
        throw JobFailure(step, std::nullopt,
                         "Verification timed out. The output was not published.", isCancelled());
    }
    if (result.exitCode == 0 && !cancelled) {
        const std::lock_guard lock(box.lock);
        return box.frames;
    }
    if (cancelled) {
        throw JobFailure(step, result.exitCode,
                         describeCancellation(runner->cancellationOutcome(), result.stderrTail),
                         true);
    }
    std::string text = job_internal::toolFailureText(result.stderrTail);
    if (text.empty()) {
        text = fmt::format("{} ended with status {} and printed no error.",
                           executable.filename().string(), result.exitCode);
    }
    throw JobFailure(step, result.exitCode, std::move(text), false);
}

MediaInfo ConversionJob::probeSource() {
    bool cancelled = false;
    const std::shared_ptr<ProcessRunner> runner = installRunner(cancelled);
    const ScopeExit clear([this] { clearRunner(); });
    if (cancelled) {
        throw JobFailure::cancelled("probe");
    }
    try {
        // A fast cut tells how many chapters the copy leaves out.
        const bool chapters = std::holds_alternative<MediaTask::FastCut>(task_.kind);
        return MediaProbe::probe(source_, tools_, inputPolicy_, *runner, kProbeTimeout, chapters);
    } catch (const MediaProbeError& error) {
        switch (error.kind) {
            case MediaProbeError::Kind::unparseableOutput:
                throw JobFailure::sentence("probe", "unparseable ffprobe output");
            case MediaProbeError::Kind::outputTooLarge:
                throw JobFailure::sentence("probe", "probe output too large to parse");
            case MediaProbeError::Kind::timedOut:
                throw JobFailure::sentence("probe", "ffprobe timed out");
            case MediaProbeError::Kind::cancelled:
                throw JobFailure::cancelled("probe");
            case MediaProbeError::Kind::ffprobeFailed:
                break;
        }
        std::string text = job_internal::toolFailureText(error.stderrText);
        if (text.empty()) {
            text =
                fmt::format("ffprobe ended with status {} and printed no error.", error.exitCode);
        }
        throw JobFailure("probe", error.exitCode, std::move(text));
    }
}

void ConversionJob::encode(const MediaInfo& info, const JoinRanges& ranges,
                           std::optional<double> length, const Workspace& workspace, double top,
                           const Callbacks& callbacks) {
    const fs::path& target = *workspace.encodeTarget;
    const auto runFfmpeg = [&](const std::vector<std::string>& arguments) {
        try {
            return runTool("ffmpeg", tools_.ffmpeg, arguments, length, 0.0, top,
                           callbacks.onProgress);
        } catch (const LaunchError& error) {
            throw launchFailure("ffmpeg", tools_.ffmpeg, error);
        }
    };

    if (const auto* audio = std::get_if<MediaTask::ExtractAudio>(&task_.kind)) {
        const std::optional<std::string> allowList =
            inputPolicy_ == MediaInputPolicy::transcription
                ? std::optional<std::string>(MediaProbe::kFormatAllowList)
                : std::nullopt;
        (void)runFfmpeg(FFmpegCommandBuilder::audioExtractionArguments(source_, target,
                                                                       audio->options, allowList));
        return;
    }

    const ConversionOptions& options = preset_->options;
    if (options.format.isGif()) {
        encodeGif(options, info, ranges, length, workspace, top, callbacks);
        return;
    }
    const AudioPlan audio = AudioPlan::forSource(info.hasAudio, info.audioCodec);
    std::vector<std::string> arguments;
    if (options.format.kind == OutputFormat::Kind::webm) {
        arguments = FFmpegCommandBuilder::webmArguments(source_, target, options, audio, ranges,
                                                        info.videoCodec);
    } else {
        std::optional<HardwareEncoderBlock> hardware;
        if (const std::optional<HardwareEncoder> encoder =
                hardwareEncoders_.encoder(options.format.codec)) {
            const int quality = options.crf.value_or(defaultQuality(options.format.codec));
            hardware = HardwareEncoderBlock{encoder->arguments(quality), encoder->filterSuffix};
        }
        arguments = FFmpegCommandBuilder::mp4Arguments(source_, target, options, audio, ranges,
                                                       info.videoCodec, hardware);
    }
    if (runFfmpeg(arguments) == 0) {
        throw JobFailure::sentence("encode", kZeroFrames);
    }
}

void ConversionJob::encodeGif(const ConversionOptions& options, const MediaInfo& info,
                              const JoinRanges& ranges, std::optional<double> length,
                              const Workspace& workspace, double top, const Callbacks& callbacks) {
    if (!workspace.gifFolder || !fs::is_directory(*workspace.gifFolder)) {
        throw JobFailure::sentence("scratch", "the private GIF work folder was not available");
    }
    const fs::path& target = *workspace.encodeTarget;
    const fs::path palette = *workspace.gifFolder / "palette.png";
    const fs::path optimized = target.parent_path() / newOptimizedName(workspace.finalName);
    const ScopeExit removeLeftovers([&] {
        std::error_code ignored;
        fs::remove(optimized, ignored);
        fs::remove(palette, ignored);
    });
    const auto run = [&](const std::string& step, const fs::path& executable,
                         const std::vector<std::string>& arguments, std::optional<double> duration,
                         double lo, double hi) {
        return runTool(step, executable, arguments, duration, lo, hi, callbacks.onProgress);
    };

    try {
        (void)run("ffmpeg", tools_.ffmpeg,
                  FFmpegCommandBuilder::gifPaletteArguments(source_, palette, options, ranges,
                                                            info.videoCodec),
                  length, 0.0, 0.45 * top);
    } catch (const LaunchError& error) {
        throw launchFailure("ffmpeg", tools_.ffmpeg, error);
    }
    if (sizeOf(palette).value_or(0) <= 0) {
        throw JobFailure("ffmpeg", std::nullopt, "palette generation produced an empty file",
                         isCancelled());
    }
    std::optional<int64_t> frames;
    try {
        frames = run("ffmpeg", tools_.ffmpeg,
                     FFmpegCommandBuilder::gifRenderArguments(source_, palette, target, options,
                                                              ranges, info.videoCodec),
                     length, 0.45 * top, 0.9 * top);
    } catch (const LaunchError& error) {
        throw launchFailure("ffmpeg", tools_.ffmpeg, error);
    }
    if (frames == 0) {
        throw JobFailure::sentence("encode", kZeroFrames);
    }
    if (!options.optimizeGif) {
        return;
    }

    std::optional<std::string> reason;
    {
        FolderToucher toucher(
            *workspace.gifFolder,
            std::chrono::milliseconds(static_cast<int64_t>(kWorkFolderTouchSeconds * 1000)));
        try {
            (void)run("gifsicle", tools_.gifsicle,
                      FFmpegCommandBuilder::gifsicleArguments(target, optimized, options),
                      std::nullopt, 0.9 * top, top);
        } catch (const JobFailure& failure) {
            if (failure.wasCancelled) {
                throw;
            }
            reason = failure.exitCode ? fmt::format("gifsicle exit {}", *failure.exitCode)
                                      : std::string("gifsicle exit n/a");
        } catch (const std::exception&) {
            reason = "gifsicle could not run";
        }
    }
    if (reason) {
        if (callbacks.onWarning) {
            callbacks.onWarning("GIF optimization failed (" + *reason +
                                "); kept the unoptimized GIF");
        }
        return;
    }
    if (hasGifSignature(optimized)) {
        std::error_code error;
        fs::rename(optimized, target, error);
        if (error) {
            throw JobFailure::sentence("gifsicle",
                                       "the optimized GIF could not replace the unoptimized one (" +
                                           error.message() + ").");
        }
    }
}

void ConversionJob::verify(const fs::path& encoded, const MediaInfo& source) {
    bool cancelled = false;
    const std::shared_ptr<ProcessRunner> runner = installRunner(cancelled);
    const ScopeExit clear([this] { clearRunner(); });
    if (cancelled) {
        return;
    }
    MediaInfo output;
    try {
        output = MediaProbe::probe(encoded, tools_, MediaInputPolicy::unrestricted, *runner,
                                   kProbeTimeout, false);
    } catch (const MediaProbeError& error) {
        switch (error.kind) {
            case MediaProbeError::Kind::cancelled:
                return;
            case MediaProbeError::Kind::ffprobeFailed:
                if (error.exitCode == -1) {
                    throw JobFailure::sentence("verify",
                                               "The bundled ffprobe verifier could not be started. "
                                               "The finished encode was not published.");
                }
                throw JobFailure("verify", error.exitCode,
                                 "ffprobe could not read the finished encode; the container may "
                                 "be corrupt. It was not published.");
            case MediaProbeError::Kind::timedOut:
                throw JobFailure::sentence("verify",
                                           "The finished encode could not be verified because "
                                           "ffprobe timed out. It was not published.");
            case MediaProbeError::Kind::outputTooLarge:
                throw JobFailure::sentence("verify",
                                           "ffprobe returned too much metadata to verify the "
                                           "finished encode. It was not published.");
            case MediaProbeError::Kind::unparseableOutput:
                throw JobFailure::sentence("verify",
                                           "ffprobe returned malformed metadata for the finished "
                                           "encode. It was not published.");
        }
        throw JobFailure::sentence("verify",
                                   "The finished encode could not be verified and was not "
                                   "published.");
    } catch (const std::exception&) {
        throw JobFailure::sentence("verify",
                                   "The finished encode could not be verified and was not "
                                   "published.");
    }
    const ExpectedOutputStream expected =
        std::holds_alternative<MediaTask::ExtractAudio>(task_.kind) ? ExpectedOutputStream::audio
                                                                    : ExpectedOutputStream::video;
    if (expected == ExpectedOutputStream::audio && !output.hasAudio) {
        throw JobFailure::sentence("encode",
                                   "The finished file contains no audio stream, so there would "
                                   "have been nothing to play. Check the trim range against the "
                                   "source duration.");
    }
    if (expected == ExpectedOutputStream::video && !output.width) {
        throw JobFailure::sentence("encode",
                                   "The finished encode contains no video stream, so it would not "
                                   "have played. Check the trim range against the source "
                                   "duration.");
    }
    if (std::holds_alternative<MediaTask::FastCut>(task_.kind) &&
        (output.videoCodec != source.videoCodec || output.width != source.width ||
         output.height != source.height || output.hasAudio != source.hasAudio ||
         output.audioCodec != source.audioCodec)) {
        throw JobFailure::sentence("verify",
                                   "Fast cut did not preserve the expected video/audio streams. "
                                   "It was not published.");
    }
}

}  // namespace tessarin::engine
