// The model of the trim editor: a draft list of clips as text, an export mode, undo, and entries
// from chapters, clip list files, silence suggestions, splits and keyframes. On Apply it hands
// the result to the queue row through onApply. It says nothing about layout; the window binds
// to it.
//
//   TrimEditor editor(request, tools);
//   editor.onApply = [&](const TrimEditorResult& result) { return queue.applyTrimEditor(...); };
//   editor.open();                       // probes the source off the main thread
//   editor.setStartHere(12.5);           // the viewed frame's time
//   if (editor.apply()) close();
//
// Threads: lives on the main thread, and every member must be called there. Probes, keyframe
// searches, silence scans and waveforms run on threads of their own and report back through the
// event loop; each request has its own id or revision and a stale answer is dropped. Closing
// (destruction) cancels what runs.
#pragma once

#include <QObject>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/trim/TrimEditorTypes.hpp"
#include "engine/clips/KeyframeProbe.hpp"
#include "engine/clips/SilenceSuggestions.hpp"
#include "engine/probe/MediaInfo.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::app {

class MainThreadHandoff;

class TrimEditor : public QObject {
    Q_OBJECT

public:
    enum class KeyframeAction {
        previous,       // "Previous keyframe": move the playhead
        next,           // "Next keyframe"
        snapStart,      // "Snap start to previous keyframe"
        snapEnd,        // "Snap end to next keyframe"
        viewedAsStart,  // "Use viewed keyframe as start"
        viewedAsEnd,    // "Use viewed keyframe as end"
    };

    // `tools` absent: "Video tools unavailable." and nothing that needs them runs.
    TrimEditor(TrimEditorRequest request, std::optional<engine::Tools> tools,
               QObject* parent = nullptr);
    // Cancels what runs and waits for its threads, at most the cancel grace and a little more.
    ~TrimEditor() override;
    TrimEditor(const TrimEditor&) = delete;
    TrimEditor& operator=(const TrimEditor&) = delete;

    // Receives the result of Apply; false means the row can't take it.
    std::function<bool(const TrimEditorResult&)> onApply;

    // Probes the source ("Reading video length…").
    void open();

    // ---- State -----------------------------------------------------------------------------
    [[nodiscard]] const TrimEditorRequest& request() const { return request_; }
    [[nodiscard]] const TrimEditorSnapshot& snapshot() const { return snapshot_; }
    [[nodiscard]] const std::vector<ClipDraft>& clips() const { return snapshot_.clips; }
    [[nodiscard]] std::size_t selected() const { return snapshot_.selected; }
    [[nodiscard]] ClipExportMode exportMode() const { return snapshot_.exportMode; }
    [[nodiscard]] bool inheritBatch() const { return snapshot_.inheritBatch; }
    // The queue has a batch trim, valid or not.
    [[nodiscard]] bool hasBatch() const;
    [[nodiscard]] std::optional<double> duration() const { return duration_; }
    [[nodiscard]] const std::vector<engine::MediaChapter>& chapters() const { return chapters_; }
    [[nodiscard]] bool hasAudio() const { return hasAudio_; }
    [[nodiscard]] std::optional<double> timelineStart() const { return timelineStart_; }
    [[nodiscard]] const std::string& probeMessage() const { return probeMessage_; }
    [[nodiscard]] bool probing() const { return probing_; }
    [[nodiscard]] const std::string& fileMessage() const { return fileMessage_; }
    [[nodiscard]] const std::string& applyMessage() const { return applyMessage_; }
    [[nodiscard]] bool applyFailed() const { return applyFailed_; }
    [[nodiscard]] bool keyframeSearching() const { return keyframeSearching_; }
    [[nodiscard]] std::optional<double> keyframePlayhead() const { return keyframePlayhead_; }
    [[nodiscard]] const std::string& keyframeMessage() const { return keyframeMessage_; }
    [[nodiscard]] bool suggesting() const { return suggesting_; }

    // The row message of draft `index`, or nothing when it is valid.
    [[nodiscard]] std::optional<std::string> validation(std::size_t index) const;
    // The note under Apply for the current drafts and mode.
    [[nodiscard]] std::string applyNote() const;

    // ---- Preview and visual editing -----------------------------------------------------------
    [[nodiscard]] bool previewReady() const { return previewReady_; }
    [[nodiscard]] const std::string& previewMessage() const { return previewMessage_; }
    [[nodiscard]] bool trimmingVisually() const { return trimmingVisually_; }
    [[nodiscard]] bool hasUnconfirmedHandles() const { return automaticVisualTrimPending_; }
    // Each rise asks the preview to confirm its handles.
    [[nodiscard]] uint64_t trimRequest() const { return trimRequest_; }
    // The view reports whether the player can show the source; visual editing starts when it
    // can, and "Preview unavailable for this media…" shows when it can't.
    void setPreviewAvailable(bool available);
    // The handles moved, not yet confirmed.
    void moveHandles(double start, double end);
    // The preview's Trim control: the handles become the selected clip's range.
    void confirmHandles();
    // Leaves visual editing, keeping the last confirmed range and discarding unconfirmed handles.
    void switchToDetailedEditing();
    // Asks the preview to confirm (raises trimRequest).
    void requestTrim();

    // ---- Editing ---------------------------------------------------------------------------
    void select(std::size_t index);
    void setStart(std::size_t index, const std::string& text);
    void setEnd(std::size_t index, const std::string& text);
    void setName(std::size_t index, const std::string& text);
    void setExportMode(ClipExportMode mode);
    void setInheritBatch(bool inherit);
    // "Set start here" / "Set end here": the viewed frame's time on the selected clip.
    void setStartHere(double seconds);
    void setEndHere(double seconds);
    void addClip();
    void removeClip();
    void selectWholeFile();
    void useBatchTrim();

    // ---- Sources of clips, each replacing the list -----------------------------------------
    void useChapters();
    void loadClips(const std::filesystem::path& file);
    void saveClips(const std::filesystem::path& file);
    // By seconds per clip or by a number of clips (exactly one given).
    void splitClips(std::optional<double> seconds, std::optional<int64_t> count);
    // Starts a silence scan; the result replaces the list when it comes.
    void useSuggestedClips(const engine::SilenceSettings& settings);
    void cancelSuggestions();

    // ---- Keyframes ---------------------------------------------------------------------------
    // `playhead` is the viewed time. The answer moves keyframePlayhead() or a side of the
    // selected clip.
    void keyframe(KeyframeAction action, double playhead);

    // ---- Waveform
    // -------------------------------------------------------------------------------- Draws the
    // audio of `length` seconds from `start`; an older request's picture is dropped.
    void requestWaveform(double start, double length);
    // The PNG of the latest window, or the sentence in its place.
    [[nodiscard]] const std::string& waveformPng() const { return waveformPng_; }
    [[nodiscard]] const std::string& waveformMessage() const { return waveformMessage_; }
    [[nodiscard]] std::optional<std::pair<double, double>> waveformWindow() const {
        return waveformWindow_;
    }

    // ---- Undo ----------------------------------------------------------------------------------
    [[nodiscard]] bool canUndo() const { return !undoStack_.empty(); }
    [[nodiscard]] bool canRedo() const { return !redoStack_.empty(); }
    void undo();
    void redo();

    // ---- Apply ---------------------------------------------------------------------------------
    // Validates and hands the result to onApply. True when the row took it.
    bool apply();

    // Blocks until no background work runs, at most `limit`. For orderly shutdown and tests.
    [[nodiscard]] bool waitForBackgroundWork(std::chrono::milliseconds limit);

    static constexpr const char* kPreviewUnavailable =
        "Preview unavailable for this media. Use the numeric trim fields.";
    static constexpr const char* kVisualEditingActive =
        "Visual editing is active. Use Switch to detailed editing below to access these controls.";
    static constexpr const char* kUnconfirmedHandles =
        "Click Trim in the preview to keep your handle changes, or switch to detailed editing to "
        "use time fields and clip tools.";

signals:
    // Anything above changed.
    void changed();
    // A keyframe answer moved the playhead; the view seeks there.
    void seekRequested(double seconds);

public:
    // What the editor shares with its threads; defined in internal/TrimEditorWork.hpp.
    struct Work;

private slots:
    void deliverBackgroundResults();

private:
    void change(const std::function<void(TrimEditorSnapshot&)>& edit);
    void replaceClips(std::vector<ClipDraft> clips, const std::string& message,
                      std::optional<ClipExportMode> mode = std::nullopt);
    [[nodiscard]] std::vector<engine::ClipSelection> validatedClips() const;
    [[nodiscard]] bool editingLocked();

    void probeSource();
    void finishKeyframe(uint64_t id, KeyframeAction action, TrimEditorSnapshot basis,
                        std::optional<double> time, std::string failure);

    TrimEditorRequest request_;
    std::optional<engine::Tools> tools_;
    TrimEditorSnapshot snapshot_;
    TrimEditorUndoTarget undoTarget_;
    std::vector<TrimEditorSnapshot> undoStack_;
    std::vector<TrimEditorSnapshot> redoStack_;

    std::optional<double> duration_;
    std::vector<engine::MediaChapter> chapters_;
    bool hasAudio_ = false;
    std::optional<double> timelineStart_;
    bool probing_ = false;
    std::string probeMessage_;
    std::string fileMessage_;
    std::string applyMessage_;
    bool applyFailed_ = false;

    bool previewReady_ = false;
    std::string previewMessage_;
    bool trimmingVisually_ = false;
    bool automaticVisualTrimPending_ = false;
    std::optional<std::pair<double, double>> handles_;
    uint64_t trimRequest_ = 0;

    bool keyframeSearching_ = false;
    uint64_t keyframeRequest_ = 0;
    std::optional<double> keyframePlayhead_;
    std::string keyframeMessage_;
    double keyframeOrigin_ = 0;  // the first video packet's time, where keyframe times start
    bool suggesting_ = false;
    uint64_t suggestionRequest_ = 0;

    uint64_t waveformRevision_ = 0;
    std::string waveformPng_;
    std::string waveformMessage_;
    std::optional<std::pair<double, double>> waveformWindow_;

    std::shared_ptr<Work> work_;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
