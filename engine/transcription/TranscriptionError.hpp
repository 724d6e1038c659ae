// The closed set of failures of transcription, each with the one sentence the user reads. Thrown
// as a value by the service client, the catalog and (later) the pipeline.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace tessarin::engine {

// Which approval a refused upload lacked.
enum class TranscriptionConsentKind { audioUpload, videoUpload };

class TranscriptionError : public std::exception {
public:
    // In the order the sentences are listed for the user.
    enum class Code {
        consentDenied,
        keyMissing,
        keychainUnreadable,
        unauthorized,
        insufficientCredit,
        rateLimited,
        providerUnavailable,
        privacyRoutingRefused,
        oversizeVideo,
        sourceUnreadable,
        sourceChanged,
        sourcePreparationFailed,
        sourceQueueFull,
        trimUnsupportedForVideoModel,
        toolsUnavailable,
        noAudioTrack,
        audioRequestTooLarge,
        noSpeech,
        unsupportedModel,
        modelUnavailable,
        network,
        badResponse,
        extractionFailed,
        unsupportedInput,
        audioDurationUnknown,
        invalidTranscriptionOptions,
        writeFailed,
        destinationUnavailable,
        cancelled,
    };

    // `kind` matters only for consentDenied.
    explicit TranscriptionError(Code code,
                                TranscriptionConsentKind kind = TranscriptionConsentKind::audioUpload);

    [[nodiscard]] Code code() const noexcept { return code_; }
    [[nodiscard]] TranscriptionConsentKind consentKind() const noexcept { return kind_; }
    // The user's sentence.
    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

    bool operator==(const TranscriptionError& other) const noexcept {
        return code_ == other.code_ &&
               (code_ != Code::consentDenied || kind_ == other.kind_);
    }

private:
    Code code_;
    TranscriptionConsentKind kind_;
    std::string text_;
};

// The case's name as written in code ("rateLimited"), for logs and --json.
[[nodiscard]] std::string_view codeName(TranscriptionError::Code code);

}  // namespace tessarin::engine
