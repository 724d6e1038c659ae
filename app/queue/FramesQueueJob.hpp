// A queue job around the engine's FrameExtractionJob: the stills of one video, with frames.json
// and the contact sheets, published as one new folder beside the video or in the chosen output
// folder.
#pragma once

#include <filesystem>
#include <optional>

#include "app/queue/QueueJob.hpp"
#include "engine/frames/FrameExtractionJob.hpp"

namespace tessarin::app {

class FramesQueueJob final : public QueueJob {
public:
    // Nothing runs until run(); see FrameExtractionJob for the arguments.
    FramesQueueJob(std::filesystem::path source, engine::FrameExtractionOptions options,
                   std::optional<std::filesystem::path> outputDirectory, engine::Tools tools);

    // Returns the published folder. Progress runs once from 0 to 1 over the whole export: the
    // analysis pass fills the first half, the extraction pass the second. Each warning becomes
    // one row note; the source's length and HDR flag are reported once the export is done.
    [[nodiscard]] std::filesystem::path run(const Callbacks& callbacks) override;
    void cancel() override { job_.cancel(); }

private:
    engine::FrameExtractionJob job_;
};

// The row's note for a warning of a frame export.
[[nodiscard]] const char* warningNote(engine::FrameWarning warning);

}  // namespace tessarin::app
