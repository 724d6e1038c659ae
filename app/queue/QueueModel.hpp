// The queue: every file from intake to result, and the one object the main window observes.
// Files enter from drops, the file panel, the command line and links through intake(); a file is
// started at once under an action (under Fast cut, staged for its review) or staged until the
// user chooses one. Jobs run one at a time on background threads and report back through the
// main thread's event loop.
//
//   QueueModel queue(tools);
//   queue.presetLookup = [&store](std::string_view id) { return store.preset(id); };
//   queue.destinationResolver = [&output](auto override) { return output.resolve(override); };
//   queue.setSelectedActionID(ActionID::preset("mp4-h264"));
//   queue.intake({QUrl::fromLocalFile("/videos/a.mov")}, {});
//   QObject::connect(&queue, &QueueModel::itemsChanged, view, &View::reload);
//
// Threads: a QueueModel lives on the main thread and every member must be called there. Folder
// walks and every job run on worker threads; the only file-system calls on the main thread are
// the lstat/stat of the URLs given directly (at most 1,000, after the count check) and the
// destination resolver's answer, asked once per batch.
#pragma once

#include <QList>
#include <QObject>
#include <QUrl>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/destinations/OutputDestination.hpp"
#include "app/queue/ActionCatalog.hpp"
#include "app/queue/FastCutReview.hpp"
#include "app/queue/IntakeFiles.hpp"
#include "app/queue/QueueJob.hpp"
#include "app/queue/SourceFacts.hpp"
#include "app/trim/TrimEditorTypes.hpp"
#include "engine/clips/Uuid.hpp"
#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/encoders/HardwareEncoderProbe.hpp"
#include "engine/model/JobFailure.hpp"
#include "engine/model/Preset.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::app {

class MainThreadHandoff;
class ProgressRelay;

struct QueueItem {
    enum class StateKind { running, done, failed, needsPreset, waiting };

    struct State {
        StateKind kind = StateKind::needsPreset;
        std::optional<double> progress;             // running: 0 to 1, or unknown
        std::filesystem::path output;               // done
        std::optional<engine::JobFailure> failure;  // failed

        bool operator==(const State&) const = default;
    };

    engine::Uuid id;
    std::filesystem::path source;
    std::optional<JobKind> kind;
    std::optional<ActionDescriptor> descriptor;
    std::optional<std::string> trimLabel;
    // A trim of this file alone; wins over the batch trim when the file starts.
    std::optional<engine::Trim> pendingTrim;
    // Clips of this file from the trim editor, exported as `clipMode` says; win over both trims.
    std::optional<std::vector<engine::ClipSelection>> pendingClips;
    ClipExportMode clipMode = ClipExportMode::separate;
    std::optional<IntakeFileID> sourceID;
    OutputDestination::Resolution destination;
    bool destinationWasOverridden = false;
    State state;
    std::optional<int64_t> sourceBytes;
    // The picture size the queue's probe of the source found.
    std::optional<int64_t> sourceWidth;
    std::optional<int64_t> sourceHeight;
    std::optional<int64_t> outputBytes;
    bool isHDR = false;
    std::optional<double> sourceDurationSeconds;
    std::optional<double> outputDurationSeconds;
    std::optional<std::string> phaseLabel;
    bool isCheckingCut = false;
    std::optional<std::string> warningNote;

    // The row's state text: the action's verb while running, "Converted"…, "Failed" or
    // "Cancelled", "Waiting for an action", "Waiting".
    [[nodiscard]] std::string stateLabel() const;
    [[nodiscard]] bool isFinished() const {
        return state.kind == StateKind::done || state.kind == StateKind::failed;
    }
};

// A batch waiting for the user's confirmation.
struct PendingIntake {
    struct File {
        std::filesystem::path path;
        std::optional<IntakeFileID> id;
    };

    engine::Uuid id;
    std::vector<File> identified;
    std::optional<ActionID> action;
    std::optional<std::string> trimLabel;
    std::optional<engine::Trim> trim;
    std::optional<std::filesystem::path> destinationOverride;
    bool destinationWasOverridden = false;
    std::size_t duplicatesSkipped = 0;

    // "Add {n} Videos" or "Transcribe {n} Videos".
    [[nodiscard]] std::string title() const;
    // "{n} videos found ({k} duplicates skipped). Add all to the queue?" and the transcription
    // form.
    [[nodiscard]] std::string message() const;
};

// Where the files of one intake come from, and whether they should start at once.
struct IntakeOptions {
    // The action chosen by the caller; without one, the window's selected action applies (never
    // a selected transcribe or frames for an external intake).
    std::optional<ActionID> action;
    std::optional<std::filesystem::path> destinationOverride;
    std::optional<engine::Trim> trim;
    // From outside the window: the command line, the file manager, links.
    bool isExternal = false;
    // The caller wants the batch to run now (a Convert of dropped files, a trusted link).
    bool startRequested = false;
};

// What transcription needs before a file may be queued for it; filled by the transcription
// settings when they exist. Each false refuses the intake with its sentence.
struct TranscriptionPrerequisites {
    bool hasUsableModel = false;
    bool hasAPIKey = false;
    bool hasConsent = false;
    bool modelUploadsVideo = false;  // the consent needed is the video-upload one
    bool glossaryReviewDue = false;
};

class QueueModel : public QObject {
    Q_OBJECT

public:
    enum class FolderResultDeliveryEvent { beforeMainActor, afterMainActor };

    using FolderWalker = std::function<FolderWalkResult(
        const std::vector<std::filesystem::path>& folders, std::size_t entryLimit,
        std::size_t videoLimit, const CancellationFlag& cancel)>;
    // Makes the job of a transcribe or frames item; nothing fails the item.
    using JobFactory = std::function<std::shared_ptr<QueueJob>(const QueueItem& item)>;

    // Without `tools` (the helper folder is incomplete) the queue refuses all work.
    explicit QueueModel(std::optional<engine::Tools> tools, QObject* parent = nullptr);
    // Cancels the running job and scan and waits for their threads (at most the cancel grace
    // and a little more); results still on their way are dropped.
    ~QueueModel() override;

    QueueModel(const QueueModel&) = delete;
    QueueModel& operator=(const QueueModel&) = delete;

    // Collaborators, replaceable; set them before the first intake. Defaults: the baseline
    // encoder policy, no presets but the built-ins, no hardware encoders, every destination
    // next to its original, no transcription, frame exports (FramesQueueJob) with the default
    // options, the default folder walker.
    std::function<engine::EncoderCapabilityPolicy()> encoderCapabilityPolicy;
    std::function<std::optional<engine::Preset>(std::string_view id)> presetLookup;
    std::function<engine::HardwareEncoderSupport()> hardwareEncoders;
    // The tools for an `h265` encode under an external toolchain, when one is ready.
    std::function<std::optional<engine::Tools>()> externalSoftwareHEVCTools;
    std::function<OutputDestination::Resolution(std::optional<std::filesystem::path> override)>
        destinationResolver;
    std::function<TranscriptionPrerequisites()> transcriptionPrerequisites;
    JobFactory transcriptionJobFactory;
    // Without a factory the Frames action is unavailable.
    JobFactory framesJobFactory;
    // The frame-export choices of the settings, asked when a frames row starts; the row's own
    // trim replaces the trim they carry.
    std::function<engine::FrameExtractionOptions()> framesOptions;
    FolderWalker folderWalker;
    std::function<void(FolderResultDeliveryEvent, uint64_t generation)>
        folderResultDeliveryObserver;
    // Desktop notifications: whether the window is active, and posting one (title, body).
    std::function<bool()> isApplicationActive;
    std::function<void(const std::string& title, const std::string& body)> postNotification;
    // Receives the redacted text of each failure, for the diagnostics report.
    std::function<void(const std::string& redacted)> recordEngineError;

    [[nodiscard]] const std::vector<QueueItem>& items() const { return items_; }
    [[nodiscard]] const QueueItem* item(const engine::Uuid& id) const;
    [[nodiscard]] bool hasTools() const { return tools_.has_value(); }
    [[nodiscard]] bool isWorking() const { return isWorking_; }
    [[nodiscard]] bool isScanning() const { return scan_ != nullptr; }
    [[nodiscard]] bool isShuttingDown() const { return isShuttingDown_; }
    // Whether a job runs or waits: what the quit alert asks about.
    [[nodiscard]] bool hasUnfinishedWork() const;
    [[nodiscard]] std::size_t stagedCount() const;
    // What decides which actions can run now, from the collaborators: the chips' reasons.
    [[nodiscard]] ActionAvailability actionAvailability() const;

    [[nodiscard]] const std::optional<ActionID>& selectedActionID() const {
        return selectedActionID_;
    }
    void setSelectedActionID(std::optional<ActionID> id);
    // The batch trim, as typed.
    [[nodiscard]] const std::string& trimStart() const { return trimStart_; }
    [[nodiscard]] const std::string& trimEnd() const { return trimEnd_; }
    void setTrim(std::string start, std::string end);
    // The inline text under the batch trim fields, or nothing when the trim is usable (or empty).
    [[nodiscard]] std::optional<std::string> trimValidationText() const;

    [[nodiscard]] const std::optional<PendingIntake>& pendingIntake() const {
        return pendingIntake_;
    }
    [[nodiscard]] const std::optional<std::string>& intakeNotice() const { return intakeNotice_; }
    [[nodiscard]] uint64_t intakeGeneration() const { return intakeGeneration_; }

    // Every way in. `urls` that aren't file URLs are skipped. Under Fast cut nothing starts: the
    // files are staged and those with a trim are published for review, as by start(). Returns
    // whether anything was taken in, staged for confirmation, or a folder scan began.
    bool intake(const QList<QUrl>& urls, const IntakeOptions& options);
    void confirmPendingIntake();
    void dismissPendingIntake();

    // The Convert button: gives the selected action to the staged items and starts work. Under
    // Fast cut nothing starts: the staged items with a trim are published for review instead.
    void start();
    // Runs the first waiting item if nothing runs.
    void startNext();
    // A running item is asked to stop (it ends "Cancelled"); a waiting or staged one is removed.
    void cancel(const engine::Uuid& id);
    // Removes a row that doesn't run.
    void remove(const engine::Uuid& id);
    void clearFinished();
    // Appends a line to the notice unless it is there already.
    void notice(const std::string& text);
    void dismissNotice();
    // Refuses new work, cancels the running job and the scan, and drops what waits.
    void prepareForQuit();

    // The fast cut awaiting review, from the last start() under Fast cut, until it is exported
    // or closed.
    [[nodiscard]] const std::optional<FastCutReviewRequest>& fastCutReview() const {
        return fastCutReview_;
    }
    // A review of the published request, wired to this queue: its export and hand-backs come
    // here, and it is marked changed as soon as the queue or a trim no longer matches the
    // request. Closing it withdraws the request, and so does its destruction, through the event
    // loop. Nothing without a request.
    [[nodiscard]] std::unique_ptr<FastCutReview> openFastCutReview(QObject* parent = nullptr);
    // Whether `request` is the one published and the rows and trims are still what it was made
    // from: the same rows in the same order, the same batch trim, each entry's row staged with
    // the entry's trim.
    [[nodiscard]] bool isFastCutReviewCurrent(const FastCutReviewRequest& request) const;
    // The reviewed plans of request `requestID` (by item id): those rows become waiting fast
    // cuts that carry their plan, and the queue starts. The rest stay staged. Nothing happens
    // when the request is not current; the request is withdrawn either way.
    void exportFastCut(const engine::Uuid& requestID, bool acceptWholeFile,
                       const FastCutReview::Plans& plans);
    // A file of the review that can't be cut stays staged, with `trim` as its own trim, so that a
    // preset can be chosen for it.
    void returnFastCutToConversion(const engine::Uuid& requestID, const engine::Uuid& id,
                                   const engine::Trim& trim);
    // Withdraws request `requestID` if it is the one published.
    void closeFastCutReview(const engine::Uuid& requestID);

    // What the trim editor opens with for row `id`: its own trim or clips, and the batch trim.
    // Nothing for a row that doesn't exist.
    [[nodiscard]] std::optional<TrimEditorRequest> trimEditorRequest(const engine::Uuid& id) const;
    // The editor's Apply for row `id`: false, changing nothing, unless the row waits (staged, or
    // waiting with a conversion) and can take the result: clips need a preset once they start.
    // On a waiting conversion, several separate clips become one waiting row each, the first
    // keeping `id`. Staged clips are exported when the row starts: by its preset, or under Fast
    // cut by a review that plans each clip (separate) or each piece of the joined output.
    [[nodiscard]] bool applyTrimEditor(const engine::Uuid& id, const TrimEditorResult& result);

    // Blocks until no job, scan or source probe runs, at most `limit`; true when none does. Results
    // arrive through the event loop afterwards. For orderly shutdown and tests.
    [[nodiscard]] bool waitForBackgroundWork(std::chrono::milliseconds limit);

signals:
    // Rows were added, removed or changed (state, progress, labels).
    void itemsChanged();
    void itemChanged(const QString& id);
    void selectedActionChanged();
    void trimChanged();
    void pendingIntakeChanged();
    void intakeNoticeChanged();
    void scanningChanged();
    // A fast cut review was published, replaced or withdrawn.
    void fastCutReviewChanged();
    // Transcription was refused for want of the upload approval (`video`: the whole-video one):
    // the window offers the upload notice, and after an approval starts again.
    void uploadConsentRequired(bool video);

private slots:
    void deliverBackgroundResults();

private:
    // Defined in internal/QueueModelInternals.hpp.
    struct Scan;
    struct RunningJob;
    struct Candidate {
        std::filesystem::path path;
        std::optional<IntakeFileID> id;
    };

    // Rows and state (QueueModel.cpp).
    [[nodiscard]] std::optional<ActionDescriptor> resolveDescriptor(const ActionID& id);
    void updateItem(const engine::Uuid& id, const std::function<void(QueueItem&)>& change);
    [[nodiscard]] QueueItem* findItem(const engine::Uuid& id);
    [[nodiscard]] std::optional<engine::Trim> batchTrim() const;
    void requireMainThread() const;

    // Intake (QueueIntake.cpp).
    // Steps 9 to 11 of an intake, on the main thread, after files are known.
    bool admit(std::vector<Candidate> files, const std::optional<ActionID>& action,
               const IntakeOptions& options, bool confirmed);
    // Returns the new rows' ids, in order.
    std::vector<engine::Uuid> addItems(
        const std::vector<Candidate>& files, const std::optional<ActionID>& action,
        const std::optional<engine::Trim>& trim,
        const std::optional<std::filesystem::path>& destinationOverride,
        bool destinationWasOverridden);
    [[nodiscard]] bool checkTranscriptionPrerequisites(bool forStart);
    [[nodiscard]] bool isDuplicate(const IntakeFileID& id,
                                   const std::optional<ActionID>& action) const;
    void finishScan(uint64_t generation, FolderWalkResult result, std::optional<ActionID> action,
                    IntakeOptions options, std::vector<Candidate> directFiles);

    // Scheduling (QueueScheduling.cpp) and the job of each kind (QueueJobFactory.cpp).
    void runItem(QueueItem& item);
    // Nothing when the kind's job can't be made here; the row then fails as unavailable.
    [[nodiscard]] std::shared_ptr<QueueJob> makeJob(const QueueItem& item);
    // The default frames factory: a FramesQueueJob with the item's options.
    [[nodiscard]] std::shared_ptr<QueueJob> makeFramesJob(const QueueItem& item) const;
    void finishItem(const engine::Uuid& id, std::optional<std::filesystem::path> output,
                    std::optional<engine::JobFailure> failure);

    // The review hand-off (QueueFastCutReview.cpp).
    void publishFastCutReview(std::vector<FastCutReviewRequest::Entry> entries);
    // Files that came in under Fast cut, staged as rows `ids`: those with a trim are published
    // for review together with the rows of a review still open; the others stay staged with the
    // notice that they need a trim.
    void reviewIncomingFastCuts(const std::vector<engine::Uuid>& ids);

    // What a published review was made from: the batch trim as typed and every row, in order.
    struct ReviewBasis {
        std::string trimStart;
        std::string trimEnd;
        std::vector<engine::Uuid> itemIDs;
    };

    const std::optional<engine::Tools> tools_;
    std::vector<QueueItem> items_;
    std::optional<ActionID> selectedActionID_;
    std::string trimStart_;
    std::string trimEnd_;
    std::optional<PendingIntake> pendingIntake_;
    std::optional<std::string> intakeNotice_;
    bool isWorking_ = false;
    bool isShuttingDown_ = false;
    uint64_t intakeGeneration_ = 0;
    uint64_t deliveredGeneration_ = 0;
    std::vector<std::filesystem::path> intakeFolders_;
    std::shared_ptr<Scan> scan_;
    std::shared_ptr<RunningJob> running_;
    std::optional<FastCutReviewRequest> fastCutReview_;
    ReviewBasis reviewBasis_;
    std::shared_ptr<MainThreadHandoff> handoff_;
    // Probes each new row's source once for its length, picture size and file size, which the
    // row shows; declared last so that it stops first.
    std::unique_ptr<SourceFactsLoader> sourceProbes_;
};

}  // namespace tessarin::app
