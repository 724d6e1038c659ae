#include <memory>
#include <string_view>

#include "engine/job/ConversionJob.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionError.hpp"
#include "engine/transcription/TranscriptionMediaBackend.hpp"

namespace tessarin::engine {

namespace {

using Code = TranscriptionError::Code;

constexpr std::string_view kPolicyRefusal = "not on whitelist";

// Detaches a stage from the control on every exit.
class Attached {
public:
    Attached(TranscriptionControl& control, std::function<void()> onCancel)
        : control_(control), token_(control.attach(std::move(onCancel))) {}
    ~Attached() { control_.detach(token_); }
    Attached(const Attached&) = delete;
    Attached& operator=(const Attached&) = delete;

private:
    TranscriptionControl& control_;
    std::uint64_t token_;
};

}  // namespace

MediaInfo EngineTranscriptionBackend::probe(const std::filesystem::path& file,
                                            TranscriptionControl& control) {
    auto runner = std::make_shared<ProcessRunner>();
    const Attached attached(control, [runner] { runner->cancel(kCancelGrace); });
    try {
        return MediaProbe::probe(file, tools_, MediaInputPolicy::transcription, *runner,
                                 kProbeTimeout);
    } catch (const MediaProbeError& error) {
        if (control.isCancelled() || error.kind == MediaProbeError::Kind::cancelled) {
            throw TranscriptionError(Code::cancelled);
        }
        if (error.kind == MediaProbeError::Kind::ffprobeFailed) {
            if (error.exitCode == -1) {
                throw TranscriptionError(Code::toolsUnavailable);
            }
            if (error.stderrText.find(kPolicyRefusal) != std::string::npos) {
                throw TranscriptionError(Code::unsupportedInput);
            }
        }
        throw TranscriptionError(Code::extractionFailed);
    }
}

std::filesystem::path EngineTranscriptionBackend::extract(const std::filesystem::path& source,
                                                          const AudioExtractionOptions& options,
                                                          const std::filesystem::path& folder,
                                                          TranscriptionControl& control,
                                                          const std::function<void(double)>& onProgress) {
    auto job = std::make_shared<ConversionJob>(source, MediaTask::extractAudio(options), tools_,
                                               MediaInputPolicy::transcription,
                                               EncoderCapabilityPolicy{}, folder);
    const Attached attached(control, [job] { job->cancel(kCancelGrace); });
    MediaInfo facts;
    try {
        return job->run({.onInfo = [&](const MediaInfo& info) { facts = info; },
                         .onProgress =
                             [&](std::optional<double> fraction) {
                                 if (fraction && onProgress) {
                                     onProgress(*fraction);
                                 }
                             }});
    } catch (const JobFailure& failure) {
        if (failure.wasCancelled || control.isCancelled()) {
            throw TranscriptionError(Code::cancelled);
        }
        if (failure.stderrTail.find(kPolicyRefusal) != std::string::npos) {
            throw TranscriptionError(Code::unsupportedInput);
        }
        if (failure.step == "preflight" && !facts.hasAudio) {
            throw TranscriptionError(Code::noAudioTrack);
        }
        if (failure.exitCode == -1) {
            throw TranscriptionError(Code::toolsUnavailable);
        }
        throw TranscriptionError(Code::extractionFailed);
    }
}

}  // namespace tessarin::engine
