#include "app/transcription/TranscriptionSettingsModel.hpp"

#include <QMetaObject>
#include <algorithm>
#include <QPointer>

#include "app/transcription/TranscriptDestination.hpp"
#include "app/transcription/TranscriptionQueueJob.hpp"
#include "engine/log/Log.hpp"
#include "engine/transcription/TranscriptionMediaBackend.hpp"

namespace tessarin::app {

namespace {

using engine::TranscriptionConsentKind;
using engine::TranscriptionError;
using Presence = engine::TranscriptionKeyPresence;

const engine::Logger& settingsLog() {
    static const engine::Logger log("com.tessarin.transcription", "settings");
    return log;
}

QString text(std::string_view value) {
    return QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size()));
}

}  // namespace

TranscriptionSettingsModel::TranscriptionSettingsModel(
    std::shared_ptr<engine::SettingsStore> settings,
    std::shared_ptr<engine::OpenRouterKeyStoring> keyStore, engine::OpenRouterClient client,
    std::filesystem::path scratchRoot, QObject* parent)
    : QObject(parent),
      settings_(std::move(settings)),
      keyStore_(std::move(keyStore)),
      client_(std::move(client)),
      scratchRoot_(std::move(scratchRoot)),
      catalogSource_(std::make_shared<engine::OpenRouterCatalog>(client_, *settings_)) {}

TranscriptionSettingsModel::~TranscriptionSettingsModel() {
    for (Lookup& lookup : lookups_) {
        lookup.control->cancel();
    }
    for (Lookup& lookup : lookups_) {
        lookup.thread.join();
    }
}

void TranscriptionSettingsModel::lookUp(
    std::function<std::function<void()>(engine::TranscriptionControl&)> work) {
    std::erase_if(lookups_, [](Lookup& lookup) {
        if (!lookup.finished->load()) {
            return false;
        }
        lookup.thread.join();
        return true;
    });
    auto control = std::make_shared<engine::TranscriptionControl>();
    auto finished = std::make_shared<std::atomic<bool>>(false);
    std::thread thread([this, control, finished, work = std::move(work)] {
        std::function<void()> deliver;
        try {
            deliver = work(*control);
        } catch (...) {
            deliver = {};
        }
        if (deliver && !control->isCancelled()) {
            // A queued call whose receiver is gone is dropped by Qt; the destructor waits for
            // this thread, so `this` is alive while it is posted.
            QMetaObject::invokeMethod(this, std::move(deliver), Qt::QueuedConnection);
        }
        finished->store(true);
    });
    lookups_.push_back({std::move(control), std::move(finished), std::move(thread)});
}

void TranscriptionSettingsModel::storeSafely(const std::function<void()>& write) {
    try {
        write();
    } catch (const std::exception&) {
        settingsLog().error("settings write failed");
    }
    emit changed();
}

std::vector<engine::TranscriptionRosterEntry> TranscriptionSettingsModel::roster() const {
    return engine::TranscriptionRoster(*settings_).roster();
}

std::optional<engine::CatalogSnapshot> TranscriptionSettingsModel::catalog() const {
    return catalogSource_->cached();
}

engine::ActiveModelResolution TranscriptionSettingsModel::activeResolution() const {
    return engine::TranscriptionRoster(*settings_).resolveActive(catalog());
}

std::optional<engine::TranscriptionRoute> TranscriptionSettingsModel::activeRoute() const {
    const engine::ActiveModelResolution active = activeResolution();
    const std::optional<engine::CatalogSnapshot> snapshot = catalog();
    if (active.kind == engine::ActiveModelResolution::Kind::none || !snapshot) {
        return std::nullopt;
    }
    const engine::CatalogEntry* entry = snapshot->find(active.id);
    return entry != nullptr ? std::optional(engine::route(*entry)) : std::nullopt;
}

engine::TranscriptionPreferences TranscriptionSettingsModel::preferences() const {
    return engine::TranscriptionPreferences::load(*settings_);
}

bool TranscriptionSettingsModel::consentGranted(TranscriptionConsentKind kind) const {
    return engine::TranscriptionConsentStore(*settings_).isGranted(kind);
}

QString TranscriptionSettingsModel::languageHintText() const {
    if (!activeModelAcceptsLanguage_) {
        return tr(kLanguageUnknown);
    }
    return tr(*activeModelAcceptsLanguage_ ? kLanguageSent : kLanguageNotSent);
}

QString TranscriptionSettingsModel::optionsNote() const {
    const engine::ActiveModelResolution active = activeResolution();
    if (active.kind != engine::ActiveModelResolution::Kind::none &&
        engine::lowercasedText(active.id) == engine::kMaiTranscribe2) {
        return {};
    }
    return text(engine::TranscriptionPreferences::kPlainTextOnlyText) + QStringLiteral(" ") +
           text(engine::TranscriptionPreferences::kOptionsKeptText);
}

TranscriptionDiagnostics TranscriptionSettingsModel::diagnostics() const {
    TranscriptionDiagnostics report;
    report.keyPresent = keyPresence_ == Presence::present;
    report.keyUnreadable = keyPresence_ == Presence::unreadable;
    const engine::TranscriptionConsentStore consent(*settings_);
    report.audioConsentVersion = consent.storedVersion(TranscriptionConsentKind::audioUpload);
    report.audioConsentGrantedAt = consent.grantedAt(TranscriptionConsentKind::audioUpload);
    report.videoConsentVersion = consent.storedVersion(TranscriptionConsentKind::videoUpload);
    report.videoConsentGrantedAt = consent.grantedAt(TranscriptionConsentKind::videoUpload);
    const engine::ActiveModelResolution active = activeResolution();
    if (active.kind != engine::ActiveModelResolution::Kind::none) {
        report.activeModelID = active.id;
    }
    if (active.kind == engine::ActiveModelResolution::Kind::fellBack && !active.from.empty()) {
        report.fellBackFrom = active.from;
    }
    if (const auto route = activeRoute()) {
        report.activeRoute = std::string(engine::rawValue(*route));
    }
    const std::vector<engine::TranscriptionRosterEntry> entries = roster();
    report.rosterCount = entries.size();
    report.enabledCount = static_cast<std::size_t>(std::count_if(
        entries.begin(), entries.end(), [](const auto& entry) { return entry.enabled; }));
    report.destinationMode = std::string(rawValue(transcriptOutputModeFromRaw(
        settings_->stringValue(TranscriptDestination::kModeKey).value_or(""))));
    const engine::TranscriptionPreferences chosen = preferences();
    report.promptModeName = std::string(engine::rawValue(chosen.promptMode));
    report.languageCode = chosen.language;
    if (const auto snapshot = catalog()) {
        report.catalogFetchedAt = snapshot->fetchedAt;
    }
    return report;
}

void TranscriptionSettingsModel::refreshKeyPresence() {
    keyPresence_ = keyStore_->read().presence;
    emit changed();
}

QString TranscriptionSettingsModel::saveKey(const QString& field) {
    try {
        keyPresence_ = engine::saveKeyField(*keyStore_, field.toStdString());
    } catch (const engine::OpenRouterKeySaveError& error) {
        emit changed();
        return QString::fromUtf8(error.what());
    }
    verifyResult_.clear();
    emit changed();
    return {};
}

QString TranscriptionSettingsModel::removeKey() {
    try {
        keyStore_->remove();
        keyPresence_ = Presence::absent;
    } catch (const engine::OpenRouterKeySaveError& error) {
        return QString::fromUtf8(error.what());
    }
    verifyResult_.clear();
    emit changed();
    return {};
}

void TranscriptionSettingsModel::verifyKey() {
    const std::uint64_t generation = ++keyVerificationGeneration_;
    const engine::OpenRouterKeyRead key = keyStore_->read();
    keyPresence_ = key.presence;
    if (key.presence != Presence::present) {
        verifyingKey_ = false;
        verifyResult_ = key.presence == Presence::unreadable
                            ? text(TranscriptionError(TranscriptionError::Code::keychainUnreadable).text())
                            : tr(kNoKeyYet);
        emit changed();
        return;
    }
    verifyingKey_ = true;
    emit changed();
    lookUp([this, generation, key = key.key](engine::TranscriptionControl& control) {
        QString result;
        try {
            (void)client_.keyInfo(key, &control);
            result = tr(kKeyAccepted);
        } catch (const TranscriptionError& error) {
            result = error.code() == TranscriptionError::Code::network ? tr(kUnreachable)
                                                                      : text(error.text());
        }
        return std::function<void()>([this, generation, result] {
            if (generation != keyVerificationGeneration_) {
                return;  // a later attempt owns the display
            }
            verifyingKey_ = false;
            verifyResult_ = result;
            emit changed();
        });
    });
}

void TranscriptionSettingsModel::refreshCatalog(bool force) {
    ++metadataOperations_;
    emit changed();
    auto catalog = catalogSource_;
    lookUp([this, catalog, force](engine::TranscriptionControl& control) {
        QString result;
        try {
            (void)catalog->snapshot(force, &control);
        } catch (const TranscriptionError& error) {
            result = text(error.text());
        }
        return std::function<void()>([this, result] {
            --metadataOperations_;
            catalogResult_ = result;
            emit changed();
            lookUpLanguageSupport();
        });
    });
}

void TranscriptionSettingsModel::lookUpLanguageSupport() {
    const engine::ActiveModelResolution active = activeResolution();
    const std::uint64_t generation = ++parametersLookupGeneration_;
    activeModelAcceptsLanguage_.reset();
    if (active.kind == engine::ActiveModelResolution::Kind::none) {
        emit changed();
        return;
    }
    ++metadataOperations_;
    emit changed();
    lookUp([this, generation, id = active.id](engine::TranscriptionControl& control) {
        std::optional<bool> accepts;
        try {
            const engine::ORModelEndpointsResponse response = client_.modelEndpoints(id, &control);
            if (response.data.endpoints) {
                accepts = false;
                for (const engine::OREndpoint& endpoint : *response.data.endpoints) {
                    accepts = *accepts ||
                              engine::supportsParameter(endpoint.supportedParameters, "language");
                }
            }
        } catch (const TranscriptionError&) {
            accepts.reset();
        }
        return std::function<void()>([this, generation, accepts] {
            --metadataOperations_;
            if (generation == parametersLookupGeneration_) {
                activeModelAcceptsLanguage_ = accepts;
            }
            emit changed();
        });
    });
}

void TranscriptionSettingsModel::addModel(const QString& id) {
    std::optional<std::string> refusal;
    storeSafely([&] {
        refusal = engine::TranscriptionRoster(*settings_).addModel(id.toStdString(), catalog());
    });
    addRejection_ = refusal ? QString::fromStdString(*refusal) : QString();
    emit changed();
}

void TranscriptionSettingsModel::setModelEnabled(const QString& id, bool enabled) {
    storeSafely([&] { (void)engine::TranscriptionRoster(*settings_).setEnabled(id.toStdString(), enabled); });
    lookUpLanguageSupport();
}

void TranscriptionSettingsModel::restoreRoster() {
    storeSafely([&] { engine::TranscriptionRoster(*settings_).restoreDefaults(); });
    lookUpLanguageSupport();
}

void TranscriptionSettingsModel::setActiveModel(const QString& id) {
    storeSafely([&] { engine::TranscriptionRoster(*settings_).setActiveModel(id.toStdString()); });
    lookUpLanguageSupport();
}

void TranscriptionSettingsModel::setPromptMode(engine::TranscriptionPromptMode mode) {
    engine::TranscriptionPreferences preferences = this->preferences();
    preferences.promptMode = mode;
    storeSafely([&] { preferences.save(*settings_); });
}

void TranscriptionSettingsModel::setCustomPrompt(const QString& prompt) {
    engine::TranscriptionPreferences preferences = this->preferences();
    preferences.customPrompt = prompt.toStdString();
    storeSafely([&] { preferences.save(*settings_); });
}

void TranscriptionSettingsModel::setLanguage(const QString& code) {
    engine::TranscriptionPreferences preferences = this->preferences();
    preferences.language = engine::normalizedLanguage(code.toStdString());
    storeSafely([&] { preferences.save(*settings_); });
}

QString TranscriptionSettingsModel::setOptions(const engine::TranscriptionOptions& options) {
    if (const auto problem = engine::vocabularyProblem(options.vocabulary)) {
        return QString::fromStdString(*problem);
    }
    engine::TranscriptionPreferences preferences = this->preferences();
    preferences.options = options;
    storeSafely([&] { preferences.save(*settings_); });
    return {};
}

void TranscriptionSettingsModel::grantConsent(TranscriptionConsentKind kind) {
    storeSafely([&] {
        engine::TranscriptionConsentStore(*settings_).grant(kind, engine::secondsSince1970());
    });
}

void TranscriptionSettingsModel::withdrawConsent(TranscriptionConsentKind kind) {
    storeSafely([&] { engine::TranscriptionConsentStore(*settings_).withdraw(kind); });
}

TranscriptionPrerequisites TranscriptionSettingsModel::prerequisites() const {
    TranscriptionPrerequisites prerequisites;
    prerequisites.hasUsableModel =
        activeResolution().kind != engine::ActiveModelResolution::Kind::none;
    prerequisites.hasAPIKey = keyPresence_ == Presence::present;
    const std::optional<engine::TranscriptionRoute> route = activeRoute();
    prerequisites.modelUploadsVideo = route == engine::TranscriptionRoute::videoChat;
    prerequisites.hasConsent = consentGranted(prerequisites.modelUploadsVideo
                                                  ? TranscriptionConsentKind::videoUpload
                                                  : TranscriptionConsentKind::audioUpload);
    prerequisites.glossaryReviewDue =
        prerequisites.hasUsableModel &&
        !engine::optionsAllowed(preferences().effectiveOptions(activeResolution().id),
                                activeResolution().id);
    return prerequisites;
}

std::shared_ptr<QueueJob> TranscriptionSettingsModel::makeJob(const QueueItem& item,
                                                              const engine::Tools& tools) {
    const engine::TranscriptionPreferences preferences = this->preferences();
    engine::TranscriptionRequest request;
    request.modelID = activeResolution().id;
    request.language = preferences.language;
    request.instruction = preferences.instruction();
    request.options = preferences.effectiveOptions(request.modelID);
    request.trim = item.pendingTrim.value_or(engine::Trim{});
    engine::TranscriptionDestination destination;
    const TranscriptDestination::Resolution resolved = TranscriptDestination::resolve(*settings_);
    switch (resolved.kind) {
        case TranscriptDestination::Resolution::Kind::folder:
            destination = {engine::TranscriptionDestination::Kind::folder, resolved.folder};
            break;
        case TranscriptDestination::Resolution::Kind::sameFolder: break;
        case TranscriptDestination::Resolution::Kind::unavailable:
            destination.kind = engine::TranscriptionDestination::Kind::unavailable;
            break;
    }
    auto settings = settings_;
    // The queue checked the approval before the row started; the gate reads it again, so a
    // withdrawal in between is honoured and nothing is sent.
    auto pipeline = std::make_unique<engine::TranscriptionPipeline>(
        client_, *catalogSource_, keyStore_,
        std::make_shared<engine::EngineTranscriptionBackend>(tools),
        [settings](engine::TranscriptionRoute route) {
            return engine::TranscriptionConsentStore(*settings).answer(route);
        },
        scratchRoot_);
    TranscriptionQueueJob::Binding binding;
    if (const auto bound = bindings_.find(item.id); bound != bindings_.end()) {
        binding = std::move(bound->second);
        bindings_.erase(bound);
    } else {
        binding = TranscriptionQueueJob::Binding::of(item.source);
    }
    auto job = std::make_shared<TranscriptionQueueJob>(
        std::move(binding), std::move(request), std::move(destination), std::move(pipeline),
        std::vector<std::shared_ptr<const void>>{catalogSource_, settings_});
    job->keepUnsavedWith(unsaved_.sink());
    return job;
}

void TranscriptionSettingsModel::bindQueued(const std::vector<QueueItem>& items) {
    std::map<engine::Uuid, TranscriptionQueueJob::Binding> kept;
    for (const QueueItem& item : items) {
        const bool transcribing =
            item.kind && std::holds_alternative<JobKind::Transcribe>(item.kind->value);
        const bool waiting = item.state.kind == QueueItem::StateKind::waiting;
        // A row turns running before its job is made: its binding waits for makeJob.
        const bool starting = item.state.kind == QueueItem::StateKind::running;
        auto bound = bindings_.find(item.id);
        if (transcribing && starting && bound != bindings_.end()) {
            kept.emplace(item.id, std::move(bound->second));
        } else if (transcribing && waiting) {
            kept.emplace(item.id, bound != bindings_.end()
                                      ? std::move(bound->second)
                                      : TranscriptionQueueJob::Binding::of(item.source));
        }
    }
    bindings_ = std::move(kept);  // the others' descriptors close here
}

}  // namespace tessarin::app
