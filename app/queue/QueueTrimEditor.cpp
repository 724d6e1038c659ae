// The trim editor's hand-off with the queue: what a row opens the editor with, and what Apply
// leaves on the row.
#include <fmt/format.h>

#include "app/queue/QueueModel.hpp"
#include "app/queue/internal/QueueModelInternals.hpp"

namespace tessarin::app {

namespace {

using queue_internal::clipRows;
using queue_internal::trimLabelOf;

// The preset a waiting conversion runs, if it is one.
std::optional<engine::Preset> presetOf(const std::optional<JobKind>& kind) {
    if (!kind) {
        return std::nullopt;
    }
    if (const auto* convert = std::get_if<JobKind::Convert>(&kind->value)) {
        engine::Preset preset = convert->preset;
        preset.options.trim = engine::Trim{};
        return preset;
    }
    if (const auto* join = std::get_if<JobKind::Join>(&kind->value)) {
        return join->preset;
    }
    return std::nullopt;
}

std::string clipsLabel(std::size_t count, ClipExportMode mode) {
    return fmt::format("{} {} · {}", count, count == 1 ? "clip" : "clips", exportModeTitle(mode));
}

}  // namespace

std::optional<TrimEditorRequest> QueueModel::trimEditorRequest(const engine::Uuid& id) const {
    const QueueItem* row = item(id);
    if (row == nullptr) {
        return std::nullopt;
    }
    TrimEditorRequest request;
    request.source = row->source;
    request.itemID = id;
    request.initialTrim = row->pendingTrim;
    request.initialClips = row->pendingClips;
    request.initialMode = row->clipMode;
    request.batchTrim = batchTrim();
    if (!trimStart_.empty() || !trimEnd_.empty()) {
        request.batchStartText = trimStart_;
        request.batchEndText = trimEnd_;
    }
    return request;
}

bool QueueModel::applyTrimEditor(const engine::Uuid& id, const TrimEditorResult& result) {
    requireMainThread();
    QueueItem* row = findItem(id);
    if (row == nullptr || isShuttingDown_) {
        return false;
    }
    const bool staged = row->state.kind == QueueItem::StateKind::needsPreset;
    const std::optional<engine::Preset> preset = presetOf(row->kind);
    if (!staged &&
        !(row->state.kind == QueueItem::StateKind::waiting && preset && row->descriptor)) {
        return false;  // running, finished, or a waiting job that only takes its own trim
    }

    std::optional<engine::Trim> trim;
    if (result.inheritBatch) {
        row->pendingTrim.reset();
        row->pendingClips.reset();
        trim = batchTrim();
        if (trim) {
            row->trimLabel = "Using batch trim · " + trimLabelOf(*trim);
        } else if (!trimStart_.empty() || !trimEnd_.empty()) {
            row->trimLabel = "invalid range — fix it in the main window";
        } else {
            row->trimLabel.reset();
        }
    } else if (result.clips) {
        row->pendingTrim.reset();
        row->pendingClips = result.clips;
        row->clipMode = result.mode;
        row->trimLabel = clipsLabel(result.clips->size(), result.mode);
    } else {
        row->pendingClips.reset();
        row->pendingTrim = result.trim;
        trim = result.trim;
        row->trimLabel =
            result.trim ? std::optional<std::string>("Using this file’s trim") : std::nullopt;
    }
    if (!staged) {
        // A waiting conversion takes the new range now; separate clips become one waiting row
        // each, in the row's place, as a Convert of a staged row makes them.
        if (row->pendingClips && row->clipMode == ClipExportMode::separate &&
            row->pendingClips->size() > 1) {
            std::vector<JobKind> kinds;
            std::vector<engine::Trim> ranges;
            for (std::size_t index = 0; index < row->pendingClips->size(); ++index) {
                const engine::ClipSelection& clip = (*row->pendingClips)[index];
                engine::Preset clipPreset = *preset;
                clipPreset.options.trim = clip.trim();
                clipPreset.filenameSuffix += clip.fileSuffix(index);
                kinds.push_back(JobKind{JobKind::Convert{std::move(clipPreset)}});
                ranges.push_back(clip.trim());
            }
            const std::vector<QueueItem> rows = clipRows(*row, kinds, ranges, row->descriptor);
            const auto at = items_.erase(items_.begin() + (row - items_.data()));
            items_.insert(at, rows.begin(), rows.end());
            emit itemsChanged();
            return true;
        }
        if (row->pendingClips) {
            std::vector<engine::Trim> ranges;
            for (const engine::ClipSelection& clip : *row->pendingClips) {
                ranges.push_back(clip.trim());
            }
            if (row->clipMode == ClipExportMode::separate) {
                row->kind = jobKind(row->descriptor->id, preset, row->pendingClips->front().trim());
            } else {
                row->kind = JobKind{JobKind::Join{*preset, std::move(ranges),
                                                  row->clipMode == ClipExportMode::remove}};
            }
        } else {
            row->kind = jobKind(row->descriptor->id, preset, trim.value_or(engine::Trim{}));
        }
    }
    emit itemChanged(QString::fromStdString(id.text()));
    emit itemsChanged();
    return true;
}

}  // namespace tessarin::app
