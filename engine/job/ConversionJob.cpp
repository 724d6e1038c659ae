#include "engine/job/ConversionJob.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <type_traits>
#include <variant>

#include "engine/clips/ClipSelection.hpp"
#include "engine/encoders/ExternalSoftwareHEVCValidator.hpp"
#include "engine/job/internal/JobWorkspace.hpp"
#include "engine/log/Log.hpp"
#include "engine/model/TimeText.hpp"
#include "engine/publish/Destination.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/Publish.hpp"
#include "engine/publish/Sweeps.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFat32Notice =
    "The destination is a FAT32 (MS-DOS) drive; files larger than 4 GB will fail to save. Use an "
    "exFAT or Linux-formatted drive (ext4, btrfs, xfs) for large videos.";
constexpr const char* kStartupDiskFull =
    "The startup disk is out of free space. Saving to a network destination encodes to the "
    "startup disk first, so it needs room there even when the destination has plenty.";
constexpr const char* kStartupDiskSmallerThanSource =
    "The startup disk has less free space than the size of the source. Saving to a network "
    "destination encodes to the startup disk first, so the encode may run out of room.";
constexpr const char* kTrustPrefix = "External software H.265 toolchain is no longer trusted: ";

const Logger& jobLog() {
    static const Logger log("com.tessarin.engine", "job");
    return log;
}

std::optional<int64_t> fileSize(const fs::path& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        return std::nullopt;
    }
    return st.st_size;
}

bool isDirectory(const fs::path& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The seconds a range selects of a source `duration` long: each end capped by the duration, a
// missing or unreadable start meaning 0 and a missing or unreadable end meaning the end.
double selectedSeconds(const Trim& trim, double duration) {
    const double start = trim.start ? parseTimeSeconds(*trim.start).value_or(0.0) : 0.0;
    double end = trim.end ? parseTimeSeconds(*trim.end).value_or(duration) : duration;
    end = std::min(end, duration);
    return std::max(0.0, end - std::min(start, duration));
}

// The length the output should have, for progress: absent without a source duration or when
// nothing above zero is selected.
std::optional<double> expectedLength(const Trim& trim, const JoinRanges& ranges,
                                     std::optional<double> duration) {
    if (!duration || *duration <= 0) {
        return std::nullopt;
    }
    double total = 0;
    if (ranges) {
        for (const Trim& range : *ranges) {
            total += selectedSeconds(range, *duration);
        }
    } else {
        total = selectedSeconds(trim, *duration);
    }
    return total > 0 ? std::optional(total) : std::nullopt;
}

std::string extensionOf(const fs::path& path) {
    std::string extension = path.extension().string();
    return extension.empty() ? std::string("none") : extension.substr(1);
}

std::string_view taskName(const MediaTask& task) {
    return std::visit(
        [](const auto& kind) -> std::string_view {
            using Kind = std::decay_t<decltype(kind)>;
            if constexpr (std::is_same_v<Kind, MediaTask::Convert>) {
                return "convert";
            } else if constexpr (std::is_same_v<Kind, MediaTask::Join>) {
                return "join";
            } else if constexpr (std::is_same_v<Kind, MediaTask::ExtractAudio>) {
                return "extractAudio";
            } else {
                return "fastCut";
            }
        },
        task.kind);
}

std::optional<Preset> presetOf(const MediaTask& task) {
    if (const auto* convert = std::get_if<MediaTask::Convert>(&task.kind)) {
        return convert->preset;
    }
    if (const auto* join = std::get_if<MediaTask::Join>(&task.kind)) {
        return join->preset;
    }
    return std::nullopt;
}

// The trim that applies: the preset's, the audio options' or the fast cut's.
Trim applicableTrim(const MediaTask& task, const std::optional<Preset>& preset) {
    if (preset) {
        return preset->options.trim;
    }
    if (const auto* audio = std::get_if<MediaTask::ExtractAudio>(&task.kind)) {
        return audio->options.trim;
    }
    return std::get<MediaTask::FastCut>(task.kind).trim;
}

}  // namespace

ConversionJob::ConversionJob(fs::path source, MediaTask task, Tools tools,
                             MediaInputPolicy inputPolicy, EncoderCapabilityPolicy capabilityPolicy,
                             std::optional<fs::path> outputDirectory,
                             HardwareEncoderSupport hardwareEncoders)
    : source_(std::move(source)),
      task_(std::move(task)),
      preset_(presetOf(task_)),
      tools_(std::move(tools)),
      inputPolicy_(inputPolicy),
      capabilityPolicy_(capabilityPolicy),
      outputDirectory_(std::move(outputDirectory)),
      hardwareEncoders_(std::move(hardwareEncoders)) {}

void ConversionJob::cancel(double grace) {
    std::shared_ptr<ProcessRunner> runner;
    {
        const std::lock_guard lock(mutex_);
        if (!cancelled_) {
            cancelled_ = true;
            cancelGrace_ = grace;
        }
        runner = currentRunner_;
    }
    if (runner) {
        runner->cancel(grace);
    }
}

bool ConversionJob::isCancelled() const {
    const std::lock_guard lock(mutex_);
    return cancelled_;
}

std::shared_ptr<ProcessRunner> ConversionJob::installRunner(bool& wasCancelled) {
    auto runner = std::make_shared<ProcessRunner>();
    const std::lock_guard lock(mutex_);
    currentRunner_ = runner;
    wasCancelled = cancelled_;
    return runner;
}

void ConversionJob::clearRunner() {
    const std::lock_guard lock(mutex_);
    currentRunner_.reset();
}

VolumeOverrides ConversionJob::volumeOverrides() const {
    VolumeOverrides overrides;
    overrides.availableCapacityOverride = availableCapacityOverride;
    overrides.localVolumeOverride = localVolumeOverride;
    return overrides;
}

void ConversionJob::checkEncoder() const {
    if (!preset_ || preset_->options.format.isGif()) {
        return;
    }
    const VideoCodec codec = preset_->options.format.codec;
    if (!capabilityPolicy_.allows(codec)) {
        throw JobFailure::sentence("encoder", kHEVCUnavailableSentence);
    }
    if (isSoftwareHEVC(codec) && capabilityPolicy_.softwareHEVC == SoftwareHEVCSource::external) {
        if (!tools_.externalSoftwareHEVCIdentity) {
            throw JobFailure::sentence("encoder",
                                       "The external software H.265 toolchain has no validated "
                                       "identity.");
        }
        try {
            ExternalSoftwareHEVCValidator{}.revalidate(*tools_.externalSoftwareHEVCIdentity);
        } catch (const ExternalSoftwareHEVCValidationError& error) {
            throw JobFailure::sentence("encoder", kTrustPrefix + std::string(error.what()));
        } catch (const std::system_error& error) {
            throw JobFailure::sentence("encoder", kTrustPrefix + std::string(error.what()));
        }
    }
    if (isHardware(codec) && !hardwareEncoders_.encoder(codec)) {
        throw JobFailure::sentence("encoder", hardwareEncoders_.disabledReason(codec).value_or(
                                                  kNoHardwareEncoderSentence));
    }
}

JoinRanges ConversionJob::checkTask(const MediaInfo& info, const Trim& trim) const {
    if (std::holds_alternative<MediaTask::ExtractAudio>(task_.kind) && !info.hasAudio) {
        throw JobFailure::sentence("preflight",
                                   "This video has no audio track, so there is nothing to "
                                   "extract.");
    }
    const auto* join = std::get_if<MediaTask::Join>(&task_.kind);
    if (join && !join->preset.options.trim.isEmpty()) {
        throw JobFailure::sentence("join",
                                   "A joined task cannot also specify a single preset trim.");
    }
    if (std::optional<JobFailure> failure =
            validateTrim(trim.start, trim.end, info.durationSeconds)) {
        throw *failure;
    }
    if (!join) {
        return std::nullopt;
    }
    try {
        std::vector<ClipSelection> clips;
        clips.reserve(join->ranges.size());
        for (const Trim& range : join->ranges) {
            clips.emplace_back(range);
        }
        return ClipSelection::join(clips, info.durationSeconds, join->removing);
    } catch (const ClipSelection::Invalid& invalid) {
        throw JobFailure::sentence("join", invalid.what());
    }
}

fs::path ConversionJob::run(const Callbacks& callbacks) {
    if (started_) {
        std::fputs("tessarin: programmer error: a ConversionJob runs once\n", stderr);
        std::abort();
    }
    started_ = true;
    jobLog().info(KeyValues()
                      .add("event", "start")
                      .add("task", taskName(task_))
                      .add("source", privateValue(source_.filename().string()))
                      .add("ext", extensionOf(source_))
                      .str());
    try {
        fs::path published;
        try {
            published = runSteps(callbacks);
        } catch (const JobFailure&) {
            throw;
        } catch (const std::exception& error) {
            // Only file-system calls outside the checked steps and the kernel's random source get
            // here; the job still ends with a failure of its own kind.
            throw JobFailure::sentence(
                "preflight",
                std::string("The job stopped on an unexpected error: ") + error.what());
        }
        jobLog().notice(
            KeyValues().add("event", "published").add("ext", extensionOf(published)).str());
        return published;
    } catch (const JobFailure& failure) {
        jobLog().notice(KeyValues()
                            .add("event", failure.wasCancelled ? "cancelled" : "failed")
                            .add("step", failure.step)
                            .add("exit", failure.exitCode ? std::to_string(*failure.exitCode)
                                                          : std::string("none"))
                            .str());
        throw;
    }
}

fs::path ConversionJob::runSteps(const Callbacks& callbacks) {
    const auto warn = [&](const std::string& text) {
        if (callbacks.onWarning) {
            callbacks.onWarning(text);
        }
    };
    const VolumeOverrides overrides = volumeOverrides();

    checkEncoder();
    const Trim trim = applicableTrim(task_, preset_);

    const fs::path folder = outputFolder(source_, outputDirectory_);
    checkDestination(folder, true, overrides);
    if (isMsdosVolume(folder)) {
        warn(kFat32Notice);
    }
    if (callbacks.onPhase) {
        callbacks.onPhase(JobPhase::encoding);
    }

    const MediaInfo info = probeSource();
    if (callbacks.onInfo) {
        callbacks.onInfo(info);
    }
    const JoinRanges ranges = checkTask(info, trim);
    std::optional<double> length = expectedLength(trim, ranges, info.durationSeconds);
    std::optional<FastCut::Plan> cutPlan;
    if (std::holds_alternative<MediaTask::FastCut>(task_.kind)) {
        cutPlan = planFastCut(info, trim);
        warn(FastCut::jobNote(*cutPlan));
        length = cutPlan->end - cutPlan->start;
    }

    const OutputNaming naming = outputNaming(task_);
    Workspace workspace;
    workspace.finalName =
        firstFreeName(source_, naming.filenameSuffix, naming.fileExtension, outputDirectory_)
            .filename()
            .string();
    const bool local = isLocalVolume(folder, overrides);
    const fs::path temporary = temporaryRoot();
    sweepTemporaryDirectory(temporary);
    sweepOutputFolder(folder);

    if (!local) {
        const std::optional<int64_t> free = availableCapacity(temporary, overrides);
        if (free && *free < kCriticallyLowFreeBytes) {
            throw JobFailure::sentence("scratch", kStartupDiskFull);
        }
        const std::optional<int64_t> sourceSize = fileSize(source_);
        if (free && sourceSize && *free < *sourceSize) {
            warn(kStartupDiskSmallerThanSource);
        }
        const fs::path workFolder = temporary / newWorkFolderName();
        try {
            makePrivateFolder(workFolder);
        } catch (const std::exception& error) {
            throw JobFailure::sentence(
                "scratch",
                std::string("could not create the local work folder for the network copy: ") +
                    error.what());
        }
        workspace.workFolder = workFolder;
    }
    if (preset_ && preset_->options.format.isGif()) {
        if (workspace.workFolder) {
            workspace.gifFolder = workspace.workFolder;
        } else {
            const fs::path gifFolder = temporary / newWorkFolderName();
            try {
                makePrivateFolder(gifFolder);
            } catch (const std::exception& error) {
                throw JobFailure::sentence(
                    "scratch",
                    std::string("could not create the private GIF work folder: ") + error.what());
            }
            workspace.gifFolder = gifFolder;
        }
    }
    if (local) {
        try {
            workspace.scratch = makeScratch(folder, overrides);
        } catch (const JobFailure&) {
            throw;
        } catch (const std::exception& error) {
            throw JobFailure::sentence("scratch", std::string("Could not create the private work "
                                                              "folder (") +
                                                      error.what() + ").");
        }
    }
    const fs::path encodeFolder = local ? *workspace.scratch : *workspace.workFolder;
    workspace.encodeTarget = encodeFolder / newConvertingName(workspace.finalName);

    const double top = local ? 1.0 : 0.9;
    try {
        if (cutPlan) {
            copyFastCut(*cutPlan, info, length, *workspace.encodeTarget, top, callbacks);
        } else {
            encode(info, ranges, length, workspace, top, callbacks);
        }
    } catch (const JobFailure&) {
        if (!local) {
            const std::optional<int64_t> free = availableCapacity(temporary, overrides);
            if (free && *free < kCriticallyLowFreeBytes) {
                throw JobFailure::sentence("scratch", kStartupDiskFull);
            }
            if (!isDirectory(folder)) {
                throw JobFailure::sentence("destination", std::string(kDestinationGone));
            }
        }
        throw;
    }
    if (callbacks.onProgress) {
        callbacks.onProgress(top);
    }

    verify(*workspace.encodeTarget, info);

    const auto cancelledBeforePublication = [this] {
        bool cancelled = false;
        {
            const std::lock_guard lock(mutex_);
            currentRunner_.reset();
            cancelled = cancelled_;
        }
        if (cancelled) {
            throw JobFailure("publish", std::nullopt, "cancelled", true);
        }
    };
    cancelledBeforePublication();
    if (!isDirectory(folder)) {
        throw JobFailure::sentence("destination", std::string(kDestinationGone));
    }
    checkDestination(folder, false, overrides);

    const auto isCancelledNow = [this] { return isCancelled(); };
    fs::path toPublish = *workspace.encodeTarget;
    if (!local) {
        toPublish =
            copyToDestination(*workspace.encodeTarget, folder, workspace.finalName, isCancelledNow,
                              callbacks.onPhase, callbacks.onProgress, top, overrides);
        workspace.copyTemporary = toPublish;
    }

    if (prePublishHook) {
        prePublishHook();
    }
    cancelledBeforePublication();

    const fs::path published =
        publishUnderFreeName(toPublish, source_, naming, outputDirectory_, isCancelledNow,
                             cloneFileContents, renameExclusive, overrides);
    if (callbacks.onProgress) {
        callbacks.onProgress(1.0);
    }
    return published;
}

}  // namespace tessarin::engine
