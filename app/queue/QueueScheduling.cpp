// QueueModel: one job at a time. The Convert button's assignment of the selected action to
// staged rows (under Fast cut, their review), starting the next waiting row on a worker thread,
// relaying its progress, and finishing it with its result, logs and notification.
#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <system_error>
#include <utility>

#include "app/queue/ConversionQueueJob.hpp"
#include "app/queue/ErrorRedaction.hpp"
#include "app/queue/ProgressRelay.hpp"
#include "app/queue/QueueModel.hpp"
#include "app/queue/internal/QueueModelInternals.hpp"
#include "app/support/MainThreadHandoff.hpp"

namespace tessarin::app {

using queue_internal::clipRows;
using queue_internal::kChooseAction;
using queue_internal::kClipsNeedPreset;
using queue_internal::kFastCutNeedsTrim;
using queue_internal::queueLog;
using queue_internal::reviewEntry;
using queue_internal::trimLabelOf;

namespace {

constexpr const char* kActionUnavailable =
    "This action is not available in this version of Tessarin. Nothing was saved; choose "
    "another action for this file.";

}  // namespace

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
    std::vector<FastCutReviewRequest::Entry> reviewed;
    std::vector<engine::Uuid> expanded;
    for (QueueItem& item : items_) {
        if (item.state.kind != QueueItem::StateKind::needsPreset) {
            continue;
        }
        const engine::Trim trim = item.pendingTrim.value_or(batch.value_or(engine::Trim{}));
        if (action.kind == ActionID::Kind::fastCut && trim.isEmpty() && !item.pendingClips) {
            notice(kFastCutNeedsTrim);
            continue;
        }
        if (item.sourceID && (isDuplicate(*item.sourceID, action) ||
                              !claimed.insert(item.sourceID->file()).second)) {
            dropped.push_back(item.id);
            continue;
        }
        if (action.kind == ActionID::Kind::fastCut) {
            // Nothing is cut before the user has seen the plan.
            reviewed.push_back(reviewEntry(item, trim));
            continue;
        }
        if (item.pendingClips && (!action.isPreset() || !preset)) {
            notice(kClipsNeedPreset);
            continue;
        }
        if (item.pendingClips && item.clipMode == ClipExportMode::separate &&
            item.pendingClips->size() > 1) {
            expanded.push_back(item.id);
            continue;
        }
        std::optional<JobKind> kind = jobKind(action, preset, trim);
        if (item.pendingClips) {
            std::vector<engine::Trim> ranges;
            for (const engine::ClipSelection& clip : *item.pendingClips) {
                ranges.push_back(clip.trim());
            }
            kind = item.clipMode == ClipExportMode::separate
                       ? jobKind(action, preset, ranges.front())
                       : JobKind{JobKind::Join{*preset, std::move(ranges),
                                               item.clipMode == ClipExportMode::remove}};
        }
        if (!kind) {
            continue;
        }
        item.kind = kind;
        item.descriptor = descriptor;
        if (!item.pendingClips) {
            item.trimLabel = trim.isEmpty() ? std::nullopt : std::optional(trimLabelOf(trim));
        }
        item.state = {QueueItem::StateKind::waiting, {}, {}, {}};
        ++assigned;
    }
    // Separate clips become one waiting row each, in the row's place and in clip order.
    for (const engine::Uuid& id : expanded) {
        const auto found = std::find_if(items_.begin(), items_.end(),
                                        [&id](const QueueItem& row) { return row.id == id; });
        std::vector<JobKind> kinds;
        std::vector<engine::Trim> ranges;
        for (std::size_t index = 0; index < found->pendingClips->size(); ++index) {
            const engine::ClipSelection& clip = (*found->pendingClips)[index];
            engine::Preset clipPreset = *preset;
            clipPreset.options.trim = clip.trim();
            clipPreset.filenameSuffix += clip.fileSuffix(index);
            kinds.push_back(JobKind{JobKind::Convert{std::move(clipPreset)}});
            ranges.push_back(clip.trim());
        }
        const std::vector<QueueItem> rows = clipRows(*found, kinds, ranges, descriptor);
        assigned += rows.size();
        const auto at = items_.erase(found);
        items_.insert(at, rows.begin(), rows.end());
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
    if (!reviewed.empty()) {
        publishFastCutReview(std::move(reviewed));
    }
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
    if (auto* frames = std::get_if<JobKind::Frames>(&item.kind->value)) {
        // The choices of this moment in the settings, the trim of the assignment.
        engine::FrameExtractionOptions options =
            framesOptions ? framesOptions() : engine::FrameExtractionOptions{};
        options.trim = frames->options.trim;
        frames->options = std::move(options);
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
            notificationTitle =
                item->kind ? finishedNotificationTitle(*item->kind) : "Conversion finished";
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
                notificationTitle =
                    item->kind ? failedNotificationTitle(*item->kind) : "Conversion failed";
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

}  // namespace tessarin::app
