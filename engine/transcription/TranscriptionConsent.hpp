// The user's approval of uploads, kept per kind (audio, whole video) by the version of the notice
// that was approved: a later notice asks again. Also the notice's own words, shown by the window's
// sheet and printed by the command line before anything is sent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/TranscriptionError.hpp"

namespace tessarin::engine {

class SettingsStore;

// The answer of a consent gate for one route.
struct TranscriptionConsent {
    bool granted = false;
    TranscriptionConsentKind kind = TranscriptionConsentKind::audioUpload;  // what was denied

    [[nodiscard]] static TranscriptionConsent grant() { return {true}; }
    [[nodiscard]] static TranscriptionConsent denied(TranscriptionConsentKind kind) {
        return {false, kind};
    }
    bool operator==(const TranscriptionConsent&) const = default;
};

// "audio" or "video", for logs and the command line.
[[nodiscard]] std::string_view rawValue(TranscriptionConsentKind kind);
[[nodiscard]] std::optional<TranscriptionConsentKind> consentKindFromRaw(std::string_view raw);

// The approval a route needs: stt and audioChat need audioUpload, videoChat videoUpload;
// unsupported needs none (nothing is ever sent on it).
[[nodiscard]] std::optional<TranscriptionConsentKind> requiredConsent(TranscriptionRoute route);

// What the sheet says before the first upload of a kind.
struct ConsentNotice {
    std::string title;
    std::vector<std::string> paragraphs;
    static constexpr std::string_view kButton = "Upload and Transcribe";

    [[nodiscard]] static ConsentNotice of(TranscriptionConsentKind kind);
    // Title and paragraphs, separated by blank lines.
    [[nodiscard]] std::string plainText() const;
};

// Reads and writes the approvals in the settings store. Every member reads or writes the store at
// once, so several instances over one store agree; thread-safety is the store's.
class TranscriptionConsentStore {
public:
    // The version of the notices now shown. Raise it when their words change in substance.
    static constexpr int64_t kNoticeVersion = 1;

    static constexpr const char* kAudioVersionKey = "transcriptionUploadConsentVersion";
    static constexpr const char* kAudioGrantedAtKey = "transcriptionUploadConsentGrantedAt";
    static constexpr const char* kVideoVersionKey = "transcriptionVideoUploadConsentVersion";
    static constexpr const char* kVideoGrantedAtKey = "transcriptionVideoUploadConsentGrantedAt";

    explicit TranscriptionConsentStore(SettingsStore& defaults,
                                       int64_t noticeVersion = kNoticeVersion)
        : defaults_(&defaults), noticeVersion_(noticeVersion) {}

    // Granted when the stored version equals the current notice's.
    [[nodiscard]] bool isGranted(TranscriptionConsentKind kind) const;
    // The gate's answer for `route` from what is stored.
    [[nodiscard]] TranscriptionConsent answer(TranscriptionRoute route) const;
    [[nodiscard]] std::optional<int64_t> storedVersion(TranscriptionConsentKind kind) const;
    [[nodiscard]] std::optional<double> grantedAt(TranscriptionConsentKind kind) const;

    // Stores the current version and `now` (seconds since 1970), and logs it. Throws what the
    // settings store throws.
    void grant(TranscriptionConsentKind kind, double now);
    // Removes both values, and logs it. A run in progress is not stopped by this.
    void withdraw(TranscriptionConsentKind kind);

private:
    SettingsStore* defaults_;
    int64_t noticeVersion_;
};

// Seconds since 1970, from the system clock.
[[nodiscard]] double secondsSince1970();

}  // namespace tessarin::engine
