// A queue job around the engine's ConversionJob: convert, join, audio extraction and fast cut.
#pragma once

#include <filesystem>
#include <optional>

#include "app/queue/QueueJob.hpp"
#include "engine/job/ConversionJob.hpp"

namespace tessarin::app {

class ConversionQueueJob final : public QueueJob {
public:
    // Nothing runs until run(); see ConversionJob for the arguments. `expectedFastCutPlan` is the
    // reviewed plan of a fast cut, which the job holds the file and its boundaries against.
    ConversionQueueJob(std::filesystem::path source, engine::MediaTask task, engine::Tools tools,
                       engine::EncoderCapabilityPolicy policy,
                       std::optional<std::filesystem::path> outputDirectory,
                       engine::HardwareEncoderSupport hardware,
                       std::optional<engine::FastCut::Plan> expectedFastCutPlan = std::nullopt);

    [[nodiscard]] std::filesystem::path run(const Callbacks& callbacks) override;
    void cancel() override { job_.cancel(engine::ConversionJob::kUserCancelGrace); }

private:
    engine::ConversionJob job_;
};

// The engine's callbacks that report to the queue's: phases as the row's texts, source facts.
// They refer to `callbacks`, which must outlive them.
[[nodiscard]] engine::ConversionJob::Callbacks engineCallbacks(
    const QueueJob::Callbacks& callbacks);

// The row's phase text of an engine phase; empty while encoding.
[[nodiscard]] const char* phaseLabel(engine::JobPhase phase);

}  // namespace tessarin::app
