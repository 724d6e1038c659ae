#include "app/recording/RecordingSessionModel.hpp"

#include <algorithm>
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
    (void)handoff_->waitUntilIdle(std::chrono::seconds(70));
    // Saves a take still running, then joins its threads (a confirmed quit's watcher too).
    session_.reset();
}

void RecordingSessionModel::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

void RecordingSessionModel::deliver(const engine::RecordingSession::Snapshot& snapshot) {
    const bool newlySaved = snapshot.phase == engine::RecordingPhase::saved &&
                            snapshot_.phase != engine::RecordingPhase::saved && snapshot.savedURL;
    rememberTake(snapshot_, snapshot);
    snapshot_ = snapshot;
    emit changed();
    if (newlySaved) {
        emit saved(QString::fromStdString(snapshot.savedURL->string()));
    }
}

void RecordingSessionModel::rememberTake(const engine::RecordingSession::Snapshot& previous,
                                         const engine::RecordingSession::Snapshot& now) {
    if (previous.takeDirectory == now.takeDirectory) {
        return;
    }
    std::vector<std::string> takes =
        settings_->stringListValue(kUnfinishedTakesKey).value_or(std::vector<std::string>{});
    const std::vector<std::string> before = takes;
    // A take that failed to save stays listed; one saved, discarded or removed empty while it
    // ran leaves the list.
    if (previous.takeDirectory && engine::isLive(previous.phase) &&
        now.phase != engine::RecordingPhase::failed) {
        std::erase(takes, previous.takeDirectory->string());
    }
    if (now.takeDirectory &&
        std::find(takes.begin(), takes.end(), now.takeDirectory->string()) == takes.end()) {
        takes.push_back(now.takeDirectory->string());
    }
    if (takes != before) {
        settings_->setStringList(kUnfinishedTakesKey, takes);
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

void RecordingSessionModel::discard() {
    if (session_) {
        session_->discard();
    }
}

void RecordingSessionModel::requestDiscard() {
    if (session_) {
        session_->requestDiscard();
    }
}

void RecordingSessionModel::requestRestart() {
    if (session_) {
        session_->requestRestart();
    }
}

void RecordingSessionModel::retrySaving() {
    if (session_) {
        session_->retrySaving();
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
    std::weak_ptr<MainThreadHandoff> handoff = handoff_;
    session_->handleQuit(
        [handoff, reply = std::move(reply)](bool mayQuit) {
            if (const auto target = handoff.lock()) {
                target->post([reply, mayQuit] { reply(mayQuit); });
            }
        },
        limit);
}

void RecordingSessionModel::confirm() {
    if (session_) {
        session_->confirm();
    }
}

void RecordingSessionModel::dismissConfirmation() {
    if (session_) {
        session_->dismissConfirmation();
    }
}

}  // namespace tessarin::app
