#include "app/queue/QueueModel.hpp"

#include <fmt/format.h>

#include <QThread>
#include <algorithm>
#include <cstdlib>
#include <set>
#include <system_error>
#include <utility>

#include "app/queue/ConversionQueueJob.hpp"
#include "app/queue/ErrorRedaction.hpp"
#include "app/queue/ProgressRelay.hpp"
#include "app/support/MainThreadHandoff.hpp"
#include "engine/log/Log.hpp"
#include "engine/model/TimeText.hpp"

namespace tessarin::app {

namespace {

constexpr const char* kTooManyEntries =
    "This batch has more than 30,000 file and folder entries. No videos from this batch were "
    "added. Select fewer files or smaller folders and try again.";
constexpr const char* kTooManyVideos =
    "This batch has more than 1,000 video paths. No videos from this batch were added. Select "
    "fewer files or smaller folders and try again.";
constexpr const char* kChooseAction = "Choose an action above, then click Convert.";
constexpr const char* kHEVCBlocked =
    "HEVC is not available in this build. Choose H.264, AV1, VP9, or GIF.";
constexpr const char* kNoVideosInFolder =
    "No videos found in the dropped folder. Videos inside Photos libraries and app bundles are "
    "skipped.";
constexpr const char* kConfirmationChanged =
    "Another batch is awaiting confirmation, so the scanned batch was not added. Select its "
    "files and folders again to add them.";
constexpr const char* kNoAPIKey =
    "Transcription isn’t set up yet. Add an OpenRouter API key in Settings ▸ Transcription.";
constexpr const char* kNoConsent =
    "Transcription uploads aren’t approved yet. Open Settings ▸ Transcription to review the "
    "upload notice.";
constexpr const char* kNoVideoConsent =
    "That model uploads the whole video, which needs its own approval. Open Settings ▸ "
    "Transcription to review the video-upload notice.";
constexpr const char* kGlossaryReviewDue =
    "Review names and specialist words in Settings ▸ Transcription before transcribing.";
constexpr const char* kNotATime = "Not a time — use SS, MM:SS, or HH:MM:SS (ignored until fixed)";
constexpr const char* kStartNotBeforeEnd = "Trim start must be before end (ignored until fixed)";
constexpr const char* kFastCutNeedsTrim =
    "Fix the batch trim or set this file's own trim before Fast cut.";
constexpr const char* kActionUnavailable =
    "This action is not available in this version of Tessarin. Nothing was saved; choose "
    "another action for this file.";

// Confirmation thresholds: a transcription batch above this asks, any other batch at or above
// the second asks.
constexpr std::size_t kTranscriptionConfirmAbove = 5;
constexpr std::size_t kConfirmFrom = 501;

// A running job gets this long beyond the cancel grace to end when the queue goes away.
constexpr std::chrono::milliseconds kShutdownWait{8000};

const engine::Logger& queueLog() {
    static const engine::Logger log("com.tessarin.queue", "queue");
    return log;
}

const engine::Logger& intakeLog() {
    static const engine::Logger log("com.tessarin.queue", "intake");
    return log;
}

std::string countNoun(std::size_t n, std::string_view singular, std::string_view plural) {
    return fmt::format("{} {}", n, n == 1 ? singular : plural);
}

// A batch-trim time: "^\d+(:[0-5]?\d){0,2}(\.\d+)?$".
bool isTimeText(std::string_view text) {
    std::size_t i = 0;
    auto digits = [&](std::size_t most) {
        const std::size_t from = i;
        while (i < text.size() && i - from < most && text[i] >= '0' && text[i] <= '9') {
            ++i;
        }
        return i - from;
    };
    if (digits(std::string_view::npos) == 0) {
        return false;
    }
    for (int group = 0; group < 2 && i < text.size() && text[i] == ':'; ++group) {
        ++i;
        const std::size_t from = i;
        const std::size_t n = digits(2);
        if (n == 0 || (n == 2 && text[from] > '5')) {
            return false;
        }
    }
    if (i < text.size() && text[i] == '.') {
        ++i;
        if (digits(std::string_view::npos) == 0) {
            return false;
        }
    }
    return i == text.size();
}

std::string trimLabelOf(const engine::Trim& trim) {
    return fmt::format("{}–{}", trim.start.value_or("start"), trim.end.value_or("end"));
}

bool isHEVCPreset(const engine::Preset& preset) {
    const std::optional<engine::VideoCodec> codec = preset.options.format.videoCodec();
    return codec && engine::isHEVCFamily(*codec);
}

std::string pendingCountText(std::size_t n, std::size_t duplicates, std::string_view verb) {
    std::string text = fmt::format("{} {}", countNoun(n, "video", "videos"), verb);
    if (duplicates > 0) {
        text += fmt::format(" ({} skipped)", countNoun(duplicates, "duplicate", "duplicates"));
    }
    return text;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

std::string QueueItem::stateLabel() const {
    switch (state.kind) {
        case StateKind::running:
            return kind ? runningLabel(*kind) : "Converting";
        case StateKind::done:
            return kind ? doneLabel(*kind) : "Converted";
        case StateKind::failed:
            return state.failure && state.failure->wasCancelled ? "Cancelled" : "Failed";
        case StateKind::needsPreset:
            return "Waiting for an action";
        case StateKind::waiting:
            return "Waiting";
    }
    return {};
}

std::string PendingIntake::title() const {
    const bool transcribing = action && action->kind == ActionID::Kind::transcribe;
    return fmt::format("{} {} Videos", transcribing ? "Transcribe" : "Add", identified.size());
}

std::string PendingIntake::message() const {
    if (action && action->kind == ActionID::Kind::transcribe) {
        return pendingCountText(identified.size(), duplicatesSkipped, "selected") +
               ". Each one is uploaded to the transcription provider configured in Settings ▸ "
               "Transcription, which uses your credit. Transcribe all?";
    }
    return pendingCountText(identified.size(), duplicatesSkipped, "found") +
           ". Add all to the queue?";
}

// ---------------------------------------------------------------------------------------------

struct QueueModel::Scan {
    uint64_t generation = 0;
    // The batch awaiting confirmation when the scan began.
    std::optional<engine::Uuid> pendingAtStart;
    std::shared_ptr<CancellationFlag> cancel = std::make_shared<CancellationFlag>();
};

struct QueueModel::RunningJob {
    engine::Uuid itemID;
    std::shared_ptr<QueueJob> job;
    std::shared_ptr<ProgressRelay> relay;
};

QueueModel::QueueModel(std::optional<engine::Tools> tools, QObject* parent)
    : QObject(parent),
      tools_(std::move(tools)),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", queueLog())) {
    encoderCapabilityPolicy = [] { return engine::EncoderCapabilityPolicy{}; };
    presetLookup = [](std::string_view id) -> std::optional<engine::Preset> {
        if (const engine::Preset* preset = engine::Preset::builtin(id)) {
            return *preset;
        }
        return std::nullopt;
    };
    hardwareEncoders = [] { return engine::HardwareEncoderSupport{}; };
    externalSoftwareHEVCTools = [] { return std::optional<engine::Tools>(); };
    destinationResolver = [](const std::optional<std::filesystem::path>&) {
        return OutputDestination::Resolution::sameFolder();
    };
    transcriptionPrerequisites = [] { return TranscriptionPrerequisites{}; };
    folderWalker = walkFolders;
}

QueueModel::~QueueModel() {
    handoff_->detach();
    if (scan_) {
        scan_->cancel->cancel();
    }
    if (running_) {
        running_->job->cancel();
    }
    // Job threads hold no pointer to this model, but the children they watch should be gone
    // before the process may end.
    (void)handoff_->waitUntilIdle(kShutdownWait);
}

void QueueModel::requireMainThread() const {
    if (QThread::currentThread() != thread()) {
        queueLog().error("event=\"queue used off the main thread\"");
        std::abort();
    }
}

const QueueItem* QueueModel::item(const engine::Uuid& id) const {
    const auto it = std::find_if(items_.begin(), items_.end(),
                                 [&id](const QueueItem& item) { return item.id == id; });
    return it == items_.end() ? nullptr : &*it;
}

QueueItem* QueueModel::findItem(const engine::Uuid& id) {
    return const_cast<QueueItem*>(std::as_const(*this).item(id));
}

bool QueueModel::hasUnfinishedWork() const {
    return std::any_of(items_.begin(), items_.end(), [](const QueueItem& item) {
        return item.state.kind == QueueItem::StateKind::running ||
               item.state.kind == QueueItem::StateKind::waiting;
    });
}

std::size_t QueueModel::stagedCount() const {
    return static_cast<std::size_t>(
        std::count_if(items_.begin(), items_.end(), [](const QueueItem& item) {
            return item.state.kind == QueueItem::StateKind::needsPreset;
        }));
}

void QueueModel::setSelectedActionID(std::optional<ActionID> id) {
    requireMainThread();
    if (selectedActionID_ == id) {
        return;
    }
    selectedActionID_ = std::move(id);
    emit selectedActionChanged();
}

void QueueModel::setTrim(std::string start, std::string end) {
    requireMainThread();
    if (trimStart_ == start && trimEnd_ == end) {
        return;
    }
    trimStart_ = std::move(start);
    trimEnd_ = std::move(end);
    emit trimChanged();
}

std::optional<std::string> QueueModel::trimValidationText() const {
    const bool hasStart = !trimStart_.empty();
    const bool hasEnd = !trimEnd_.empty();
    if ((hasStart && !isTimeText(trimStart_)) || (hasEnd && !isTimeText(trimEnd_))) {
        return kNotATime;
    }
    if (hasStart && hasEnd) {
        const std::optional<double> start = engine::parseTimeSeconds(trimStart_);
        const std::optional<double> end = engine::parseTimeSeconds(trimEnd_);
        if (!start || !end) {
            return kNotATime;
        }
        if (*start >= *end) {
            return kStartNotBeforeEnd;
        }
    }
    return std::nullopt;
}

std::optional<engine::Trim> QueueModel::batchTrim() const {
    if (trimValidationText() || (trimStart_.empty() && trimEnd_.empty())) {
        return std::nullopt;
    }
    engine::Trim trim;
    if (!trimStart_.empty()) {
        trim.start = trimStart_;
    }
    if (!trimEnd_.empty()) {
        trim.end = trimEnd_;
    }
    return trim;
}

void QueueModel::notice(const std::string& text) {
    requireMainThread();
    if (intakeNotice_) {
        std::string_view lines = *intakeNotice_;
        for (std::size_t at = 0; at <= lines.size();) {
            const std::size_t next = std::min(lines.find('\n', at), lines.size());
            if (lines.substr(at, next - at) == text) {
                return;
            }
            at = next + 1;
        }
        *intakeNotice_ += "\n" + text;
    } else {
        intakeNotice_ = text;
    }
    emit intakeNoticeChanged();
}

void QueueModel::dismissNotice() {
    requireMainThread();
    if (intakeNotice_) {
        intakeNotice_.reset();
        emit intakeNoticeChanged();
    }
}

ActionAvailability QueueModel::actionAvailability() const {
    ActionAvailability availability;
    availability.encoderPolicy = encoderCapabilityPolicy();
    availability.hardware = hardwareEncoders();
    availability.transcriptionModelUsable = transcriptionPrerequisites().hasUsableModel;
    availability.framesAvailable = static_cast<bool>(framesJobFactory);
    // The engine refuses fast cuts until keyframe-aligned copying lands.
    availability.fastCutAvailable = false;
    return availability;
}

std::optional<ActionDescriptor> QueueModel::resolveDescriptor(const ActionID& id) {
    if (!id.isPreset()) {
        return fixedDescriptor(id.kind, actionAvailability());
    }
    const std::optional<engine::Preset> preset = presetLookup(id.presetID);
    if (!preset) {
        return std::nullopt;
    }
    return presetDescriptor(*preset, actionAvailability());
}

bool QueueModel::checkTranscriptionPrerequisites(bool forStart) {
    const TranscriptionPrerequisites prerequisites = transcriptionPrerequisites();
    if (!prerequisites.hasUsableModel) {
        notice(kNoTranscriptionModelSentence);
        intakeLog().notice("event=\"transcription blocked — no usable model\"");
        return false;
    }
    if (!prerequisites.hasAPIKey) {
        notice(kNoAPIKey);
        intakeLog().notice("event=\"transcription blocked — no API key configured\"");
        return false;
    }
    if (!prerequisites.hasConsent) {
        notice(prerequisites.modelUploadsVideo ? kNoVideoConsent : kNoConsent);
        intakeLog().notice(
            fmt::format("event=\"transcription blocked — upload consent not granted kind={}\"",
                        prerequisites.modelUploadsVideo ? "video" : "audio"));
        return false;
    }
    if (forStart && prerequisites.glossaryReviewDue) {
        notice(kGlossaryReviewDue);
        return false;
    }
    return true;
}

bool QueueModel::intake(const QList<QUrl>& urls, const IntakeOptions& options) {
    requireMainThread();
    if (isShuttingDown_ || !tools_) {
        return false;
    }
    // Counted before anything is looked at, so an oversized batch never touches the disk.
    if (static_cast<std::size_t>(urls.size()) > kIntakeEntryLimit) {
        notice(kTooManyEntries);
        intakeLog().notice("event=\"intake refused: resource budget exceeded\"");
        return false;
    }

    std::optional<ActionID> action = options.action;
    if (!action && selectedActionID_) {
        const bool windowOnly = selectedActionID_->kind == ActionID::Kind::transcribe ||
                                selectedActionID_->kind == ActionID::Kind::frames;
        if (options.isExternal && windowOnly) {
            intakeLog().notice(
                fmt::format("event=\"external intake staged rather than inheriting action={}\"",
                            logToken(*selectedActionID_)));
        } else {
            action = selectedActionID_;
        }
    }
    if (action && action->isPreset()) {
        const std::optional<engine::Preset> preset = presetLookup(action->presetID);
        if (preset && isHEVCPreset(*preset) &&
            !encoderCapabilityPolicy().allows(preset->options.format)) {
            notice(kHEVCBlocked);
            intakeLog().notice("event=\"HEVC intake blocked by encoder capability policy\"");
            return false;
        }
    }
    if (action) {
        const std::optional<ActionDescriptor> descriptor = resolveDescriptor(*action);
        if (!descriptor) {
            action.reset();
        } else if (descriptor->disabledReason && action->kind != ActionID::Kind::transcribe) {
            // Transcription gives its own sentences below.
            notice(*descriptor->disabledReason);
            action.reset();
        }
    } else if (options.startRequested) {
        notice(kChooseAction);
    }
    if (action && action->kind == ActionID::Kind::transcribe &&
        !checkTranscriptionPrerequisites(false)) {
        return false;
    }

    std::vector<Candidate> files;
    std::vector<std::filesystem::path> folders;
    for (const QUrl& url : urls) {
        if (!url.isLocalFile()) {
            continue;
        }
        const std::filesystem::path path = url.toLocalFile().toStdString();
        const std::optional<ExaminedPath> examined = examinePath(path);
        if (!examined) {
            continue;
        }
        if (examined->kind == ExaminedPath::Kind::folder) {
            folders.push_back(path);
        } else if (examined->kind == ExaminedPath::Kind::videoFile) {
            files.push_back({path, examined->id});
        }
    }
    if (files.size() > kIntakeVideoLimit) {
        notice(kTooManyVideos);
        intakeLog().notice("event=\"intake refused: resource budget exceeded\"");
        return false;
    }
    if (folders.empty()) {
        return admit(std::move(files), action, options, false);
    }

    if (scan_) {
        scan_->cancel->cancel();
        std::string names;
        for (const std::filesystem::path& folder : intakeFolders_) {
            names += (names.empty() ? "" : ", ") + folder.filename().string();
        }
        notice(
            fmt::format("Still scanning {} when a new folder was dropped, so the earlier batch "
                        "was skipped. Drop its files and folders again to add them.",
                        names));
        intakeLog().notice(
            fmt::format("event=\"folder intake superseded — folders={}\"", intakeFolders_.size()));
    }
    auto scan = std::make_shared<Scan>();
    scan->generation = ++intakeGeneration_;
    if (pendingIntake_) {
        scan->pendingAtStart = pendingIntake_->id;
    }
    scan_ = scan;
    intakeFolders_ = folders;
    emit scanningChanged();

    const std::size_t entryBudget = kIntakeEntryLimit - static_cast<std::size_t>(urls.size());
    const std::size_t videoBudget = kIntakeVideoLimit - files.size();
    handoff_->start([this, walker = folderWalker, observer = folderResultDeliveryObserver, scan,
                     folders, entryBudget, videoBudget, action, options, files = std::move(files),
                     handoff = handoff_]() mutable {
        FolderWalkResult result = walker(folders, entryBudget, videoBudget, *scan->cancel);
        if (observer) {
            observer(FolderResultDeliveryEvent::beforeMainActor, scan->generation);
        }
        return MainThreadHandoff::Completion([this, observer, generation = scan->generation,
                                              result = std::move(result), action, options,
                                              files = std::move(files)]() mutable {
            finishScan(generation, std::move(result), std::move(action), std::move(options),
                       std::move(files));
            if (observer) {
                observer(FolderResultDeliveryEvent::afterMainActor, generation);
            }
        });
    });
    return true;
}

void QueueModel::finishScan(uint64_t generation, FolderWalkResult result,
                            std::optional<ActionID> action, IntakeOptions options,
                            std::vector<Candidate> directFiles) {
    if (generation != intakeGeneration_ || generation <= deliveredGeneration_) {
        return;
    }
    deliveredGeneration_ = generation;
    const std::optional<engine::Uuid> pendingAtStart = scan_ ? scan_->pendingAtStart : std::nullopt;
    scan_.reset();
    intakeFolders_.clear();
    emit scanningChanged();
    if (isShuttingDown_) {
        return;
    }
    if (const auto* failure = std::get_if<FolderIntakeFailure>(&result)) {
        switch (*failure) {
            case FolderIntakeFailure::entryLimit:
                notice(kTooManyEntries);
                intakeLog().notice("event=\"intake refused: resource budget exceeded\"");
                break;
            case FolderIntakeFailure::videoLimit:
                notice(kTooManyVideos);
                intakeLog().notice("event=\"intake refused: resource budget exceeded\"");
                break;
            case FolderIntakeFailure::cancelled:
                break;
        }
        return;
    }
    auto& found = std::get<std::vector<FoundVideo>>(result);
    if (found.empty() && directFiles.empty()) {
        notice(kNoVideosInFolder);
        intakeLog().notice("event=\"folder intake found no videos\"");
        return;
    }
    if (pendingIntake_ && pendingIntake_->id != pendingAtStart) {
        notice(kConfirmationChanged);
        intakeLog().notice("event=\"scanned intake refused: confirmation changed while scanning\"");
        return;
    }
    for (FoundVideo& video : found) {
        directFiles.push_back({std::move(video.path), video.id});
    }
    (void)admit(std::move(directFiles), action, options, false);
}

bool QueueModel::isDuplicate(const IntakeFileID& id, const std::optional<ActionID>& action) const {
    return std::any_of(items_.begin(), items_.end(), [&](const QueueItem& item) {
        if (!item.sourceID || !(*item.sourceID == id)) {
            return false;
        }
        if (!action) {
            return item.state.kind == QueueItem::StateKind::needsPreset;
        }
        const bool active = item.state.kind == QueueItem::StateKind::running ||
                            item.state.kind == QueueItem::StateKind::waiting;
        return active && item.descriptor && item.descriptor->id == *action;
    });
}

bool QueueModel::admit(std::vector<Candidate> files, const std::optional<ActionID>& action,
                       const IntakeOptions& options, bool confirmed) {
    std::vector<Candidate> kept;
    std::set<MediaFileIdentity> seen;
    std::size_t duplicates = 0;
    for (Candidate& file : files) {
        if (file.id) {
            if (!seen.insert(file.id->file()).second || isDuplicate(*file.id, action)) {
                ++duplicates;
                continue;
            }
        }
        kept.push_back(std::move(file));
    }
    if (kept.empty()) {
        if (duplicates == 1) {
            notice("That video is already in the queue.");
        } else if (duplicates > 1) {
            notice(fmt::format("Those {} videos are already in the queue.", duplicates));
        }
        intakeLog().notice(
            fmt::format("event=\"intake added nothing — duplicates={}\"", duplicates));
        return false;
    }

    const bool transcribing = action && action->kind == ActionID::Kind::transcribe;
    const bool needsConfirmation =
        transcribing ? kept.size() > kTranscriptionConfirmAbove : kept.size() >= kConfirmFrom;
    if (!confirmed && needsConfirmation) {
        if (pendingIntake_) {
            notice(
                fmt::format("Another batch replaced the pending confirmation for {} videos. "
                            "Select those files or folders again to add them.",
                            pendingIntake_->identified.size()));
            intakeLog().notice(fmt::format("event=\"pending intake replaced — videos={}\"",
                                           pendingIntake_->identified.size()));
        }
        PendingIntake pending;
        pending.id = engine::Uuid::random();
        for (Candidate& file : kept) {
            pending.identified.push_back({std::move(file.path), file.id});
        }
        pending.action = action;
        pending.trim = options.trim;
        pending.trimLabel = options.trim ? std::optional(trimLabelOf(*options.trim)) : std::nullopt;
        pending.destinationOverride = options.destinationOverride;
        pending.destinationWasOverridden = options.destinationOverride.has_value();
        pending.duplicatesSkipped = duplicates;
        pendingIntake_ = std::move(pending);
        emit pendingIntakeChanged();
        return true;
    }

    addItems(kept, action, options.trim, options.destinationOverride,
             options.destinationOverride.has_value());
    startNext();
    return true;
}

void QueueModel::addItems(const std::vector<Candidate>& files,
                          const std::optional<ActionID>& action,
                          const std::optional<engine::Trim>& trim,
                          const std::optional<std::filesystem::path>& destinationOverride,
                          bool destinationWasOverridden) {
    std::optional<ActionDescriptor> descriptor;
    std::optional<JobKind> kind;
    const std::optional<engine::Trim> effectiveTrim = trim ? trim : batchTrim();
    if (action) {
        descriptor = resolveDescriptor(*action);
        const std::optional<engine::Preset> preset =
            action->isPreset() ? presetLookup(action->presetID) : std::nullopt;
        kind = jobKind(*action, preset, effectiveTrim.value_or(engine::Trim{}));
        if (!kind) {
            descriptor.reset();
        }
    }
    // One answer serves the whole batch: the override and the setting are the same for all.
    const OutputDestination::Resolution destination = destinationResolver(destinationOverride);
    for (const Candidate& file : files) {
        QueueItem item;
        item.id = engine::Uuid::random();
        item.source = file.path;
        item.sourceID = file.id;
        item.destination = destination;
        item.destinationWasOverridden = destinationWasOverridden;
        if (kind) {
            item.kind = kind;
            item.descriptor = descriptor;
            item.state.kind = QueueItem::StateKind::waiting;
            if (effectiveTrim) {
                item.trimLabel = trimLabelOf(*effectiveTrim);
            }
        } else {
            item.state.kind = QueueItem::StateKind::needsPreset;
            if (trim) {
                item.pendingTrim = trim;
                item.trimLabel = trimLabelOf(*trim);
            }
        }
        items_.push_back(std::move(item));
    }
    if (!kind) {
        intakeLog().notice(fmt::format("event=\"intake staged — videos={}\"", files.size()));
    }
    emit itemsChanged();
}

void QueueModel::confirmPendingIntake() {
    requireMainThread();
    if (!pendingIntake_) {
        return;
    }
    PendingIntake pending = std::move(*pendingIntake_);
    pendingIntake_.reset();
    emit pendingIntakeChanged();
    if (isShuttingDown_) {
        return;
    }
    std::vector<Candidate> files;
    for (PendingIntake::File& file : pending.identified) {
        files.push_back({std::move(file.path), file.id});
    }
    IntakeOptions options;
    options.action = pending.action;
    options.trim = pending.trim;
    options.destinationOverride = pending.destinationOverride;
    (void)admit(std::move(files), pending.action, options, true);
}

void QueueModel::dismissPendingIntake() {
    requireMainThread();
    if (pendingIntake_) {
        pendingIntake_.reset();
        emit pendingIntakeChanged();
    }
}

void QueueModel::start() {
    requireMainThread();
    if (isShuttingDown_) {
        return;
    }
    std::optional<ActionDescriptor> descriptor;
    if (selectedActionID_) {
        descriptor = resolveDescriptor(*selectedActionID_);
    }
    if (!descriptor) {
        notice(kChooseAction);
        queueLog().notice("event=\"staged start with no resolvable action\"");
        return;
    }
    if (descriptor->disabledReason) {
        notice(*descriptor->disabledReason);
        return;
    }
    const ActionID action = descriptor->id;
    if (action.kind == ActionID::Kind::transcribe && !checkTranscriptionPrerequisites(true)) {
        return;
    }
    const std::optional<engine::Preset> preset =
        action.isPreset() ? presetLookup(action.presetID) : std::nullopt;
    const std::optional<engine::Trim> batch = batchTrim();

    std::size_t assigned = 0;
    std::vector<engine::Uuid> dropped;
    std::set<MediaFileIdentity> claimed;
    for (QueueItem& item : items_) {
        if (item.state.kind != QueueItem::StateKind::needsPreset) {
            continue;
        }
        const engine::Trim trim = item.pendingTrim.value_or(batch.value_or(engine::Trim{}));
        if (action.kind == ActionID::Kind::fastCut && trim.isEmpty()) {
            notice(kFastCutNeedsTrim);
            continue;
        }
        if (item.sourceID && (isDuplicate(*item.sourceID, action) ||
                              !claimed.insert(item.sourceID->file()).second)) {
            dropped.push_back(item.id);
            continue;
        }
        const std::optional<JobKind> kind = jobKind(action, preset, trim);
        if (!kind) {
            continue;
        }
        item.kind = kind;
        item.descriptor = descriptor;
        item.trimLabel = trim.isEmpty() ? std::nullopt : std::optional(trimLabelOf(trim));
        item.state = {QueueItem::StateKind::waiting, {}, {}, {}};
        ++assigned;
    }
    if (!dropped.empty()) {
        std::erase_if(items_, [&dropped](const QueueItem& item) {
            return std::find(dropped.begin(), dropped.end(), item.id) != dropped.end();
        });
        notice(dropped.size() == 1
                   ? fmt::format("1 waiting video is already in the queue with “{}”, so it was "
                                 "removed.",
                                 descriptor->displayName)
                   : fmt::format("{} waiting videos are already in the queue with “{}”, so they "
                                 "were removed.",
                                 dropped.size(), descriptor->displayName));
        queueLog().notice(fmt::format("event=\"staged assignment dropped duplicates — videos={}\"",
                                      dropped.size()));
    }
    queueLog().notice(engine::KeyValues()
                          .add("event", "staged start")
                          .add("preset", logToken(action))
                          .add("assigned", assigned)
                          .add("dropped", dropped.size())
                          .str());
    emit itemsChanged();
    startNext();
}

void QueueModel::startNext() {
    requireMainThread();
    if (isWorking_ || isShuttingDown_) {
        return;
    }
    const auto next = std::find_if(items_.begin(), items_.end(), [](const QueueItem& item) {
        return item.state.kind == QueueItem::StateKind::waiting;
    });
    if (next == items_.end()) {
        return;
    }
    runItem(*next);
}

std::shared_ptr<QueueJob> QueueModel::makeJob(const QueueItem& item) {
    const std::optional<std::filesystem::path> outputDirectory =
        item.destination.kind == OutputDestination::Resolution::Kind::folder
            ? std::optional(item.destination.folder)
            : std::nullopt;
    const engine::EncoderCapabilityPolicy policy = encoderCapabilityPolicy();
    auto conversion = [&](engine::MediaTask task,
                          const engine::Preset* preset) -> std::shared_ptr<QueueJob> {
        engine::Tools tools = *tools_;
        if (preset && policy.softwareHEVC == engine::SoftwareHEVCSource::external &&
            preset->options.format.videoCodec() == engine::VideoCodec::h265) {
            if (std::optional<engine::Tools> external = externalSoftwareHEVCTools()) {
                tools = *external;
            }
        }
        return std::make_shared<ConversionQueueJob>(item.source, std::move(task), tools, policy,
                                                    outputDirectory, hardwareEncoders());
    };
    return std::visit(
        [&](const auto& value) -> std::shared_ptr<QueueJob> {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, JobKind::Convert>) {
                return conversion(engine::MediaTask::convert(value.preset), &value.preset);
            } else if constexpr (std::is_same_v<T, JobKind::Join>) {
                return conversion(
                    engine::MediaTask::join(value.preset, value.ranges, value.removing),
                    &value.preset);
            } else if constexpr (std::is_same_v<T, JobKind::ExtractAudio>) {
                return conversion(engine::MediaTask::extractAudio(value.options), nullptr);
            } else if constexpr (std::is_same_v<T, JobKind::FastCut>) {
                return conversion(engine::MediaTask::fastCut(value.trim), nullptr);
            } else if constexpr (std::is_same_v<T, JobKind::Transcribe>) {
                return transcriptionJobFactory ? transcriptionJobFactory(item) : nullptr;
            } else {
                return framesJobFactory ? framesJobFactory(item) : nullptr;
            }
        },
        item.kind->value);
}

void QueueModel::runItem(QueueItem& item) {
    isWorking_ = true;
    item.state = {QueueItem::StateKind::running, std::nullopt, {}, {}};
    item.phaseLabel.reset();
    const engine::Uuid id = item.id;
    const std::string token = item.descriptor ? logToken(item.descriptor->id) : "unknown";
    const std::string extension = loggableExtension(item.source.filename().string());
    queueLog().notice(
        item.descriptor && item.descriptor->id.isPreset()
            ? engine::logLine({{"event", "job start"}, {"preset", token}, {"input", extension}})
            : engine::logLine({{"event", "job start"}, {"action", token}, {"input", extension}}));
    emit itemsChanged();

    if (item.destination.kind == OutputDestination::Resolution::Kind::unavailable) {
        finishItem(id, std::nullopt,
                   engine::JobFailure::sentence("destination", item.destination.sentence));
        return;
    }
    std::shared_ptr<QueueJob> job = makeJob(item);
    if (!job) {
        finishItem(id, std::nullopt, engine::JobFailure::sentence("start", kActionUnavailable));
        return;
    }

    auto relay = std::make_shared<ProgressRelay>(handoff_, [this, id](std::optional<double> value) {
        updateItem(id, [value](QueueItem& row) {
            if (row.state.kind == QueueItem::StateKind::running) {
                row.state.progress = value;
            }
        });
    });
    running_ = std::make_shared<RunningJob>(RunningJob{id, job, relay});

    QueueJob::Callbacks callbacks;
    const std::shared_ptr<MainThreadHandoff> handoff = handoff_;
    callbacks.onProgress = [relay](std::optional<double> value) { relay->report(value); };
    callbacks.onPhase = [this, handoff, id](const std::string& label) {
        handoff->post([this, id, label] {
            updateItem(id, [&label](QueueItem& row) {
                row.phaseLabel = label.empty() ? std::nullopt : std::optional(label);
                row.isCheckingCut = label == phaseLabel(engine::JobPhase::checkingCut);
            });
        });
    };
    callbacks.onWarning = [this, handoff, id](const std::string& warning) {
        handoff->post([this, id, warning] {
            updateItem(id, [&warning](QueueItem& row) {
                row.warningNote = row.warningNote ? *row.warningNote + "\n" + warning : warning;
            });
        });
    };
    callbacks.onSourceInfo = [this, handoff, id, token](std::optional<double> duration,
                                                        bool isHDR) {
        if (isHDR) {
            queueLog().notice(
                fmt::format("event=\"job hdr-source preset={} — output will be SDR\"", token));
        }
        handoff->post([this, id, duration, isHDR] {
            updateItem(id, [&](QueueItem& row) {
                row.sourceDurationSeconds = duration;
                row.isHDR = isHDR;
            });
        });
    };

    handoff_->start([this, id, job, callbacks, source = item.source] {
        std::optional<std::filesystem::path> output;
        std::optional<engine::JobFailure> failure;
        std::optional<int64_t> sourceBytes;
        std::optional<int64_t> outputBytes;
        try {
            output = job->run(callbacks);
        } catch (const engine::JobFailure& jobFailure) {
            failure = jobFailure;
        } catch (const std::exception& error) {
            failure = engine::JobFailure::sentence("job", error.what());
        }
        std::error_code error;
        if (const auto size = std::filesystem::file_size(source, error); !error) {
            sourceBytes = static_cast<int64_t>(size);
        }
        if (output) {
            if (const auto size = std::filesystem::file_size(*output, error); !error) {
                outputBytes = static_cast<int64_t>(size);
            }
        }
        return MainThreadHandoff::Completion([this, id, output, failure, sourceBytes, outputBytes] {
            updateItem(id, [&](QueueItem& row) {
                row.sourceBytes = sourceBytes;
                row.outputBytes = outputBytes;
            });
            finishItem(id, output, failure);
        });
    });
}

void QueueModel::finishItem(const engine::Uuid& id, std::optional<std::filesystem::path> output,
                            std::optional<engine::JobFailure> failure) {
    if (running_ && running_->itemID == id) {
        running_.reset();
    }
    isWorking_ = false;
    QueueItem* item = findItem(id);
    if (item != nullptr) {
        const bool isTranscription =
            item->kind && std::holds_alternative<JobKind::Transcribe>(item->kind->value);
        const bool isFrames =
            item->kind && std::holds_alternative<JobKind::Frames>(item->kind->value);
        const std::string token = item->descriptor ? logToken(item->descriptor->id) : "unknown";
        const std::string name = item->source.filename().string();
        item->phaseLabel.reset();
        item->isCheckingCut = false;
        std::optional<std::string> notificationTitle;
        if (output) {
            item->state = {QueueItem::StateKind::done, std::nullopt, *output, std::nullopt};
            queueLog().notice(
                engine::logLine({{"event", "job completed"},
                                 {"action", token},
                                 {"output", loggableExtension(output->filename().string())}}));
            notificationTitle = isTranscription ? "Transcription finished" : "Conversion finished";
        } else {
            engine::JobFailure reported =
                failure.value_or(engine::JobFailure::sentence("job",
                                                              "The job ended without a "
                                                              "result."));
            if (reported.wasCancelled) {
                queueLog().notice(
                    engine::logLine({{"event", "job cancelled"}, {"step", reported.step}}));
            } else {
                const std::string redacted = redactFailureText(reported.stderrTail, name);
                queueLog().error(engine::KeyValues()
                                     .add("event", "job failed")
                                     .add("step", reported.step)
                                     .add("exit", reported.exitCode
                                                      ? std::to_string(*reported.exitCode)
                                                      : std::string("none"))
                                     .add("file", engine::privateValue(name))
                                     .str());
                queueLog().error(
                    engine::KeyValues().add("event", "job stderr").add("tail", redacted).str());
                if (recordEngineError) {
                    recordEngineError(fmt::format("{}: {}", reported.step, redacted));
                }
                notificationTitle = isTranscription ? "Transcription failed"
                                    : isFrames      ? "Frame export failed"
                                                    : "Conversion failed";
            }
            item->state = {QueueItem::StateKind::failed, std::nullopt, {}, std::move(reported)};
        }
        if (notificationTitle && postNotification &&
            !(isApplicationActive && isApplicationActive())) {
            postNotification(*notificationTitle, name);
        }
        emit itemsChanged();
        emit itemChanged(QString::fromStdString(id.text()));
    }
    startNext();
}

void QueueModel::updateItem(const engine::Uuid& id, const std::function<void(QueueItem&)>& change) {
    if (QueueItem* item = findItem(id)) {
        change(*item);
        emit itemChanged(QString::fromStdString(id.text()));
    }
}

void QueueModel::cancel(const engine::Uuid& id) {
    requireMainThread();
    const QueueItem* item = this->item(id);
    if (item == nullptr) {
        return;
    }
    if (item->state.kind == QueueItem::StateKind::running) {
        if (running_ && running_->itemID == id) {
            running_->job->cancel();
        }
        return;
    }
    if (item->state.kind == QueueItem::StateKind::waiting ||
        item->state.kind == QueueItem::StateKind::needsPreset) {
        remove(id);
    }
}

void QueueModel::remove(const engine::Uuid& id) {
    requireMainThread();
    const auto removed = std::erase_if(items_, [&id](const QueueItem& item) {
        return item.id == id && item.state.kind != QueueItem::StateKind::running;
    });
    if (removed > 0) {
        emit itemsChanged();
    }
}

void QueueModel::clearFinished() {
    requireMainThread();
    if (std::erase_if(items_, [](const QueueItem& item) { return item.isFinished(); }) > 0) {
        emit itemsChanged();
    }
}

void QueueModel::prepareForQuit() {
    requireMainThread();
    isShuttingDown_ = true;
    if (scan_) {
        scan_->cancel->cancel();
    }
    if (running_) {
        running_->job->cancel();
    }
    const auto dropped = std::erase_if(items_, [](const QueueItem& item) {
        return item.state.kind == QueueItem::StateKind::waiting ||
               item.state.kind == QueueItem::StateKind::needsPreset;
    });
    if (pendingIntake_) {
        pendingIntake_.reset();
        emit pendingIntakeChanged();
    }
    queueLog().notice(engine::KeyValues().add("event", "quit").add("dropped", dropped).str());
    emit itemsChanged();
}

bool QueueModel::waitForBackgroundWork(std::chrono::milliseconds limit) {
    return handoff_->waitUntilIdle(limit);
}

void QueueModel::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

}  // namespace tessarin::app
