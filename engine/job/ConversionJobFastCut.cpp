// The fast-cut path of a conversion job: the plan made anew against the reviewed one, the copy
// without re-encoding, and the decode checks of the copy's two ends.
#include <fmt/format.h>

#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/KeyframeProbe.hpp"
#include "engine/job/ConversionJob.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr double kBoundaryCheckTimeout = 30.0;

}  // namespace

FastCut::Plan ConversionJob::planFastCut(const MediaInfo& info, const Trim& trim) {
    // Each search's runner becomes the current one, so that cancel() reaches it.
    const auto install = [this](std::shared_ptr<ProcessRunner> runner) {
        double grace = kUserCancelGrace;
        bool cancelled = false;
        {
            const std::lock_guard lock(mutex_);
            currentRunner_ = runner;
            cancelled = cancelled_;
            grace = cancelGrace_;
        }
        if (cancelled) {
            runner->cancel(grace);
        }
    };
    FastCut::Plan plan;
    try {
        plan = FastCut::plan(source_, trim, info, tools_, install);
    } catch (const KeyframeProbe::Failure& failure) {
        clearRunner();
        if (failure.kind() == KeyframeProbe::Failure::Kind::cancelled || isCancelled()) {
            throw JobFailure::cancelled("cut");
        }
        throw JobFailure::sentence("cut", failure.what());
    } catch (const FastCut::Failure& failure) {
        clearRunner();
        throw JobFailure::sentence("cut", failure.what());
    } catch (const ClipSelection::Invalid& invalid) {
        clearRunner();
        throw JobFailure::sentence("cut", invalid.what());
    }
    clearRunner();
    if (expectedFastCutPlan &&
        (plan.source != expectedFastCutPlan->source || plan.start != expectedFastCutPlan->start ||
         plan.end != expectedFastCutPlan->end)) {
        throw JobFailure::sentence("cut", FastCut::Failure(FastCut::Failure::Kind::changed).what());
    }
    return plan;
}

void ConversionJob::copyFastCut(const FastCut::Plan& plan, const MediaInfo& info,
                                std::optional<double> length, const fs::path& target, double top,
                                const Callbacks& callbacks) {
    std::optional<int64_t> frames;
    try {
        frames = runTool("cut", tools_.ffmpeg, FastCut::copyArguments(plan, info.hasAudio, target),
                         length, 0.0, top, callbacks.onProgress);
    } catch (const LaunchError& error) {
        throw JobFailure("cut", -1,
                         fmt::format("ffmpeg could not be started ({}).", error.code().message()));
    }
    if (frames == 0) {
        throw JobFailure::sentence("encode",
                                   "The encode produced no frames, so the output would have had "
                                   "no video stream. Check the trim range against the source "
                                   "duration.");
    }
    if (callbacks.onPhase) {
        callbacks.onPhase(JobPhase::checkingCut);
    }
    if (!decodesBoundary(target, false) || !decodesBoundary(target, true)) {
        throw JobFailure::sentence("verify",
                                   "The copied boundary did not decode any video. It was not "
                                   "published.");
    }
}

bool ConversionJob::decodesBoundary(const fs::path& output, bool fromEnd) {
    std::vector<std::string> arguments = {"-nostdin", "-v", "error"};
    if (fromEnd) {
        arguments.insert(arguments.end(), {"-sseof", "-1"});
    }
    arguments.insert(arguments.end(), {"-i", output.string(), "-t", "1", "-map", "0:V:0", "-f",
                                       "null", "-progress", "pipe:1", "-"});
    try {
        const std::optional<int64_t> frames = runTool(
            "verify", tools_.ffmpeg, arguments, std::nullopt, 0, 0, {}, kBoundaryCheckTimeout);
        return frames.value_or(0) > 0;
    } catch (const LaunchError& error) {
        throw JobFailure("verify", -1,
                         fmt::format("ffmpeg could not be started ({}).", error.code().message()));
    }
}

}  // namespace tessarin::engine
