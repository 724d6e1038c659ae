#include "engine/frames/FrameExtractionJob.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "engine/clips/ClipSelection.hpp"
#include "engine/frames/internal/AnalysisStream.hpp"
#include "engine/frames/internal/FrameJobPlan.hpp"
#include "engine/model/TimeText.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "engine/publish/Destination.hpp"
#include "engine/publish/FolderToucher.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/Publish.hpp"
#include "engine/publish/Sweeps.hpp"
#include "engine/publish/VolumeInfo.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::seconds kStagingTouchPeriod{240};
constexpr int kPublishRounds = 64;
// The folder name is the stem plus "-frames-NN"; 255 bytes is the longest name a file system
// takes.
constexpr std::size_t kNameSuffixRoom = 11;
constexpr std::size_t kLongestName = 256;

std::string errorText(const std::exception& error) {
    return error.what();
}

// `text` without its last UTF-8 character.
void dropLastCharacter(std::string& text) {
    while (!text.empty()) {
        const auto byte = static_cast<unsigned char>(text.back());
        text.pop_back();
        if ((byte & 0xC0) != 0x80) {
            return;
        }
    }
}

int openDirectory(const fs::path& path) {
    return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

// The folder takes the name only when nothing stands there. renameat2 refuses to replace where
// it is supported; elsewhere an empty folder claims the name first and the rename replaces only
// that claim.
int renameFolderExclusively(int directoryFd, const char* from, const char* to) {
    const int error = renameExclusive(directoryFd, from, directoryFd, to);
    if (error != EINVAL && error != EPERM) {
        return error;
    }
    if (::mkdirat(directoryFd, to, 0700) != 0) {
        return errno;
    }
    if (::renameat(directoryFd, from, directoryFd, to) != 0) {
        const int renameError = errno;
        ::unlinkat(directoryFd, to, AT_REMOVEDIR);
        return renameError;
    }
    return 0;
}

JobFailure probeFailure(const MediaProbeError& error, const fs::path& link,
                        const fs::path& source) {
    switch (error.kind) {
        case MediaProbeError::Kind::cancelled:
            return JobFailure::cancelled("probe");
        case MediaProbeError::Kind::timedOut:
            return JobFailure::sentence("probe", "ffprobe timed out");
        case MediaProbeError::Kind::unparseableOutput:
            return JobFailure::sentence("probe", "unparseable ffprobe output");
        case MediaProbeError::Kind::outputTooLarge:
            return JobFailure::sentence("probe", "probe output too large to parse");
        case MediaProbeError::Kind::ffprobeFailed:
            break;
    }
    std::string text = frames_internal::withSourceName(error.stderrText, link, source);
    if (text.empty()) {
        text = fmt::format("ffprobe ended with status {} and printed no error.", error.exitCode);
    }
    return JobFailure("probe", error.exitCode, std::move(text));
}

}  // namespace

std::string frames_internal::withSourceName(std::string text, const fs::path& link,
                                            const fs::path& source) {
    const std::string linkText = link.string();
    const std::string name = source.filename().string();
    for (std::size_t at = text.find(linkText); at != std::string::npos;
         at = text.find(linkText, at + name.size())) {
        text.replace(at, linkText.size(), name);
    }
    return text;
}

FrameExtractionJob::FrameExtractionJob(fs::path source, FrameExtractionOptions options,
                                       std::optional<fs::path> outputDirectory, Tools tools)
    : source_(std::move(source)),
      options_(std::move(options)),
      outputDirectory_(std::move(outputDirectory)),
      tools_(std::move(tools)) {}

FrameExtractionJob::~FrameExtractionJob() = default;

void FrameExtractionJob::cancel() {
    std::shared_ptr<ProcessRunner> runner;
    std::shared_ptr<frames_internal::AnalysisStream> stream;
    {
        const std::lock_guard lock(mutex_);
        cancelled_ = true;
        runner = currentRunner_;
        stream = currentStream_;
    }
    if (stream) {
        stream->stop();
    }
    if (runner) {
        runner->cancel(kCancelGrace);
    }
}

bool FrameExtractionJob::isCancelled() const {
    const std::lock_guard lock(mutex_);
    return cancelled_;
}

std::shared_ptr<ProcessRunner> FrameExtractionJob::installRunner() {
    auto runner = std::make_shared<ProcessRunner>();
    const std::lock_guard lock(mutex_);
    currentRunner_ = runner;
    if (cancelled_) {
        runner->cancel(kCancelGrace);  // before the launch: it never starts
    }
    return runner;
}

void FrameExtractionJob::clearRunner() {
    const std::lock_guard lock(mutex_);
    currentRunner_.reset();
    currentStream_.reset();
}

void FrameExtractionJob::throwIfCancelled(const char* step) const {
    if (isCancelled()) {
        throw JobFailure::cancelled(step);
    }
}

FrameExtractionResult FrameExtractionJob::run(const Callbacks& callbacks) {
    if (started_) {
        std::fputs("tessarin: programmer error: a FrameExtractionJob runs once\n", stderr);
        std::abort();
    }
    started_ = true;
    Workspace workspace;
    try {
        return runSteps(callbacks, workspace);
    } catch (const JobFailure& failure) {
        if (isCancelled() && !failure.wasCancelled) {
            throw JobFailure::cancelled(failure.step);
        }
        throw;
    } catch (const std::exception& error) {
        throw JobFailure::sentence("preflight", std::string("The export stopped on an unexpected "
                                                            "error: ") +
                                                    error.what());
    }
}

FrameExtractionJob::Plan FrameExtractionJob::plan(const Callbacks& callbacks,
                                                  Workspace& workspace) {
    const auto warn = [&](FrameWarning warning) {
        if (callbacks.onWarning) {
            callbacks.onWarning(warning);
        }
    };
    try {
        options_.validate();
        (void)ClipSelection(options_.trim);
    } catch (const FrameExtractionOptions::Invalid& invalid) {
        throw JobFailure::sentence("preflight", invalid.what());
    } catch (const ClipSelection::Invalid& invalid) {
        throw JobFailure::sentence("preflight", invalid.what());
    }

    Plan plan;
    plan.destination = outputDirectory_ ? *outputDirectory_ : source_.parent_path();
    if (plan.destination.empty()) {
        plan.destination = ".";
    }
    std::error_code error;
    if (!fs::is_directory(plan.destination, error)) {
        throw JobFailure::sentence(
            "preflight", "Destination folder does not exist: " + plan.destination.string());
    }
    if (::access(plan.destination.c_str(), W_OK) != 0) {
        throw JobFailure::sentence(
            "preflight", "Destination folder is not writable: " + plan.destination.string());
    }
    const auto checkRoom = [&](int64_t frames) {
        const std::optional<int64_t> free = availableCapacityOverride
                                                ? availableCapacityOverride(plan.destination)
                                                : availableCapacity(plan.destination);
        if (free && *free < frameExportBytesNeeded(frames)) {
            throw JobFailure::sentence(
                "preflight", fmt::format("The destination drive is too full to save {} frames: {}",
                                         frames, plan.destination.string()));
        }
    };
    checkRoom(options_.maxFrames.value_or(automaticFrameBudget(0)));

    const fs::path temporary = temporaryRoot();
    sweepTemporaryDirectory(temporary);
    sweepOutputFolder(plan.destination);

    struct stat status {};
    const std::optional<FastCut::SourceStamp> stamp = FastCut::SourceStamp::of(source_);
    if (!stamp || ::stat(source_.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw JobFailure::sentence("probe",
                                   "The video can't be read: it is missing or not a regular file.");
    }
    plan.stamp = *stamp;

    const fs::path workFolder = temporary / newWorkFolderName();
    try {
        makePrivateFolder(workFolder);
    } catch (const std::exception& failure) {
        throw JobFailure::sentence(
            "scratch",
            fmt::format("Could not create a private working folder ({}).", errorText(failure)));
    }
    workspace.workFolder = workFolder;
    // ffmpeg only ever sees this link, so a source path with % or a line break can't confuse it.
    plan.input = workFolder / "input";
    fs::create_symlink(fs::absolute(source_), plan.input, error);
    if (error) {
        throw JobFailure::sentence(
            "scratch", fmt::format("Could not prepare the working folder ({}).", error.message()));
    }

    {
        const std::shared_ptr<ProcessRunner> runner = installRunner();
        try {
            plan.info =
                MediaProbe::probe(plan.input, tools_, MediaInputPolicy::unrestricted, *runner);
        } catch (const MediaProbeError& failure) {
            clearRunner();
            throw probeFailure(failure, plan.input, source_);
        }
        clearRunner();
    }
    if (!plan.info.width || !plan.info.height) {
        throw JobFailure::sentence("probe", "This file has no video to take frames from.");
    }
    plan.length =
        std::max(plan.info.videoDuration.value_or(0), plan.info.durationSeconds.value_or(0));
    if (!std::isfinite(plan.length) || plan.length <= 0) {
        throw JobFailure::sentence(
            "probe", "The video's length is unknown, so its frames can't be placed in time.");
    }
    if (plan.info.isHDR) {
        warn(FrameWarning::hdrNotToneMapped);
    }
    if (std::optional<JobFailure> failure =
            validateTrim(options_.trim.start, options_.trim.end, plan.length)) {
        throw *failure;
    }
    const Trim& trim = options_.trim;
    plan.start = trim.start ? parseTimeSeconds(*trim.start).value_or(0) : 0;
    plan.end = std::min(trim.end ? parseTimeSeconds(*trim.end).value_or(plan.length) : plan.length,
                        plan.length);
    plan.window = plan.end - plan.start;
    if (plan.window > kMaximumWindowSeconds) {
        throw JobFailure::sentence("trim",
                                   "Frames can be taken from at most 6 hours of video at a time. "
                                   "Choose a shorter range with the trim options.");
    }
    plan.trimmed = !trim.isEmpty();
    plan.maxFrames = options_.maxFrames.value_or(automaticFrameBudget(plan.window));
    checkRoom(plan.maxFrames);
    plan.av1 = plan.info.videoCodec == "av1";
    return plan;
}

FrameExtractionResult FrameExtractionJob::runSteps(const Callbacks& callbacks,
                                                   Workspace& workspace) {
    // Every warning, in order of discovery, for the caller and for the manifest.
    std::vector<FrameWarning> warnings;
    Callbacks tracked = callbacks;
    tracked.onWarning = [&](FrameWarning warning) {
        warnings.push_back(warning);
        if (callbacks.onWarning) {
            callbacks.onWarning(warning);
        }
    };
    const Plan plan = this->plan(tracked, workspace);
    if (callbacks.onPhase) {
        callbacks.onPhase(FrameExtractionPhase::analyzing);
    }
    const FrameSelectionResult selection = analyse(plan, callbacks);
    for (const FrameWarning warning : selection.warnings) {
        tracked.onWarning(warning);
    }
    if (betweenPassesHook) {
        betweenPassesHook();
    }

    if (callbacks.onPhase) {
        callbacks.onPhase(FrameExtractionPhase::extracting);
    }
    bool privacyEnforced = true;
    std::error_code error;
    if (!fs::is_directory(plan.destination, error)) {
        throw JobFailure::sentence("destination", std::string(kDestinationGone));
    }
    try {
        workspace.staging = makeScratch(plan.destination);
    } catch (const JobFailure& failure) {
        if (failure.step != "destination") {
            throw JobFailure::sentence(
                "scratch",
                fmt::format("Could not create the frames folder ({}).", failure.stderrTail));
        }
        // A volume without ownership (FAT, a network share): the folder can't be private.
        const fs::path staging = plan.destination / newScratchName();
        if (::mkdir(staging.c_str(), 0700) != 0) {
            throw JobFailure::sentence("scratch",
                                       fmt::format("Could not create the frames folder ({}).",
                                                   std::generic_category().message(errno)));
        }
        workspace.staging = staging;
        privacyEnforced = false;
        tracked.onWarning(FrameWarning::permissionsNotEnforced);
    }
    const fs::path& staging = *workspace.staging;
    FolderToucher toucher(staging, kStagingTouchPeriod);
    const fs::path outLink = *workspace.workFolder / "out";
    fs::create_symlink(staging, outLink, error);
    if (error) {
        throw JobFailure::sentence(
            "scratch", fmt::format("Could not prepare the working folder ({}).", error.message()));
    }
    const Extracted extracted = extract(plan, selection, outLink, callbacks);
    FrameManifest manifest = verify(plan, selection, extracted, staging);
    manifest.warnings = warnings;
    try {
        nameFrames(staging, manifest, privacyEnforced);
    } catch (const FrameManifest::WriteFailure& failure) {
        throw JobFailure::sentence("verify", failure.what());
    }
    if (options_.contactSheet) {
        drawContactSheets(manifest, staging, callbacks);
    }
    try {
        writeFramesJson(staging, manifest, privacyEnforced);
    } catch (const FrameManifest::WriteFailure& failure) {
        throw JobFailure::sentence("verify", failure.what());
    }
    throwIfCancelled("publish");

    if (prePublishHook) {
        prePublishHook();
    }
    if (callbacks.onPhase) {
        callbacks.onPhase(FrameExtractionPhase::publishing);
    }
    throwIfCancelled("publish");
    toucher.stop();
    const fs::path published = publish(staging, plan.destination);
    workspace.staging.reset();
    if (callbacks.onProgress) {
        callbacks.onProgress(1.0);
    }
    return {published, std::move(manifest)};
}

fs::path FrameExtractionJob::publish(const fs::path& staging, const fs::path& destination) {
    std::string base = source_.stem().string();
    while (!base.empty() && base.size() + kNameSuffixRoom >= kLongestName) {
        dropLastCharacter(base);
    }
    const int directoryFd = openDirectory(destination);
    if (directoryFd < 0) {
        throw JobFailure::sentence("destination", std::string(kDestinationGone));
    }
    struct CloseOnExit {
        int fd;
        ~CloseOnExit() { ::close(fd); }
    } closer{directoryFd};
    const std::string stagingName = staging.filename().string();
    int suffix = 1;
    for (int round = 0; round < kPublishRounds; ++round) {
        std::string name;
        struct stat status {};
        do {
            name = suffix == 1 ? base + "-frames" : fmt::format("{}-frames-{}", base, suffix);
            ++suffix;
        } while (::fstatat(directoryFd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                 suffix < 1'000'000);
        if (publishClaimHook) {
            publishClaimHook();
        }
        const int error = renameFolderExclusively(directoryFd, stagingName.c_str(), name.c_str());
        if (error == 0) {
            return destination / name;
        }
        if (error == EEXIST || error == ENOTEMPTY) {
            continue;  // another run took the name meanwhile
        }
        std::error_code ignored;
        if (!fs::is_directory(destination, ignored)) {
            throw JobFailure::sentence("destination", std::string(kDestinationGone));
        }
        throw JobFailure::sentence(
            "publish", fmt::format("could not save to the destination (errno {})", error));
    }
    throw JobFailure::sentence("publish", "could not find a free folder name (64 tries)");
}

}  // namespace tessarin::engine
