// A queue job around the engine's JoinedFastCut: a file's reviewed fast cuts joined into one
// output without re-encoding.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "app/queue/QueueJob.hpp"
#include "engine/job/JoinedFastCut.hpp"

namespace tessarin::app {

class JoinedFastCutQueueJob final : public QueueJob {
public:
    // Nothing runs until run(); see JoinedFastCut for the arguments.
    JoinedFastCutQueueJob(std::filesystem::path source,
                          std::vector<engine::JoinedFastCut::Piece> pieces, engine::Tools tools,
                          std::optional<std::filesystem::path> outputDirectory)
        : join_(std::move(source), std::move(pieces), std::move(tools),
                std::move(outputDirectory)) {}

    [[nodiscard]] std::filesystem::path run(const Callbacks& callbacks) override;
    void cancel() override { join_.cancel(engine::ConversionJob::kUserCancelGrace); }

private:
    engine::JoinedFastCut join_;
};

}  // namespace tessarin::app
