#include "app/queue/ConversionQueueJob.hpp"

#include <utility>

namespace tessarin::app {

ConversionQueueJob::ConversionQueueJob(std::filesystem::path source, engine::MediaTask task,
                                       engine::Tools tools, engine::EncoderCapabilityPolicy policy,
                                       std::optional<std::filesystem::path> outputDirectory,
                                       engine::HardwareEncoderSupport hardware,
                                       std::optional<engine::FastCut::Plan> expectedFastCutPlan)
    : job_(std::move(source), std::move(task), std::move(tools),
           engine::MediaInputPolicy::unrestricted, policy, std::move(outputDirectory),
           std::move(hardware)) {
    job_.expectedFastCutPlan = std::move(expectedFastCutPlan);
}

std::filesystem::path ConversionQueueJob::run(const Callbacks& callbacks) {
    return job_.run(engineCallbacks(callbacks));
}

engine::ConversionJob::Callbacks engineCallbacks(const QueueJob::Callbacks& callbacks) {
    engine::ConversionJob::Callbacks mapped;
    mapped.onProgress = callbacks.onProgress;
    mapped.onWarning = callbacks.onWarning;
    if (callbacks.onPhase) {
        mapped.onPhase = [&callbacks](engine::JobPhase phase) {
            callbacks.onPhase(phaseLabel(phase));
        };
    }
    if (callbacks.onSourceInfo) {
        mapped.onInfo = [&callbacks](const engine::MediaInfo& info) {
            callbacks.onSourceInfo(info.durationSeconds, info.isHDR);
        };
    }
    return mapped;
}

const char* phaseLabel(engine::JobPhase phase) {
    switch (phase) {
        case engine::JobPhase::copyingToDestination:
            return "Copying to destination…";
        case engine::JobPhase::checkingCut:
            return "Checking the cut…";
        case engine::JobPhase::encoding:
            break;
    }
    return "";
}

}  // namespace tessarin::app
