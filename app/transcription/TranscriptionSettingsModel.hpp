// The state behind Settings ▸ Transcription: the key's presence (never the key), the roster and
// the active model, the prompt, language and options, the upload approvals, and the results of
// the look-ups that go to the service (key check, model list, language support). Also what the
// queue needs from transcription: its prerequisites and the jobs of transcribe rows.
//
// Threads: lives on the main thread, and every member is called there. Look-ups run on threads of
// their own, each with a generation number; a result that is no longer the latest is dropped.
// The destructor cancels the look-ups still running and waits for them.
#pragma once

#include <QObject>
#include <QString>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "app/queue/QueueModel.hpp"
#include "app/transcription/TranscriptionQueueJob.hpp"
#include "engine/process/Tools.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/OpenRouterKeyStore.hpp"
#include "engine/transcription/TranscriptionConsent.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionPreferences.hpp"
#include "engine/transcription/TranscriptionRoster.hpp"

namespace tessarin::app {

// What the support report says about transcription. Never the key: only whether there is one.
struct TranscriptionDiagnostics {
    bool keyPresent = false;
    bool keyUnreadable = false;
    std::optional<int64_t> audioConsentVersion;
    std::optional<double> audioConsentGrantedAt;
    std::optional<int64_t> videoConsentVersion;
    std::optional<double> videoConsentGrantedAt;
    std::optional<std::string> activeModelID;
    std::optional<std::string> activeRoute;
    std::optional<std::string> fellBackFrom;
    std::size_t rosterCount = 0;
    std::size_t enabledCount = 0;
    std::string destinationMode;
    std::string promptModeName;
    std::optional<std::string> languageCode;
    std::optional<double> catalogFetchedAt;
};

class TranscriptionSettingsModel : public QObject {
    Q_OBJECT

public:
    static constexpr const char* kNoKeyYet = "No key is saved yet.";
    static constexpr const char* kUnreachable =
        "Couldn’t reach the transcription service. Check the internet connection.";
    static constexpr const char* kKeyAccepted = "The key works.";
    static constexpr const char* kLanguageSent =
        "This model accepts a language hint, so the choice above is sent with the audio.";
    static constexpr const char* kLanguageNotSent =
        "This model detects the language itself and accepts no hint, so the choice above isn’t "
        "sent.";
    static constexpr const char* kLanguageUnknown =
        "The language hint is sent only when the model advertises support for it.";

    // `client` makes every request of the look-ups and of the jobs; `scratchRoot` holds the
    // jobs' private folders.
    TranscriptionSettingsModel(std::shared_ptr<engine::SettingsStore> settings,
                               std::shared_ptr<engine::OpenRouterKeyStoring> keyStore,
                               engine::OpenRouterClient client, std::filesystem::path scratchRoot,
                               QObject* parent = nullptr);
    ~TranscriptionSettingsModel() override;

    // --- state ---
    [[nodiscard]] engine::TranscriptionKeyPresence keyPresence() const { return keyPresence_; }
    [[nodiscard]] std::vector<engine::TranscriptionRosterEntry> roster() const;
    [[nodiscard]] std::optional<engine::CatalogSnapshot> catalog() const;
    [[nodiscard]] engine::ActiveModelResolution activeResolution() const;
    [[nodiscard]] engine::TranscriptionPreferences preferences() const;
    [[nodiscard]] bool consentGranted(engine::TranscriptionConsentKind kind) const;
    [[nodiscard]] std::optional<bool> activeModelAcceptsLanguage() const {
        return activeModelAcceptsLanguage_;
    }
    [[nodiscard]] const QString& addRejection() const { return addRejection_; }
    [[nodiscard]] const QString& verifyResult() const { return verifyResult_; }
    [[nodiscard]] const QString& catalogResult() const { return catalogResult_; }
    [[nodiscard]] bool verifyingKey() const { return verifyingKey_; }
    [[nodiscard]] int metadataOperations() const { return metadataOperations_; }
    // The sentence under the language choice, from what the active model's endpoints say.
    [[nodiscard]] QString languageHintText() const;
    // The two sentences about options for a model other than the one that takes them; empty
    // for that model.
    [[nodiscard]] QString optionsNote() const;
    // The route of the active model, when the model list knows it.
    [[nodiscard]] std::optional<engine::TranscriptionRoute> activeRoute() const;

    [[nodiscard]] TranscriptionDiagnostics diagnostics() const;

    // --- the key ---
    void refreshKeyPresence();
    // The field's rule (saveKeyField): returns the refusal sentence, or empty.
    QString saveKey(const QString& field);
    QString removeKey();
    // Checks the stored key with the service; verifyResult tells the outcome.
    void verifyKey();

    // --- models ---
    void refreshCatalog(bool force);
    void addModel(const QString& id);
    void setModelEnabled(const QString& id, bool enabled);
    void restoreRoster();
    void setActiveModel(const QString& id);

    // --- prompt, language, options ---
    void setPromptMode(engine::TranscriptionPromptMode mode);
    void setCustomPrompt(const QString& text);
    // Empty or unreadable: detection.
    void setLanguage(const QString& code);
    // Returns the names list's problem sentence (and stores nothing then), or empty.
    QString setOptions(const engine::TranscriptionOptions& options);

    // --- approvals ---
    void grantConsent(engine::TranscriptionConsentKind kind);
    void withdrawConsent(engine::TranscriptionConsentKind kind);

    // --- for the queue ---
    [[nodiscard]] TranscriptionPrerequisites prerequisites() const;
    // The job of a transcribe row, with the settings of this moment, over the source as it was
    // bound when the row was queued (bound now when it wasn't).
    [[nodiscard]] std::shared_ptr<QueueJob> makeJob(const QueueItem& item,
                                                    const engine::Tools& tools);
    // Binds the source of every waiting transcribe row not yet bound, and lets go of the
    // bindings of rows no longer queued (removed, cleared, finished); a row that has just turned
    // running keeps its binding until makeJob takes it. Call it when the rows change.
    void bindQueued(const std::vector<QueueItem>& items);
    [[nodiscard]] std::size_t boundCount() const { return bindings_.size(); }

    // Transcripts the rows' jobs made but couldn't store, until the user saves them elsewhere.
    [[nodiscard]] UnsavedTranscripts& unsavedTranscripts() { return unsaved_; }

signals:
    void changed();

private:
    // Runs `work` on a thread of its own and `deliver` on the main thread after, unless this
    // model is gone by then.
    void lookUp(std::function<std::function<void()>(engine::TranscriptionControl&)> work);
    void lookUpLanguageSupport();
    void storeSafely(const std::function<void()>& write);

    std::shared_ptr<engine::SettingsStore> settings_;
    std::shared_ptr<engine::OpenRouterKeyStoring> keyStore_;
    engine::OpenRouterClient client_;
    std::filesystem::path scratchRoot_;
    std::shared_ptr<engine::OpenRouterCatalog> catalogSource_;

    engine::TranscriptionKeyPresence keyPresence_ = engine::TranscriptionKeyPresence::unknown;
    std::optional<bool> activeModelAcceptsLanguage_;
    QString addRejection_;
    QString verifyResult_;
    QString catalogResult_;
    bool verifyingKey_ = false;
    int metadataOperations_ = 0;
    std::uint64_t keyVerificationGeneration_ = 0;
    std::uint64_t parametersLookupGeneration_ = 0;

    std::map<engine::Uuid, TranscriptionQueueJob::Binding> bindings_;  // main thread only
    UnsavedTranscripts unsaved_;

    struct Lookup {
        std::shared_ptr<engine::TranscriptionControl> control;
        std::shared_ptr<std::atomic<bool>> finished;
        std::thread thread;
    };
    std::vector<Lookup> lookups_;  // main thread only
};

}  // namespace tessarin::app
