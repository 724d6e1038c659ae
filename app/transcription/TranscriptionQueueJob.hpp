// A queue row's transcription: the engine's pipeline on one file, its outcome told as the queue
// tells every job's. A transcript that was only partly received is written and still fails the
// row, with a note that says where the text is; one that couldn't be written at all is handed to
// the window's unsaved transcripts.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/queue/QueueJob.hpp"
#include "app/transcription/UnsavedTranscripts.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionError.hpp"
#include "engine/transcription/TranscriptionInput.hpp"
#include "engine/transcription/TranscriptionPipeline.hpp"

namespace tessarin::app {

class TranscriptionQueueJob final : public QueueJob {
public:
    // Binds the source at once (a descriptor held open until the job ends), so that what is
    // transcribed is the file as it was now. `pipeline` must not be shared with another job;
    // `keepAlive` holds what it refers to (its catalog, the settings store) for the job's life.
    TranscriptionQueueJob(const std::filesystem::path& source, engine::TranscriptionRequest request,
                          engine::TranscriptionDestination destination,
                          std::unique_ptr<engine::TranscriptionPipeline> pipeline,
                          std::vector<std::shared_ptr<const void>> keepAlive = {});

    // The source as it was bound earlier (when the row was queued): its input, or the failure
    // of binding it.
    struct Binding {
        std::shared_ptr<engine::TranscriptionInput> input;
        std::optional<engine::TranscriptionError> failure;

        // Opens `source` now.
        [[nodiscard]] static Binding of(const std::filesystem::path& source);
    };
    TranscriptionQueueJob(Binding binding, engine::TranscriptionRequest request,
                          engine::TranscriptionDestination destination,
                          std::unique_ptr<engine::TranscriptionPipeline> pipeline,
                          std::vector<std::shared_ptr<const void>> keepAlive = {});

    // Returns the transcript; what the run cost goes to the row's note. Throws engine::JobFailure with the step "transcribe" and the
    // failure's sentence (`wasCancelled` for a cancel).
    [[nodiscard]] std::filesystem::path run(const Callbacks& callbacks) override;
    void cancel() override { control_->cancel(); }

    // Where a transcript goes that was made but couldn't be stored (from the job's thread).
    // Without one, such a text is only reported.
    void keepUnsavedWith(UnsavedTranscripts::Sink sink) { unsavedSink_ = std::move(sink); }

    // What the run cost, once it ended.
    [[nodiscard]] const engine::TranscriptionAccounting& accounting() const {
        return pipeline_->accounting();
    }

private:
    std::vector<std::shared_ptr<const void>> keepAlive_;
    std::shared_ptr<engine::TranscriptionInput> input_;
    std::optional<engine::TranscriptionError> bindingFailure_;
    engine::TranscriptionRequest request_;
    engine::TranscriptionDestination destination_;
    std::unique_ptr<engine::TranscriptionPipeline> pipeline_;
    UnsavedTranscripts::Sink unsavedSink_;
    std::shared_ptr<engine::TranscriptionControl> control_ =
        std::make_shared<engine::TranscriptionControl>();
};

// The row's note about what a run cost: the estimated and reported amounts, or nothing when the
// run knew neither.
[[nodiscard]] std::optional<std::string> costNote(const engine::TranscriptionAccounting& accounting);

}  // namespace tessarin::app
