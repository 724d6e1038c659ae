#include "app/transcription/TranscriptionQueueJob.hpp"

#include "engine/model/JobFailure.hpp"

namespace tessarin::app {

namespace {
constexpr const char* kStep = "transcribe";
constexpr const char* kUnsavedNote =
    "The transcript is kept in the window until you save it elsewhere.";
}  // namespace

std::optional<std::string> costNote(const engine::TranscriptionAccounting& accounting) {
    std::string note;
    for (const std::string& line : accounting.summaryLines()) {
        if (line.rfind("USD.", 0) == 0) {
            break;  // the amounts come first; the rest is for the full report
        }
        note += note.empty() ? "" : "; ";
        note += line;
    }
    if (note.empty()) {
        return std::nullopt;
    }
    return "Cost (USD): " + note;
}

TranscriptionQueueJob::Binding TranscriptionQueueJob::Binding::of(
    const std::filesystem::path& source) {
    Binding binding;
    try {
        binding.input = engine::TranscriptionInput::open(source);
    } catch (const engine::TranscriptionError& error) {
        binding.failure = error;
    }
    return binding;
}

TranscriptionQueueJob::TranscriptionQueueJob(const std::filesystem::path& source,
                                             engine::TranscriptionRequest request,
                                             engine::TranscriptionDestination destination,
                                             std::unique_ptr<engine::TranscriptionPipeline> pipeline,
                                             std::vector<std::shared_ptr<const void>> keepAlive)
    : TranscriptionQueueJob(Binding::of(source), std::move(request), std::move(destination),
                            std::move(pipeline), std::move(keepAlive)) {}

TranscriptionQueueJob::TranscriptionQueueJob(Binding binding, engine::TranscriptionRequest request,
                                             engine::TranscriptionDestination destination,
                                             std::unique_ptr<engine::TranscriptionPipeline> pipeline,
                                             std::vector<std::shared_ptr<const void>> keepAlive)
    : keepAlive_(std::move(keepAlive)),
      input_(std::move(binding.input)),
      bindingFailure_(std::move(binding.failure)),
      request_(std::move(request)),
      destination_(std::move(destination)),
      pipeline_(std::move(pipeline)) {
    if (!input_ && !bindingFailure_) {
        bindingFailure_ = engine::TranscriptionError(engine::TranscriptionError::Code::sourceUnreadable);
    }
}

std::filesystem::path TranscriptionQueueJob::run(const Callbacks& callbacks) {
    if (bindingFailure_) {
        throw engine::JobFailure::sentence(kStep, bindingFailure_->text());
    }
    if (callbacks.onPhase) {
        callbacks.onPhase("");
    }
    const engine::TranscriptionOutcome outcome =
        pipeline_->run(*input_, request_, destination_, *control_, [&](double fraction) {
            if (callbacks.onProgress) {
                callbacks.onProgress(fraction);
            }
        });
    if (const auto note = costNote(pipeline_->accounting()); note && callbacks.onWarning) {
        callbacks.onWarning(*note);
    }
    if (outcome.succeeded()) {
        return *outcome.transcript;
    }
    const engine::TranscriptionError& error = *outcome.error;
    if (outcome.partial && outcome.transcript && callbacks.onWarning) {
        callbacks.onWarning("Text received before the failure was saved as " +
                            outcome.transcript->filename().string() + ".");
    }
    if (outcome.unsaved && unsavedSink_) {
        unsavedSink_(*outcome.unsaved, input_->filename());
        if (callbacks.onWarning) {
            callbacks.onWarning(kUnsavedNote);
        }
    }
    if (error.code() == engine::TranscriptionError::Code::cancelled) {
        throw engine::JobFailure::cancelled(kStep);
    }
    throw engine::JobFailure::sentence(kStep, error.text());
}

}  // namespace tessarin::app
