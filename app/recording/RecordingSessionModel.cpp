#include "app/recording/RecordingSessionModel.hpp"

#include <nlohmann/json.hpp>

#include "app/support/MainThreadHandoff.hpp"

namespace tessarin::app {

RecordingSessionModel::RecordingSessionModel(std::shared_ptr<engine::SettingsStore> settings,
                                             OperationsFactory makeOperations, QObject* parent)
    : QObject(parent),
      settings_(std::move(settings)),
      makeOperations_(std::move(makeOperations)),
      handoff_(std::make_shared<MainThreadHandoff>(
          this, "deliverBackgroundResults",
          engine::Logger("com.tessarin.recording", "session-model"))) {}

RecordingSessionModel::~RecordingSessionModel() {
    if (session_) {
        session_->stop();
    }
    handoff_->detach();
    // A quit's watcher holds the session until the take settles: let it end first.
    (void)handoff_->waitUntilIdle(std::chrono::seconds(70));
    session_.reset();  // saves a take still running, then joins its threads
}

void RecordingSessionModel::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

void RecordingSessionModel::deliver(const engine::RecordingSession::Snapshot& snapshot) {
    const bool newlySaved = snapshot.phase == engine::RecordingPhase::saved &&
                            snapshot_.phase != engine::RecordingPhase::saved && snapshot.savedURL;
    snapshot_ = snapshot;
    emit changed();
    if (newlySaved) {
        emit saved(QString::fromStdString(snapshot.savedURL->string()));
    }
}

engine::RecordingSession& RecordingSessionModel::session() {
    if (!session_) {
        std::weak_ptr<MainThreadHandoff> handoff = handoff_;
        session_ = std::make_unique<engine::RecordingSession>(
            makeOperations_(), [this, handoff](const engine::RecordingSession::Snapshot& snapshot) {
                if (const auto target = handoff.lock()) {
                    target->post([this, snapshot] { deliver(snapshot); });
                }
            });
    }
    return *session_;
}

engine::RecordingPreferences RecordingSessionModel::preferences() const {
    nlohmann::json stored = nlohmann::json::object();
    if (const auto text = settings_->dataValue(engine::RecordingPreferences::kSettingsKey)) {
        stored = nlohmann::json::parse(*text, nullptr, false);
    }
    return engine::recordingPreferencesFromJson(stored);
}

void RecordingSessionModel::setPreferences(const engine::RecordingPreferences& preferences) {
    settings_->setData(engine::RecordingPreferences::kSettingsKey,
                       engine::toJson(preferences).dump());
}

void RecordingSessionModel::start(const engine::RecordingTarget& target,
                                  const engine::RecordingPreferences& preferences) {
    if (!available() || isLive()) {
        return;
    }
    setPreferences(preferences);
    session().start(target, preferences);
}

void RecordingSessionModel::pause() {
    if (session_) {
        session_->pause();
    }
}

void RecordingSessionModel::resume() {
    if (session_) {
        session_->resume();
    }
}

void RecordingSessionModel::stop() {
    if (session_) {
        session_->stop();
    }
}

void RecordingSessionModel::dismiss() {
    if (session_) {
        session_->dismiss();
    }
}

void RecordingSessionModel::handleQuit(std::function<void(bool)> reply,
                                       std::chrono::milliseconds limit) {
    if (!session_ || !isLive()) {
        reply(true);
        return;
    }
    session_->stop();
    engine::RecordingSession* session = session_.get();
    // The wait runs on a worker; the model outlives it (its destructor waits for workers).
    handoff_->start([session, limit, reply = std::move(reply)] {
        const bool settled = session->waitUntilSettled(limit);
        return MainThreadHandoff::Completion([reply, settled] { reply(settled); });
    });
}

}  // namespace tessarin::app
