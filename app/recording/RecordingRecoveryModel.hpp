// The offer, at start, to save or discard the screen recordings a crash left unfinished. Scans
// the recording root on a worker thread, lists what it finds (also under the setting
// "screenRecording.unfinishedTakes"), and recovers a take to its recording folder or moves it to
// the Trash, one operation at a time, each on a worker thread.
//
// Threads: every member is called on the main thread; signals are emitted there.
#pragma once

#include <QObject>
#include <QString>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "engine/process/Tools.hpp"
#include "engine/recording/RecordingRecovery.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::app {

class MainThreadHandoff;

inline constexpr std::string_view kUnfinishedTakesKey = "screenRecording.unfinishedTakes";
// Take folders that were saved but could not be removed; retried at every scan.
inline constexpr std::string_view kCleanupDirectoriesKey = "screenRecording.cleanupDirectories";

class RecordingRecoveryModel : public QObject {
    Q_OBJECT
public:
    // `root`: the recording root; `tools`: for joining and measuring (nothing: the model offers
    // nothing, since no take could be saved).
    RecordingRecoveryModel(std::shared_ptr<engine::SettingsStore> settings,
                           std::filesystem::path root, std::optional<engine::Tools> tools,
                           QObject* parent = nullptr);
    ~RecordingRecoveryModel() override;
    RecordingRecoveryModel(const RecordingRecoveryModel&) = delete;
    RecordingRecoveryModel& operator=(const RecordingRecoveryModel&) = delete;

    // Retries the clean-up of saved takes' folders, then looks for unfinished takes;
    // takesChanged() follows.
    void scan();
    // Saves one take (by folder) to its recording folder; recovered() or failed() follows, then
    // takesChanged().
    void recover(const std::filesystem::path& directory);
    // Moves one take to the Trash; discarded() or failed() follows, then takesChanged().
    void discard(const std::filesystem::path& directory);
    // The user chose "later": the takes stay where they are until the next start.
    void postpone();

    [[nodiscard]] const std::vector<engine::UnfinishedTake>& unfinishedTakes() const {
        return takes_;
    }
    [[nodiscard]] bool busy() const { return busy_; }
    [[nodiscard]] bool postponed() const { return postponed_; }
    // The recording folder from the stored preferences (the default when none is set).
    [[nodiscard]] std::filesystem::path destinationFolder() const;
    // Waits until no worker runs, at most `limit`; true if none does. For tests and quitting.
    [[nodiscard]] bool waitForBackgroundWork(std::chrono::milliseconds limit);

signals:
    void takesChanged();
    void recovered(const QString& summary, const QString& publishedPath);
    void discarded();
    void failed(const QString& message);

private slots:
    void deliverBackgroundResults();

private:
    void setTakes(std::vector<engine::UnfinishedTake> takes);
    [[nodiscard]] engine::RecordingWork work() const;

    std::shared_ptr<engine::SettingsStore> settings_;
    std::filesystem::path root_;
    std::optional<engine::Tools> tools_;
    std::vector<engine::UnfinishedTake> takes_;
    bool busy_ = false;
    bool postponed_ = false;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
