// One recording session: it checks a source, counts down, makes the take, starts a capture,
// pauses and resumes by segment, watches the source and the drive while recording, stops and
// saves (joining the segments without re-encoding), and keeps the take for recovery whenever
// saving fails. Every side effect goes through Operations, so the phases can be driven without
// a screen.
//
// Threads: actor-like. Commands (start, pause, resume, stop, cancel) may come from any thread;
// they are queued and run in order on the session's own serial queue, which alone changes the
// state. A monitor thread counts down, keeps `elapsed`, and polls the drive and the source; what
// it finds is queued like a command. snapshot() may be called from any thread. The listener is
// called on those threads after each change; it must hop to its own thread (the window does).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "engine/recording/RecordingFiles.hpp"
#include "engine/recording/RecordingPreferences.hpp"
#include "engine/recording/RecordingStorageProbe.hpp"
#include "engine/recording/capture/RecordingCapture.hpp"
#include "engine/recording/capture/SerialQueue.hpp"

namespace tessarin::engine {

enum class RecordingPhase {
    idle,
    selecting,
    countdown,
    starting,
    recording,
    pausing,
    paused,
    resuming,
    finishing,
    saved,
    failed,
};

// From `countdown` up to `finishing`: nothing else may start or recover meanwhile.
[[nodiscard]] bool isLive(RecordingPhase phase);
// "recording", as --json and logs name it.
[[nodiscard]] const char* recordingPhaseName(RecordingPhase phase);
// The accessibility status of the phase ("Recording", "Saving recording"…).
[[nodiscard]] const char* recordingPhaseStatus(RecordingPhase phase);

// What ends a take whose source went away: a display (or an area of it) disconnected, or a
// window or app no longer there.
[[nodiscard]] std::string sourceGoneSentence(RecordingMode mode);

inline constexpr const char* kGoingToSleepSentence = "The computer is going to sleep.";
inline constexpr const char* kMicrophoneDisconnectedSentence =
    "The selected microphone disconnected. Tessarin did not switch to another microphone.";
inline constexpr const char* kApplicationQuitSentence = "The selected app quit.";

inline constexpr const char* kLiveSessionReason =
    "Stop capture before starting or recovering another take.";

struct RecordingSessionOperations {
    static constexpr int64_t kDefaultLowSpaceBytes = 1LL << 30;

    std::function<std::unique_ptr<RecordingCaptureControlling>(RecordingCaptureRequest)>
        captureFactory;
    // Joins and publishes the take (RecordingFiles::finalize).
    std::function<RecordingFiles::Finalized(RecordingFiles&)> finalizeTake;
    std::function<bool(const RecordingTarget&)> sourceAvailability;
    std::function<bool(const std::string& microphoneID)> microphoneAvailable;
    // The drive of a folder, within the probe's time-out.
    std::function<RecordingStorageStatus(const std::filesystem::path&)> storageCheck;
    std::chrono::milliseconds storageInterval{1000};
    std::function<std::filesystem::path()> recordingRoot;
    // Calls its argument (from any thread) when the computer is about to sleep, for as long as
    // the returned handle lives. Empty: not watched.
    std::function<std::shared_ptr<void>(std::function<void()>)> watchSleep;
    // Calls its second argument (from any thread) when the microphone named by the first leaves
    // the sound server's device list, for as long as the returned handle lives. Empty: not
    // watched.
    std::function<std::shared_ptr<void>(const std::string&, std::function<void()>)>
        watchMicrophone;
    // Whether the recorded window's process still runs. Empty: not watched.
    std::function<bool(int32_t pid)> applicationRunning;
    int64_t lowSpaceBytes = kDefaultLowSpaceBytes;
    std::set<uint32_t> excludedWindowIDs;

    // The real platform: GStreamer capture, X11 sources, the storage probe, the recording root,
    // and finalising with `work`'s tools.
    [[nodiscard]] static RecordingSessionOperations platform(RecordingWork work);
};

class RecordingSession {
public:
    // What the window is asking the user to confirm.
    enum class Confirmation { restart, discard, quit };

    struct Snapshot {
        RecordingPhase phase = RecordingPhase::idle;
        std::optional<RecordingTarget> target;
        double elapsed = 0;
        int64_t countdownRemaining = 0;
        std::string errorMessage;
        std::string interruptionMessage;  // why a monitor ended the take
        std::optional<std::filesystem::path> savedURL;
        std::optional<std::filesystem::path> recoveryDirectory;  // the take kept after a failure
        std::optional<std::filesystem::path> takeDirectory;  // the running take's folder
        std::optional<RecordingSize> outputSize;
        RecordingAudioLevels audioLevels;
        bool needsStopRetry = false;
        int64_t segmentIndex = 0;
        std::optional<RecordingPreferences> activePreferences;
        std::optional<Confirmation> confirmation;
    };
    using Listener = std::function<void(const Snapshot&)>;

    explicit RecordingSession(RecordingSessionOperations operations, Listener listener = {});
    // A take still running is stopped and saved first.
    ~RecordingSession();
    RecordingSession(const RecordingSession&) = delete;
    RecordingSession& operator=(const RecordingSession&) = delete;

    // The source picker opened (idle → selecting) or closed again.
    void select();
    // From idle or selecting: checks and counts down (preferences.countdown seconds), then
    // records `target` with `preferences` into their destination folder.
    void start(RecordingTarget target, RecordingPreferences preferences);
    void pause();   // only from recording
    void resume();  // only from paused
    // From recording or paused: stop and save; during the countdown: cancel.
    void stop();
    // From saved or failed: back to idle.
    void dismiss();
    // From failed with the take still held: tries to join and publish it again.
    void retrySaving();
    // From countdown, recording or paused (after the user confirmed): ends the capture and moves
    // the take to the Trash; back to idle. A take that can't be moved safely stays, and the
    // session fails with the sentence that says so.
    void discard();

    // The application wants to quit. Not live: `reply(true)` at once. Live: `confirmation`
    // becomes `quit` and the reply waits for confirm() or dismissConfirmation(). Confirming
    // stops and saves; the reply then says true once the phase leaves the live range, or false
    // when that takes longer than `limit`, so the application stays up and the user can act.
    // `reply` is called on a session thread.
    void handleQuit(std::function<void(bool)> reply,
                    std::chrono::milliseconds limit = std::chrono::seconds(60));
    // From countdown, recording or paused: `confirmation` becomes `discard` or `restart`.
    void requestDiscard();
    void requestRestart();
    // Accepts the pending confirmation: discard (as discard()), restart (discard, then start the
    // same target with the same preferences anew), or quit (above).
    void confirm();
    // Keeps recording: the question goes away, and a pending quit is answered false.
    void dismissConfirmation();

    [[nodiscard]] Snapshot snapshot() const;
    // Waits until the phase is not live (or `timeout` passes); whether it settled.
    [[nodiscard]] bool waitUntilSettled(std::chrono::milliseconds timeout) const;
    // Waits until the phase is `phase`, or the take ends another way (saved or failed, when it
    // wasn't already), or `timeout` passes; whether the phase is `phase`.
    bool waitFor(RecordingPhase phase, std::chrono::milliseconds timeout) const;

private:
    void doStart(RecordingTarget target, RecordingPreferences preferences, uint64_t attempt);
    void beginCapture(uint64_t attempt);
    // Arms the microphone monitor for the take `attempt` (on the queue).
    void watchMicrophone(uint64_t attempt);
    void doPause();
    void doResume();
    void doStop(std::optional<std::string> interruption);
    void doDiscard();
    // Enters the finishing phase and takes the running capture (null when none) to stop it.
    std::shared_ptr<RecordingCaptureControlling> beginFinishing();
    void finalize(const std::string& captureFailure);
    void doCountdownTick(uint64_t attempt);
    void interrupt(std::string message, uint64_t attempt);
    void fail(std::string message);
    // Throws RecordingError when the source, microphone or drive can't take a segment now.
    void checkCanRecord(const RecordingTarget& target, const RecordingPreferences& preferences);
    [[nodiscard]] std::filesystem::path destinationFolder() const;
    void startSegment();
    // After a first segment failed to start: removes the take when no footage exists.
    void discardEmptyTake();
    void setPhase(RecordingPhase phase);
    void ask(Confirmation confirmation);
    // A quit still waiting for the user, once the take has ended some other way.
    void answerPendingQuit();
    void publish();
    void monitor();

    RecordingSessionOperations operations_;
    Listener listener_;

    mutable std::mutex mutex_;  // guards the fields down to `capture_`
    mutable std::condition_variable changed_;
    Snapshot state_;
    uint64_t sessionID_ = 0;  // renewed per attempt; a stale tick or interruption is dropped
    std::shared_ptr<RecordingCaptureControlling> capture_;
    std::optional<uint64_t> volumeID_;
    bool closing_ = false;
    double completedDuration_ = 0;  // the finished segments' sum

    // Touched only on the session queue.
    std::optional<RecordingFiles> files_;

    // Touched only on the session queue.
    std::function<void(bool)> quitReply_;
    std::chrono::milliseconds quitLimit_{0};
    std::thread quitWatcher_;  // waits for the take to settle after a confirmed quit

    std::unique_ptr<SerialQueue> queue_;
    std::thread monitor_;
    std::shared_ptr<void> sleepWatch_;  // released first, before the queue goes
    std::shared_ptr<void> microphoneWatch_;  // touched only on the queue; armed while live
};

}  // namespace tessarin::engine
