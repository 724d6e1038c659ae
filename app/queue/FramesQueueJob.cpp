#include "app/queue/FramesQueueJob.hpp"

#include <algorithm>
#include <atomic>
#include <utility>

namespace tessarin::app {

FramesQueueJob::FramesQueueJob(std::filesystem::path source, engine::FrameExtractionOptions options,
                               std::optional<std::filesystem::path> outputDirectory,
                               engine::Tools tools)
    : job_(std::move(source), std::move(options), std::move(outputDirectory), std::move(tools)) {}

std::filesystem::path FramesQueueJob::run(const Callbacks& callbacks) {
    using Phase = engine::FrameExtractionPhase;
    // Each pass reports its own 0 to 1 from a pipe reader's thread, while the phase changes on
    // this one; the row should see one bar that never runs backwards.
    std::atomic<Phase> phase{Phase::analyzing};
    bool isHDR = false;

    engine::FrameExtractionJob::Callbacks engineCallbacks;
    engineCallbacks.onPhase = [&phase](Phase next) { phase.store(next); };
    if (callbacks.onProgress) {
        engineCallbacks.onProgress = [&callbacks, &phase](double fraction) {
            const double clamped = std::clamp(fraction, 0.0, 1.0);
            switch (phase.load()) {
                case Phase::analyzing:
                    callbacks.onProgress(clamped / 2);
                    break;
                case Phase::extracting:
                    callbacks.onProgress(0.5 + clamped / 2);
                    break;
                case Phase::publishing:
                    callbacks.onProgress(1.0);
                    break;
            }
        };
    }
    engineCallbacks.onWarning = [&callbacks, &isHDR](engine::FrameWarning warning) {
        isHDR = isHDR || warning == engine::FrameWarning::hdrNotToneMapped;
        if (callbacks.onWarning) {
            callbacks.onWarning(warningNote(warning));
        }
    };
    engine::FrameExtractionResult result = job_.run(engineCallbacks);
    if (callbacks.onSourceInfo) {
        callbacks.onSourceInfo(result.manifest.source.durationSeconds, isHDR);
    }
    return std::move(result.directory);
}

const char* warningNote(engine::FrameWarning warning) {
    switch (warning) {
        case engine::FrameWarning::hdrNotToneMapped:
            return "This video is HDR; its frames were saved without tone mapping and may look "
                   "pale.";
        case engine::FrameWarning::decodedShort:
            return "The video could not be decoded to its end; the frames stop where decoding "
                   "did.";
        case engine::FrameWarning::budgetPruned:
            return "The picture changed more often than the frame budget allows, so some changes "
                   "were left out (frames.json marks where).";
        case engine::FrameWarning::permissionsNotEnforced:
            return "This drive can't keep the frames private to your account.";
        case engine::FrameWarning::contactSheetSkipped:
            return "The contact sheets could not be drawn; the frames and frames.json are "
                   "complete.";
    }
    return "";
}

}  // namespace tessarin::app
