#include "app/trim/TrimEditor.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "app/support/MainThreadHandoff.hpp"
#include "app/trim/internal/TrimEditorWork.hpp"
#include "engine/clips/ClipListFile.hpp"
#include "engine/model/TimeText.hpp"
#include "engine/text/UnicodeText.hpp"

namespace tessarin::app {

namespace {

using engine::ClipSelection;

constexpr std::size_t kUndoLimit = 100;

constexpr const char* kTimeMessage = "Enter a finite time as SS, MM:SS, or HH:MM:SS.";
constexpr const char* kOrderMessage = "Start must be before end.";
constexpr const char* kEndPastLength = "End is after this video's length.";
constexpr const char* kStartPastLength = "Start must be before this video's end.";
constexpr const char* kRowRefused =
    "The file could not be staged, or the row is no longer editable. Close this editor and check "
    "the queue.";

// The time rule's pattern, as the drafts' rows check it.
bool matchesTimePattern(const std::string& text) {
    try {
        return ClipSelection::normalizeTime(text).has_value();
    } catch (const ClipSelection::Invalid&) {
        return false;
    }
}

std::string countText(std::size_t count, const char* one, const char* many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

}  // namespace

TrimEditor::TrimEditor(TrimEditorRequest request, std::optional<engine::Tools> tools,
                       QObject* parent)
    : QObject(parent),
      request_(std::move(request)),
      tools_(std::move(tools)),
      work_(std::make_shared<Work>()),
      handoff_(
          std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults", trimEditorLog())) {
    undoTarget_.read = [this] { return snapshot_; };
    undoTarget_.write = [this](const TrimEditorSnapshot& snapshot) {
        snapshot_ = snapshot;
        emit changed();
    };
    snapshot_.exportMode = request_.initialMode;
    if (request_.initialClips && !request_.initialClips->empty()) {
        for (const ClipSelection& clip : *request_.initialClips) {
            snapshot_.clips.push_back(ClipDraft::from(clip));
        }
    } else {
        ClipDraft draft;
        if (request_.initialTrim) {
            draft.start = request_.initialTrim->start.value_or("");
            draft.end = request_.initialTrim->end.value_or("");
        }
        snapshot_.clips.push_back(draft);
        snapshot_.inheritBatch = !request_.initialTrim && hasBatch();
    }
}

TrimEditor::~TrimEditor() {
    handoff_->detach();
    work_->cancelAll();
    (void)handoff_->waitUntilIdle(kCloseWait);
}

void TrimEditor::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

bool TrimEditor::waitForBackgroundWork(std::chrono::milliseconds limit) {
    return handoff_->waitUntilIdle(limit);
}

// ---- Undo -------------------------------------------------------------------------------------

void TrimEditor::change(const std::function<void(TrimEditorSnapshot&)>& edit) {
    TrimEditorSnapshot next = undoTarget_.read();
    edit(next);
    if (!next.clips.empty()) {
        next.selected = std::min(next.selected, next.clips.size() - 1);
    }
    if (next == snapshot_) {
        return;
    }
    undoStack_.push_back(snapshot_);
    if (undoStack_.size() > kUndoLimit) {
        undoStack_.erase(undoStack_.begin());
    }
    redoStack_.clear();
    applyFailed_ = false;
    undoTarget_.write(next);
}

void TrimEditor::undo() {
    if (undoStack_.empty()) {
        return;
    }
    redoStack_.push_back(undoTarget_.read());
    const TrimEditorSnapshot previous = undoStack_.back();
    undoStack_.pop_back();
    undoTarget_.write(previous);
}

void TrimEditor::redo() {
    if (redoStack_.empty()) {
        return;
    }
    undoStack_.push_back(undoTarget_.read());
    const TrimEditorSnapshot next = redoStack_.back();
    redoStack_.pop_back();
    undoTarget_.write(next);
}

// ---- Validation and the apply note --------------------------------------------------------------

std::optional<std::string> TrimEditor::validation(std::size_t index) const {
    if (index >= snapshot_.clips.size()) {
        return std::nullopt;
    }
    const ClipDraft& draft = snapshot_.clips[index];
    std::optional<double> start;
    std::optional<double> end;
    for (const auto& [text, value] : {std::pair{&draft.start, &start}, {&draft.end, &end}}) {
        std::string trimmed = *text;
        if (trimmed.find_first_not_of(" \t") == std::string::npos) {
            continue;
        }
        if (!matchesTimePattern(trimmed)) {
            return kTimeMessage;
        }
        *value = engine::parseTimeSeconds(trimmed);
    }
    if (start && end && !(*end > *start)) {
        return kOrderMessage;
    }
    if (!start && end && !(*end > 0)) {
        return kOrderMessage;
    }
    if (duration_) {
        if (end && *end > *duration_) {
            return kEndPastLength;
        }
        if (start && *start >= *duration_) {
            return kStartPastLength;
        }
    }
    try {
        (void)ClipSelection(draft.id, draft.trim(), draft.name);
    } catch (const ClipSelection::Invalid& invalid) {
        return std::string(invalid.what());
    }
    return std::nullopt;
}

std::vector<ClipSelection> TrimEditor::validatedClips() const {
    std::vector<ClipSelection> clips;
    for (const ClipDraft& draft : snapshot_.clips) {
        clips.emplace_back(draft.id, draft.trim(), draft.name);
    }
    return clips;
}

std::string TrimEditor::applyNote() const {
    if (snapshot_.inheritBatch) {
        return "Apply uses the batch trim for this file.";
    }
    const std::size_t count = snapshot_.clips.size();
    if (snapshot_.exportMode == ClipExportMode::separate) {
        if (count == 1) {
            return "Apply saves this file’s trim. Choose Fast cut to review copied boundaries, or "
                   "a conversion preset to re-encode.";
        }
        return fmt::format(
            "{} separate clip outputs. Choose a video or GIF preset and click Convert to export "
            "them.",
            count);
    }
    std::string note =
        "Apply stages one joined output. Choose a video or GIF preset and click Convert to "
        "export.";
    try {
        const std::vector<engine::Trim> kept = ClipSelection::join(
            validatedClips(), duration_, snapshot_.exportMode == ClipExportMode::remove);
        double seconds = 0;
        for (const engine::Trim& range : kept) {
            seconds += engine::parseTimeSeconds(*range.end).value_or(0) -
                       engine::parseTimeSeconds(*range.start).value_or(0);
        }
        note += fmt::format("\n{} seconds kept in source order", editorTimeText(seconds));
    } catch (const ClipSelection::Invalid&) {
        // The rows say what is wrong; the summary waits for valid ranges and a known length.
    }
    return note;
}

// ---- Editing ------------------------------------------------------------------------------------

bool TrimEditor::editingLocked() {
    if (trimmingVisually_ && previewReady_) {
        fileMessage_ = kVisualEditingActive;
        emit changed();
        return true;
    }
    return false;
}

void TrimEditor::select(std::size_t index) {
    if (index < snapshot_.clips.size()) {
        change([index](TrimEditorSnapshot& s) { s.selected = index; });
    }
}

void TrimEditor::setStart(std::size_t index, const std::string& text) {
    if (index < snapshot_.clips.size()) {
        change([&](TrimEditorSnapshot& s) {
            s.clips[index].start = text;
            s.inheritBatch = false;
        });
    }
}

void TrimEditor::setEnd(std::size_t index, const std::string& text) {
    if (index < snapshot_.clips.size()) {
        change([&](TrimEditorSnapshot& s) {
            s.clips[index].end = text;
            s.inheritBatch = false;
        });
    }
}

void TrimEditor::setName(std::size_t index, const std::string& text) {
    if (index < snapshot_.clips.size()) {
        change([&](TrimEditorSnapshot& s) { s.clips[index].name = text; });
    }
}

void TrimEditor::setExportMode(ClipExportMode mode) {
    change([mode](TrimEditorSnapshot& s) { s.exportMode = mode; });
}

bool TrimEditor::hasBatch() const {
    return request_.batchTrim || request_.batchStartText || request_.batchEndText;
}

void TrimEditor::setInheritBatch(bool inherit) {
    if (inherit && !hasBatch()) {
        return;
    }
    change([inherit](TrimEditorSnapshot& s) { s.inheritBatch = inherit; });
}

void TrimEditor::setStartHere(double seconds) {
    if (std::isfinite(seconds)) {
        setStart(snapshot_.selected, editorTimeText(seconds));
    }
}

void TrimEditor::setEndHere(double seconds) {
    if (std::isfinite(seconds)) {
        setEnd(snapshot_.selected, editorTimeText(seconds));
    }
}

void TrimEditor::addClip() {
    if (editingLocked() || snapshot_.clips.size() >= ClipSelection::kClipLimit) {
        return;
    }
    change([](TrimEditorSnapshot& s) {
        s.clips.push_back(ClipDraft{});
        s.selected = s.clips.size() - 1;
        s.inheritBatch = false;
    });
}

void TrimEditor::removeClip() {
    if (editingLocked() || snapshot_.clips.size() <= 1) {
        return;
    }
    change([](TrimEditorSnapshot& s) {
        s.clips.erase(s.clips.begin() + static_cast<std::ptrdiff_t>(s.selected));
        s.selected = std::min(s.selected, s.clips.size() - 1);
    });
}

void TrimEditor::selectWholeFile() {
    if (editingLocked()) {
        return;
    }
    change([](TrimEditorSnapshot& s) {
        s.clips = {ClipDraft{}};
        s.selected = 0;
        s.inheritBatch = false;
    });
}

void TrimEditor::useBatchTrim() {
    if (editingLocked() || !request_.batchTrim) {
        return;
    }
    change([this](TrimEditorSnapshot& s) {
        s.clips = {ClipDraft{engine::Uuid::random(), request_.batchTrim->start.value_or(""),
                             request_.batchTrim->end.value_or(""), ""}};
        s.selected = 0;
        s.inheritBatch = true;
        s.exportMode = ClipExportMode::separate;
    });
}

// ---- Sources of clips
// ----------------------------------------------------------------------------

void TrimEditor::replaceClips(std::vector<ClipDraft> clips, const std::string& message,
                              std::optional<ClipExportMode> mode) {
    change([&clips, mode](TrimEditorSnapshot& s) {
        s.clips = std::move(clips);
        s.selected = 0;
        s.inheritBatch = false;
        if (mode) {
            s.exportMode = *mode;
        }
    });
    fileMessage_ = message;
    emit changed();
}

void TrimEditor::useChapters() {
    if (editingLocked()) {
        return;
    }
    if (chapters_.empty()) {
        fileMessage_ = "No embedded chapters available.";
        emit changed();
        return;
    }
    try {
        std::vector<ClipDraft> drafts;
        for (const ClipSelection& clip : ClipSelection::fromChapters(chapters_, duration_)) {
            drafts.push_back(ClipDraft::from(clip));
        }
        replaceClips(std::move(drafts), "Chapter clips loaded. Review them before Apply.");
    } catch (const ClipSelection::Invalid& invalid) {
        fileMessage_ = invalid.what();
        emit changed();
    }
}

void TrimEditor::loadClips(const std::filesystem::path& file) {
    if (editingLocked()) {
        return;
    }
    try {
        std::vector<ClipDraft> drafts;
        for (const ClipSelection& clip : engine::ClipListFile::read(file, request_.source)) {
            drafts.push_back(ClipDraft::from(clip));
        }
        const std::string message = fmt::format("Loaded {}. Review them before Apply.",
                                                countText(drafts.size(), "clip", "clips"));
        // A loaded list starts as separate exports.
        replaceClips(std::move(drafts), message, ClipExportMode::separate);
    } catch (const engine::ClipListFile::Invalid& invalid) {
        fileMessage_ = invalid.what();
        emit changed();
    } catch (const ClipSelection::Invalid& invalid) {
        fileMessage_ = invalid.what();
        emit changed();
    } catch (const std::filesystem::filesystem_error& error) {
        fileMessage_ = fmt::format("The clip list could not be read: {}.", error.code().message());
        emit changed();
    }
}

void TrimEditor::saveClips(const std::filesystem::path& file) {
    try {
        // The kept ranges, merged, as separate clips of their own.
        std::vector<ClipSelection> kept;
        for (const engine::Trim& range : ClipSelection::join(
                 validatedClips(), duration_, snapshot_.exportMode == ClipExportMode::remove)) {
            kept.emplace_back(range, "");
        }
        engine::ClipListFile::write(kept, file, request_.source);
        fileMessage_ = "Clip list saved.";
    } catch (const engine::ClipListFile::Invalid& invalid) {
        fileMessage_ = invalid.what();
    } catch (const ClipSelection::Invalid& invalid) {
        fileMessage_ = invalid.what();
    } catch (const std::filesystem::filesystem_error& error) {
        fileMessage_ = fmt::format("The clip list could not be saved: {}.", error.code().message());
    }
    emit changed();
}

void TrimEditor::splitClips(std::optional<double> seconds, std::optional<int64_t> count) {
    if (editingLocked()) {
        return;
    }
    try {
        std::vector<ClipDraft> drafts;
        for (const ClipSelection& clip : ClipSelection::split(duration_, seconds, count)) {
            drafts.push_back(ClipDraft::from(clip));
        }
        const std::string message = fmt::format("Split into {}. Review them before Apply.",
                                                countText(drafts.size(), "clip", "clips"));
        replaceClips(std::move(drafts), message);
    } catch (const ClipSelection::Invalid& invalid) {
        fileMessage_ = invalid.what();
        emit changed();
    }
}

// ---- Apply ------------------------------------------------------------------------------------

bool TrimEditor::apply() {
    applyFailed_ = false;
    if (trimmingVisually_ && automaticVisualTrimPending_) {
        applyMessage_ = kUnconfirmedHandles;
        applyFailed_ = true;
        emit changed();
        return false;
    }
    TrimEditorResult result;
    result.duration = duration_;
    result.mode = snapshot_.exportMode;
    if (snapshot_.inheritBatch && hasBatch()) {
        // The row follows the batch trim, also while the batch fields hold an invalid range.
        result.inheritBatch = true;
    } else {
        for (std::size_t index = 0; index < snapshot_.clips.size(); ++index) {
            if (const std::optional<std::string> message = validation(index)) {
                applyMessage_ = *message;
                applyFailed_ = true;
                snapshot_.selected = index;
                emit changed();
                return false;
            }
        }
        std::vector<ClipSelection> clips = validatedClips();
        const bool plainTrim = clips.size() == 1 && clips.front().name().empty() &&
                               snapshot_.exportMode == ClipExportMode::separate;
        if (plainTrim) {
            const engine::Trim trim = clips.front().trim();
            result.trim = trim.isEmpty() ? std::nullopt : std::optional(trim);
        } else {
            if (snapshot_.exportMode != ClipExportMode::separate) {
                try {
                    (void)ClipSelection::join(clips, duration_,
                                              snapshot_.exportMode == ClipExportMode::remove);
                } catch (const ClipSelection::Invalid& invalid) {
                    applyMessage_ = invalid.what();
                    applyFailed_ = true;
                    emit changed();
                    return false;
                }
            }
            result.clips = std::move(clips);
        }
    }
    const bool taken = onApply && onApply(result);
    applyFailed_ = !taken;
    applyMessage_ = taken ? applyNote() : kRowRefused;
    emit changed();
    return taken;
}

// ---- Preview
// --------------------------------------------------------------------------------------

void TrimEditor::setPreviewAvailable(bool available) {
    previewReady_ = available;
    trimmingVisually_ = available;
    previewMessage_ = available ? "" : kPreviewUnavailable;
    emit changed();
}

void TrimEditor::moveHandles(double start, double end) {
    if (!trimmingVisually_) {
        return;
    }
    handles_ = {start, end};
    automaticVisualTrimPending_ = true;
    emit changed();
}

void TrimEditor::confirmHandles() {
    if (!trimmingVisually_ || !handles_) {
        return;
    }
    const double start = handles_->first;
    const double end = handles_->second;
    const std::size_t index = snapshot_.selected;
    change([&](TrimEditorSnapshot& s) {
        s.clips[index].start = start <= 0 ? "" : editorTimeText(start);
        s.clips[index].end = duration_ && end >= *duration_ ? "" : editorTimeText(end);
        s.inheritBatch = false;
    });
    automaticVisualTrimPending_ = false;
    handles_.reset();
    emit changed();
}

void TrimEditor::switchToDetailedEditing() {
    trimmingVisually_ = false;
    automaticVisualTrimPending_ = false;
    handles_.reset();
    fileMessage_.clear();
    emit changed();
}

void TrimEditor::requestTrim() {
    ++trimRequest_;
    emit changed();
}

}  // namespace tessarin::app
