#include "engine/transcription/TranscriptionError.hpp"

#include <array>
#include <cstddef>

namespace tessarin::engine {

namespace {

struct Row {
    TranscriptionError::Code code;
    std::string_view name;
    std::string_view text;
};

using Code = TranscriptionError::Code;

// One row per case, in the order of Code. consentDenied's row is the audio sentence; the video
// sentence stands apart below.
constexpr std::array kRows{
    Row{Code::consentDenied, "consentDenied",
        "Transcription needs your approval before audio can be sent."},
    Row{Code::keyMissing, "keyMissing",
        "No OpenRouter API key is set. Add one in Settings ▸ Transcription."},
    Row{Code::keychainUnreadable, "keychainUnreadable",
        "The system keyring couldn’t be read, so the saved API key is unavailable right now."},
    Row{Code::unauthorized, "unauthorized",
        "The OpenRouter API key was rejected. Check it in Settings ▸ Transcription."},
    Row{Code::insufficientCredit, "insufficientCredit", "The OpenRouter account is out of credit."},
    Row{Code::rateLimited, "rateLimited",
        "The transcription service is rate-limiting requests. Try again shortly."},
    Row{Code::providerUnavailable, "providerUnavailable",
        "No provider could run this model right now. Try again, or choose another model."},
    Row{Code::privacyRoutingRefused, "privacyRoutingRefused",
        "OpenRouter refused this request under a data-policy restriction. Check your account "
        "settings or choose another model."},
    Row{Code::oversizeVideo, "oversizeVideo",
        "This video is too large to send to a video model (the limit is 100 MB)."},
    Row{Code::sourceUnreadable, "sourceUnreadable",
        "This file couldn’t be read, so it can’t be transcribed."},
    Row{Code::sourceChanged, "sourceChanged",
        "This file changed after transcription was queued. Add it again to transcribe the "
        "current file."},
    Row{Code::sourcePreparationFailed, "sourcePreparationFailed",
        "A private copy of this file couldn’t be prepared. Check available disk space and try "
        "again. Nothing was uploaded."},
    Row{Code::sourceQueueFull, "sourceQueueFull",
        "Tessarin can’t open another transcription input right now. Let some transcriptions "
        "finish, or clear the queue and add this file again."},
    Row{Code::trimUnsupportedForVideoModel, "trimUnsupportedForVideoModel",
        "A video model can’t transcribe just part of a file. Clear the trim, or choose a "
        "speech-to-text model."},
    Row{Code::toolsUnavailable, "toolsUnavailable",
        "Tessarin’s helper tools are missing, so audio can’t be prepared."},
    Row{Code::noAudioTrack, "noAudioTrack",
        "This file has no audio track, so there is nothing to transcribe."},
    Row{Code::audioRequestTooLarge, "audioRequestTooLarge",
        "The prepared audio is too large to send in one request. Try a shorter trim."},
    Row{Code::noSpeech, "noSpeech",
        "No speech was detected in this file, so no transcript was written."},
    Row{Code::unsupportedModel, "unsupportedModel",
        "That model can’t accept audio or video, so it can’t transcribe."},
    Row{Code::modelUnavailable, "modelUnavailable",
        "That model isn’t available right now. Refresh the model list in Settings ▸ "
        "Transcription."},
    Row{Code::network, "network",
        "Couldn’t reach the transcription service. Check the internet connection."},
    Row{Code::badResponse, "badResponse",
        "The transcription service returned something this app couldn’t read."},
    Row{Code::extractionFailed, "extractionFailed",
        "The audio couldn’t be prepared for transcription."},
    Row{Code::unsupportedInput, "unsupportedInput",
        "This file format or playlist is not supported for transcription. Export a "
        "self-contained video or audio file and try again. Nothing was uploaded."},
    Row{Code::audioDurationUnknown, "audioDurationUnknown",
        "The prepared audio’s length could not be verified within the supported limits. Try "
        "exporting a shorter audio file before transcribing. Nothing was uploaded."},
    Row{Code::invalidTranscriptionOptions, "invalidTranscriptionOptions",
        "Review the model and names list in Settings ▸ Transcription. Extra transcript options "
        "require MAI-Transcribe 2, with up to 50 names or terms of 100 characters each."},
    Row{Code::writeFailed, "writeFailed", "The transcript couldn’t be saved."},
    Row{Code::destinationUnavailable, "destinationUnavailable",
        "The transcript folder isn’t available. Choose another in Settings ▸ Transcription."},
    Row{Code::cancelled, "cancelled", "Cancelled."},
};

constexpr std::string_view kVideoConsentText =
    "That model is sent the whole video, which needs its own approval before anything is sent.";

constexpr bool rowsInOrder() {
    for (std::size_t index = 0; index < kRows.size(); ++index) {
        if (static_cast<std::size_t>(kRows[index].code) != index) {
            return false;
        }
    }
    return static_cast<std::size_t>(Code::cancelled) + 1 == kRows.size();
}
static_assert(rowsInOrder(), "one row per TranscriptionError::Code, in order");

}  // namespace

TranscriptionError::TranscriptionError(Code code, TranscriptionConsentKind kind)
    : code_(code),
      kind_(kind),
      text_(code == Code::consentDenied && kind == TranscriptionConsentKind::videoUpload
                ? kVideoConsentText
                : kRows[static_cast<std::size_t>(code)].text) {}

std::string_view codeName(TranscriptionError::Code code) {
    return kRows[static_cast<std::size_t>(code)].name;
}

}  // namespace tessarin::engine
