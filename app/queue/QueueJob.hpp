// The one interface through which the queue runs work on a file: conversions, and the jobs that
// the transcription and frame-export factories make.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace tessarin::app {

class QueueJob {
public:
    // Each may be empty; all run on the job's thread.
    struct Callbacks {
        std::function<void(std::optional<double>)> onProgress;
        // A short phase text for the row ("Copying to destination…"); empty clears it.
        std::function<void(const std::string&)> onPhase;
        std::function<void(const std::string&)> onWarning;
        // Facts of the source learnt on the way.
        std::function<void(std::optional<double> durationSeconds, bool isHDR)> onSourceInfo;
    };

    virtual ~QueueJob() = default;

    // Blocks a background thread for the whole job; returns the published output. Throws
    // engine::JobFailure only (`wasCancelled` after cancel()).
    [[nodiscard]] virtual std::filesystem::path run(const Callbacks& callbacks) = 0;
    // Any thread, any time, also before run(); returns at once.
    virtual void cancel() = 0;
};

}  // namespace tessarin::app
