// The window's view of a screen recording: the engine's RecordingSession, whose snapshots are
// handed to the main thread and published as `changed()`. Actions are queued to the session and
// return at once; nothing here blocks the main thread, quitting included.
//
// Threads: every member is called on the main thread; signals are emitted there.
#pragma once

#include <QObject>
#include <QString>
#include <functional>
#include <memory>

#include "app/recording/RecordingRecoveryModel.hpp"
#include "engine/recording/session/RecordingSession.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::app {

class MainThreadHandoff;

class RecordingSessionModel : public QObject {
    Q_OBJECT
public:
    using OperationsFactory = std::function<engine::RecordingSessionOperations()>;

    // The question asked when quitting with a take running.
    static constexpr const char* kQuitAlertTitle = "Save the recording before quitting?";
    static constexpr const char* kQuitAlertText =
        "Tessarin will stop recording and finish saving the file before it quits.";
    static constexpr const char* kQuitAlertSave = "Stop, Save and Quit";
    static constexpr const char* kQuitAlertKeep = "Keep Recording";

    // `makeOperations` is called once, at the first start (empty: recording is unavailable).
    RecordingSessionModel(std::shared_ptr<engine::SettingsStore> settings,
                          OperationsFactory makeOperations, QObject* parent = nullptr);
    // A take still running is stopped and saved first (the session's own rule).
    ~RecordingSessionModel() override;

    [[nodiscard]] bool available() const { return static_cast<bool>(makeOperations_); }
    [[nodiscard]] const engine::RecordingSession::Snapshot& snapshot() const { return snapshot_; }
    [[nodiscard]] bool isLive() const { return engine::isLive(snapshot_.phase); }

    // The stored preferences, repaired (Part of the settings store's "screenRecording" keys).
    [[nodiscard]] engine::RecordingPreferences preferences() const;
    void setPreferences(const engine::RecordingPreferences& preferences);

    // Stores `preferences` and starts a take of `target`.
    void start(const engine::RecordingTarget& target, const engine::RecordingPreferences& preferences);
    void pause();
    void resume();
    void stop();
    void dismiss();
    // Ends the take and moves it to the Trash (the window asks first).
    void discard();
    // The snapshot's `confirmation` becomes `discard` or `restart`; confirm() carries it out
    // (a restart discards the take and records the same target anew), dismissConfirmation()
    // keeps recording.
    void requestDiscard();
    void requestRestart();
    // A take that failed to save: join and publish it again.
    void retrySaving();

    // Quit with a take running: the snapshot's `confirmation` becomes `quit` and the window
    // asks. confirm() stops and saves, and the reply says true once the take is saved or
    // failed, false when that takes longer than `limit` (60 s), so the window stays up and the
    // user can act; dismissConfirmation() keeps recording and answers false. Not live: answers
    // true at once. `reply` runs on the main thread.
    void handleQuit(std::function<void(bool)> reply,
                    std::chrono::milliseconds limit = std::chrono::seconds(60));
    void confirm();
    void dismissConfirmation();

signals:
    void changed();
    // The take was saved at `path` (once per take).
    void saved(const QString& path);

private slots:
    void deliverBackgroundResults();

private:
    void deliver(const engine::RecordingSession::Snapshot& snapshot);
    // Keeps the running take in "screenRecording.unfinishedTakes" until it is saved or
    // discarded, so that a crash leaves it listed for recovery.
    void rememberTake(const engine::RecordingSession::Snapshot& previous,
                      const engine::RecordingSession::Snapshot& now);
    engine::RecordingSession& session();

    std::shared_ptr<engine::SettingsStore> settings_;
    OperationsFactory makeOperations_;
    engine::RecordingSession::Snapshot snapshot_;
    std::shared_ptr<MainThreadHandoff> handoff_;
    std::unique_ptr<engine::RecordingSession> session_;
};

}  // namespace tessarin::app
