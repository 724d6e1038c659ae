// QueueModel: the review before a fast cut. A Convert under Fast cut publishes the staged rows
// for review, and files that come in under Fast cut are staged and published the same way; the
// review's export turns the ready ones into waiting fast cuts that carry their
// plan, a file that can't be cut goes back to the staged rows with its trim, and any change to
// the rows or trims outdates the review.
#include <QPointer>
#include <algorithm>
#include <utility>

#include "app/queue/QueueModel.hpp"
#include "app/queue/internal/QueueModelInternals.hpp"

namespace tessarin::app {

using queue_internal::clipRows;
using queue_internal::kFastCutNeedsTrim;
using queue_internal::queueLog;
using queue_internal::trimLabelOf;

namespace queue_internal {

FastCutReviewRequest::Entry reviewEntry(const QueueItem& item, const engine::Trim& trim) {
    FastCutReviewRequest::Entry entry{item.id, item.source, trim, std::nullopt, std::nullopt};
    if (item.pendingClips) {
        entry.trim = {};
        entry.clips = item.pendingClips;
        entry.clipMode = item.clipMode;
    }
    return entry;
}

}  // namespace queue_internal

using queue_internal::reviewEntry;

namespace {

// Whether staged `row` still holds what `entry` was made from.
bool matches(const FastCutReviewRequest::Entry& entry, const QueueItem& row,
             const engine::Trim& batch) {
    if (entry.clips) {
        return row.pendingClips == entry.clips && row.clipMode == entry.clipMode;
    }
    return !row.pendingClips && row.pendingTrim.value_or(batch) == entry.trim;
}

}  // namespace

void QueueModel::publishFastCutReview(std::vector<FastCutReviewRequest::Entry> entries) {
    FastCutReviewRequest request;
    request.id = engine::Uuid::random();
    request.entries = std::move(entries);
    reviewBasis_ = {trimStart_, trimEnd_, {}};
    for (const QueueItem& item : items_) {
        reviewBasis_.itemIDs.push_back(item.id);
    }
    queueLog().notice(engine::KeyValues()
                          .add("event", "fast cut review")
                          .add("action", logToken(ActionID::fastCut()))
                          .add("files", request.entries.size())
                          .str());
    fastCutReview_ = std::move(request);
    emit fastCutReviewChanged();
}

void QueueModel::reviewIncomingFastCuts(const std::vector<engine::Uuid>& ids) {
    const engine::Trim batch = batchTrim().value_or(engine::Trim{});
    std::vector<FastCutReviewRequest::Entry> entries;
    // Files of a review still open join the new one rather than drop out of it.
    if (fastCutReview_) {
        for (const FastCutReviewRequest::Entry& entry : fastCutReview_->entries) {
            const QueueItem* row = item(entry.id);
            if (row == nullptr || row->state.kind != QueueItem::StateKind::needsPreset) {
                continue;
            }
            FastCutReviewRequest::Entry kept = reviewEntry(*row, row->pendingTrim.value_or(batch));
            kept.issue = entry.issue;
            if (kept.clips || !kept.trim.isEmpty()) {
                entries.push_back(std::move(kept));
            }
        }
    }
    const std::size_t carried = entries.size();
    bool needsTrim = false;
    for (const engine::Uuid& id : ids) {
        const QueueItem* row = item(id);
        if (row == nullptr) {
            continue;
        }
        const engine::Trim trim = row->pendingTrim.value_or(batch);
        if (trim.isEmpty() && !row->pendingClips) {
            needsTrim = true;
            continue;
        }
        entries.push_back(reviewEntry(*row, trim));
    }
    if (needsTrim) {
        notice(kFastCutNeedsTrim);
    }
    if (entries.size() > carried) {
        publishFastCutReview(std::move(entries));
    }
}

std::unique_ptr<FastCutReview> QueueModel::openFastCutReview(QObject* parent) {
    requireMainThread();
    if (!fastCutReview_ || !tools_) {
        return nullptr;
    }
    auto review = std::make_unique<FastCutReview>(*fastCutReview_, *tools_, parent);
    const engine::Uuid requestID = fastCutReview_->id;
    // The review may outlive the queue (the window closes after the core quits).
    const QPointer<QueueModel> queue(this);
    review->onExport = [queue, requestID](bool acceptWholeFile, const FastCutReview::Plans& plans) {
        if (queue) {
            queue->exportFastCut(requestID, acceptWholeFile, plans);
        }
    };
    review->onConversion = [queue, requestID](const engine::Uuid& id, const engine::Trim& trim) {
        if (queue) {
            queue->returnFastCutToConversion(requestID, id, trim);
        }
    };
    FastCutReview* watched = review.get();
    const auto recheck = [this, watched] {
        if (!isFastCutReviewCurrent(watched->request())) {
            watched->markChanged();
        }
    };
    connect(this, &QueueModel::itemsChanged, watched, recheck);
    connect(this, &QueueModel::itemChanged, watched, recheck);
    connect(this, &QueueModel::trimChanged, watched, recheck);
    connect(this, &QueueModel::fastCutReviewChanged, watched, recheck);
    connect(watched, &FastCutReview::closed, this,
            [this, requestID] { closeFastCutReview(requestID); });
    // Queued: `destroyed` comes from a review half torn down, whose own connections still run.
    connect(
        watched, &QObject::destroyed, this, [this, requestID] { closeFastCutReview(requestID); },
        Qt::QueuedConnection);
    return review;
}

bool QueueModel::isFastCutReviewCurrent(const FastCutReviewRequest& request) const {
    if (!fastCutReview_ || fastCutReview_->id != request.id) {
        return false;
    }
    if (trimStart_ != reviewBasis_.trimStart || trimEnd_ != reviewBasis_.trimEnd ||
        !std::equal(items_.begin(), items_.end(), reviewBasis_.itemIDs.begin(),
                    reviewBasis_.itemIDs.end(),
                    [](const QueueItem& item, const engine::Uuid& id) { return item.id == id; })) {
        return false;
    }
    const engine::Trim batch = batchTrim().value_or(engine::Trim{});
    return std::all_of(request.entries.begin(), request.entries.end(), [&](const auto& entry) {
        const QueueItem* row = item(entry.id);
        return row != nullptr && row->state.kind == QueueItem::StateKind::needsPreset &&
               matches(entry, *row, batch);
    });
}

void QueueModel::exportFastCut(const engine::Uuid& requestID, bool acceptWholeFile,
                               const FastCutReview::Plans& plans) {
    requireMainThread();
    if (!fastCutReview_ || fastCutReview_->id != requestID) {
        return;
    }
    const bool current = isFastCutReviewCurrent(*fastCutReview_);
    const FastCutReviewRequest request = std::move(*fastCutReview_);
    fastCutReview_.reset();
    emit fastCutReviewChanged();
    if (!current || isShuttingDown_) {
        queueLog().notice(engine::logLine({{"event", "fast cut export refused — review outdated"},
                                           {"action", logToken(ActionID::fastCut())}}));
        return;
    }

    const std::optional<ActionDescriptor> descriptor = resolveDescriptor(ActionID::fastCut());
    std::size_t exported = 0;
    for (const FastCutReviewRequest::Entry& entry : request.entries) {
        const auto plan = plans.find(entry.id);
        const QueueItem* row = item(entry.id);
        if (plan == plans.end() || plan->second.empty() || row == nullptr ||
            (!acceptWholeFile &&
             std::any_of(plan->second.begin(), plan->second.end(),
                         [](const auto& piece) { return piece.plan.keepsWholeVideo(); }))) {
            continue;
        }
        const std::vector<FastCutReview::Piece>& pieces = plan->second;
        std::vector<QueueItem> rows;
        if (entry.clips && entry.clipMode != ClipExportMode::separate) {
            QueueItem joined = *row;
            joined.kind = JobKind{JobKind::FastCutJoin{pieces}};
            joined.descriptor = descriptor;
            joined.state = {QueueItem::StateKind::waiting, {}, {}, {}};
            rows.push_back(std::move(joined));
        } else if (entry.clips) {
            std::vector<JobKind> kinds;
            std::vector<engine::Trim> ranges;
            for (const FastCutReview::Piece& piece : pieces) {
                kinds.push_back(JobKind{JobKind::FastCut{piece.trim, piece.plan}});
                ranges.push_back(piece.trim);
            }
            rows = clipRows(*row, kinds, ranges, descriptor);
        } else {
            QueueItem cut = *row;
            cut.kind = JobKind{JobKind::FastCut{entry.trim, pieces.front().plan}};
            cut.descriptor = descriptor;
            cut.trimLabel = trimLabelOf(entry.trim);
            cut.state = {QueueItem::StateKind::waiting, {}, {}, {}};
            rows.push_back(std::move(cut));
        }
        const auto at =
            items_.erase(std::find_if(items_.begin(), items_.end(),
                                      [&entry](const QueueItem& it) { return it.id == entry.id; }));
        items_.insert(at, rows.begin(), rows.end());
        ++exported;
    }
    queueLog().notice(engine::KeyValues()
                          .add("event", "fast cut export")
                          .add("action", logToken(ActionID::fastCut()))
                          .add("exported", exported)
                          .add("staged", request.entries.size() - exported)
                          .str());
    emit itemsChanged();
    startNext();
}

void QueueModel::returnFastCutToConversion(const engine::Uuid& requestID, const engine::Uuid& id,
                                           const engine::Trim& trim) {
    requireMainThread();
    if (!fastCutReview_ || fastCutReview_->id != requestID) {
        return;
    }
    const QueueItem* row = item(id);
    if (row == nullptr || row->state.kind != QueueItem::StateKind::needsPreset) {
        return;
    }
    updateItem(id, [&trim](QueueItem& staged) {
        if (staged.pendingClips) {
            return;  // the clips stay, for a preset to export them
        }
        staged.pendingTrim = trim;
        staged.trimLabel = trim.isEmpty() ? std::nullopt : std::optional(trimLabelOf(trim));
    });
    queueLog().notice(engine::logLine({{"event", "fast cut file returned for a preset"},
                                       {"action", logToken(ActionID::fastCut())}}));
}

void QueueModel::closeFastCutReview(const engine::Uuid& requestID) {
    if (!fastCutReview_ || fastCutReview_->id != requestID) {
        return;
    }
    fastCutReview_.reset();
    queueLog().notice(engine::logLine(
        {{"event", "fast cut review closed"}, {"action", logToken(ActionID::fastCut())}}));
    emit fastCutReviewChanged();
}

}  // namespace tessarin::app
