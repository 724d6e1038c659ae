#include "engine/transcription/TranscriptionConsent.hpp"

#include <fmt/format.h>

#include <chrono>

#include "engine/log/Log.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::engine {

namespace {

const Logger& consentLog() {
    static const Logger log("com.tessarin.transcription", "consent");
    return log;
}

const char* versionKey(TranscriptionConsentKind kind) {
    return kind == TranscriptionConsentKind::audioUpload
               ? TranscriptionConsentStore::kAudioVersionKey
               : TranscriptionConsentStore::kVideoVersionKey;
}

const char* grantedAtKey(TranscriptionConsentKind kind) {
    return kind == TranscriptionConsentKind::audioUpload
               ? TranscriptionConsentStore::kAudioGrantedAtKey
               : TranscriptionConsentStore::kVideoGrantedAtKey;
}

constexpr std::string_view kSharedParagraphs[] = {
    "OpenRouter passes what you send to the provider that runs the model you chose. Those "
    "providers are third parties with their own terms and their own retention practices.",
    "Retention of your audio, video and transcripts depends on the provider and your OpenRouter "
    "account settings. Tessarin does not guarantee zero retention. A policy against training on "
    "your data does not mean it is never stored.",
    "Converting, extracting audio, and everything else in Tessarin still happen entirely on your "
    "computer. Only transcription uploads anything.",
    "You can withdraw this approval at any time in Settings ▸ Transcription. Transcripts already "
    "saved on your computer are yours and are never deleted by withdrawing.",
};

}  // namespace

std::string_view rawValue(TranscriptionConsentKind kind) {
    return kind == TranscriptionConsentKind::audioUpload ? "audio" : "video";
}

std::optional<TranscriptionConsentKind> consentKindFromRaw(std::string_view raw) {
    if (raw == "audio") {
        return TranscriptionConsentKind::audioUpload;
    }
    if (raw == "video") {
        return TranscriptionConsentKind::videoUpload;
    }
    return std::nullopt;
}

std::optional<TranscriptionConsentKind> requiredConsent(TranscriptionRoute route) {
    switch (route) {
        case TranscriptionRoute::stt:
        case TranscriptionRoute::audioChat: return TranscriptionConsentKind::audioUpload;
        case TranscriptionRoute::videoChat: return TranscriptionConsentKind::videoUpload;
        case TranscriptionRoute::unsupported: break;
    }
    return std::nullopt;
}

ConsentNotice ConsentNotice::of(TranscriptionConsentKind kind) {
    ConsentNotice notice;
    if (kind == TranscriptionConsentKind::videoUpload) {
        notice.title = "Send this video to OpenRouter?";
        notice.paragraphs.emplace_back(
            "The model you selected accepts video, not audio. That means the whole video file — "
            "picture and sound — is uploaded to OpenRouter.");
    } else {
        notice.title = "Send audio to OpenRouter?";
        notice.paragraphs.emplace_back(
            "Tessarin extracts the audio from your video on this computer, then uploads that audio "
            "to OpenRouter. Any vocabulary hints you enter are sent with the audio. The video file "
            "itself is not uploaded.");
    }
    for (const std::string_view paragraph : kSharedParagraphs) {
        notice.paragraphs.emplace_back(paragraph);
    }
    return notice;
}

std::string ConsentNotice::plainText() const {
    std::string text = title;
    for (const std::string& paragraph : paragraphs) {
        text += "\n\n";
        text += paragraph;
    }
    return text;
}

bool TranscriptionConsentStore::isGranted(TranscriptionConsentKind kind) const {
    return storedVersion(kind) == noticeVersion_;
}

TranscriptionConsent TranscriptionConsentStore::answer(TranscriptionRoute route) const {
    const std::optional<TranscriptionConsentKind> kind = requiredConsent(route);
    if (!kind || isGranted(*kind)) {
        return TranscriptionConsent::grant();
    }
    return TranscriptionConsent::denied(*kind);
}

std::optional<int64_t> TranscriptionConsentStore::storedVersion(
    TranscriptionConsentKind kind) const {
    return defaults_->integerValue(versionKey(kind));
}

std::optional<double> TranscriptionConsentStore::grantedAt(TranscriptionConsentKind kind) const {
    return defaults_->doubleValue(grantedAtKey(kind));
}

void TranscriptionConsentStore::grant(TranscriptionConsentKind kind, double now) {
    defaults_->update([&](nlohmann::json& object) {
        object[versionKey(kind)] = noticeVersion_;
        object[grantedAtKey(kind)] = now;
    });
    consentLog().notice(fmt::format("upload consent granted kind={} version={}", rawValue(kind),
                                    noticeVersion_));
}

void TranscriptionConsentStore::withdraw(TranscriptionConsentKind kind) {
    defaults_->update([&](nlohmann::json& object) {
        object.erase(versionKey(kind));
        object.erase(grantedAtKey(kind));
    });
    consentLog().notice(fmt::format("upload consent withdrawn kind={}", rawValue(kind)));
}

double secondsSince1970() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace tessarin::engine
