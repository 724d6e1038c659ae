// QueueModel: every way files come in. The count limits, the action a batch inherits, the
// transcription prerequisites, folder scans on a worker thread, duplicates and confirmation of
// large batches, and the rows that come of it.
#include <fmt/format.h>

#include <set>
#include <utility>

#include "app/queue/QueueModel.hpp"
#include "app/queue/internal/QueueModelInternals.hpp"
#include "app/support/MainThreadHandoff.hpp"

namespace tessarin::app {

using queue_internal::intakeLog;
using queue_internal::kChooseAction;
using queue_internal::trimLabelOf;

namespace {

constexpr const char* kTooManyEntries =
    "This batch has more than 30,000 file and folder entries. No videos from this batch were "
    "added. Select fewer files or smaller folders and try again.";
constexpr const char* kTooManyVideos =
    "This batch has more than 1,000 video paths. No videos from this batch were added. Select "
    "fewer files or smaller folders and try again.";
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

// Confirmation thresholds: a transcription batch above this asks, any other batch at or above
// the second asks.
constexpr std::size_t kTranscriptionConfirmAbove = 5;
constexpr std::size_t kConfirmFrom = 501;

std::string countNoun(std::size_t n, std::string_view singular, std::string_view plural) {
    return fmt::format("{} {}", n, n == 1 ? singular : plural);
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
            fmt::format("event=\"dispatch refused — upload consent required kind={}\"",
                        prerequisites.modelUploadsVideo ? "videoUpload" : "audioUpload"));
        emit uploadConsentRequired(prerequisites.modelUploadsVideo);
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
    // Nothing is cut before the user has seen the plan: files under Fast cut are staged and
    // reviewed, as under Convert, so a staged copy of the file is a duplicate too.
    const bool reviewsFastCut = action && action->kind == ActionID::Kind::fastCut;
    std::vector<Candidate> kept;
    std::set<MediaFileIdentity> seen;
    std::size_t duplicates = 0;
    for (Candidate& file : files) {
        if (file.id) {
            if (!seen.insert(file.id->file()).second || isDuplicate(*file.id, action) ||
                (reviewsFastCut && isDuplicate(*file.id, std::nullopt))) {
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

    if (reviewsFastCut) {
        reviewIncomingFastCuts(addItems(kept, std::nullopt, options.trim,
                                        options.destinationOverride,
                                        options.destinationOverride.has_value()));
        return true;
    }
    (void)addItems(kept, action, options.trim, options.destinationOverride,
                   options.destinationOverride.has_value());
    startNext();
    return true;
}

std::vector<engine::Uuid> QueueModel::addItems(
    const std::vector<Candidate>& files, const std::optional<ActionID>& action,
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
    std::vector<engine::Uuid> added;
    added.reserve(files.size());
    for (const Candidate& file : files) {
        QueueItem item;
        item.id = engine::Uuid::random();
        added.push_back(item.id);
        sourceProbes_->request(item.id, file.path);
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
    return added;
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

}  // namespace tessarin::app
