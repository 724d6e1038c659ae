// The review before a fast cut: every file's plan (its boundaries widened to keyframes, what is
// added, the tracks kept) or the sentence saying why it can't be cut, so that the user exports
// only what they have seen. A file with clips has one plan per clip (separate outputs) or one per
// piece of its joined output. The files are planned one at a time on one background thread: a
// media probe with chapters, then FastCut::plan for each range.
//
//   FastCutReview review(request, tools);
//   review.onExport = [&](bool acceptWholeFile, const FastCutReview::Plans& plans) { ... };
//   QObject::connect(&review, &FastCutReview::reviewChanged, view, &View::reload);
//   ...
//   if (review.canExport()) review.exportReady();
//
// Threads: a FastCutReview lives on the main thread and every member must be called there. The
// planning thread touches none of its fields; results come back through the event loop, and
// none arrives once the review is closed (cancel(), export, or its destruction).
#pragma once

#include <QObject>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/trim/TrimEditorTypes.hpp"
#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/FastCut.hpp"
#include "engine/clips/Uuid.hpp"
#include "engine/job/JoinedFastCut.hpp"
#include "engine/model/Preset.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::app {

class MainThreadHandoff;

// The files a Convert under Fast cut would cut, as the queue published them for review.
struct FastCutReviewRequest {
    struct Entry {
        engine::Uuid id;  // the queue item's
        std::filesystem::path source;
        engine::Trim trim;  // empty for a file with clips
        // Known before planning: why this file can't be cut. It is shown as the file's failure
        // and the file is not planned.
        std::optional<std::string> issue;
        // The file's clips from the trim editor, planned in place of `trim`: each clip on its own
        // in `separate` mode, else the ranges of one joined output (kept, or left once removed).
        std::optional<std::vector<engine::ClipSelection>> clips;
        ClipExportMode clipMode = ClipExportMode::separate;
    };

    engine::Uuid id;
    std::vector<Entry> entries;
};

class FastCutReview : public QObject {
    Q_OBJECT

public:
    using Piece = engine::JoinedFastCut::Piece;
    // By entry id: the range of a plain trim, the clips of separate outputs in list order, or
    // the pieces of a joined output in output order.
    using Plans = std::map<engine::Uuid, std::vector<Piece>>;

    static constexpr const char* kPlanningText = "Planning cuts…";
    static constexpr const char* kCheckingText = "Checking boundaries…";
    static constexpr const char* kWholeVideoText = "This cut keeps the entire video.";
    static constexpr const char* kAcceptWholeFileText =
        "Keep Fast cut for selections that expand to the whole video";
    static constexpr const char* kChooseConversionText = "Choose conversion preset…";
    static constexpr const char* kChangedText =
        "The queue or trim changed. Close this review and review again.";
    static constexpr const char* kClosingText =
        "Only reviewed, ready files will start. Other files stay in the queue. Export still "
        "checks that the source and boundaries have not changed and that the cut decodes.";

    // Starts planning the entries of `request` at once with `tools`, the helper folder's.
    FastCutReview(FastCutReviewRequest request, engine::Tools tools, QObject* parent = nullptr);
    // Closes the review (as cancel()) and waits for the planning thread, at most the cancel
    // grace of its ffprobe and a little more.
    ~FastCutReview() override;

    FastCutReview(const FastCutReview&) = delete;
    FastCutReview& operator=(const FastCutReview&) = delete;

    // Set by whoever opens the review, before the user can act; either may be empty.
    // `onExport` receives the ready plans only, by entry id.
    std::function<void(bool acceptWholeFile, const Plans& plans)> onExport;
    // A file that can't be cut, handed back with its trim so that a preset can be chosen for it.
    std::function<void(const engine::Uuid& id, const engine::Trim& trim)> onConversion;

    [[nodiscard]] const FastCutReviewRequest& request() const { return request_; }
    // By entry id; an entry has at most one of the two, and neither while it waits its turn.
    [[nodiscard]] const Plans& plans() const { return plans_; }
    [[nodiscard]] const std::map<engine::Uuid, std::string>& failures() const { return failures_; }
    // Planning runs; `checking` is the entry now being planned.
    [[nodiscard]] bool loading() const { return loading_; }
    [[nodiscard]] const std::optional<engine::Uuid>& checking() const { return checking_; }
    [[nodiscard]] bool acceptWholeFile() const { return acceptWholeFile_; }
    // The queue or a trim changed since the request; export stays off for good.
    [[nodiscard]] bool changed() const { return changed_; }
    // Exported or closed: nothing the review does from then on has any effect.
    [[nodiscard]] bool completed() const { return completed_; }

    // Whether the plan that keeps the whole video counts as ready.
    void setAcceptWholeFile(bool accept);
    // Marks the review outdated. Does nothing once it is completed.
    void markChanged();

    // An entry whose plans each keep part of the video or, with acceptWholeFile, all of it.
    [[nodiscard]] bool isReady(const engine::Uuid& id) const;
    [[nodiscard]] bool anyKeepsWholeVideo() const;
    // At least one entry is ready, and the review is neither changed nor completed.
    [[nodiscard]] bool canExport() const;
    // The entry's text: "Checking boundaries…" while it is planned, the plan's summary (and
    // kWholeVideoText on its own line when the plan keeps the whole video), one such line per
    // clip or piece, the failure, or nothing while it waits.
    [[nodiscard]] std::string statusText(const engine::Uuid& id) const;
    // Whether `id` was handed back to conversion.
    [[nodiscard]] bool wasHandedBack(const engine::Uuid& id) const;

    // Hands a failed entry back through onConversion with its trim. Once per entry; nothing
    // for an entry without a failure, or once the review is completed.
    void chooseConversion(const engine::Uuid& id);
    // Calls onExport with the ready plans and completes the review; does nothing unless
    // canExport().
    void exportReady();
    // Cancels planning and completes the review. Safe to repeat.
    void cancel();

    // Blocks until the planning thread ended, at most `limit`; true when it did. Results still
    // come through the event loop afterwards. For orderly shutdown and tests.
    [[nodiscard]] bool waitForPlanning(std::chrono::milliseconds limit);

signals:
    // Anything above changed: a plan or failure came in, planning moved on or ended, the
    // switch, the changed state, completion.
    void reviewChanged();
    // The user exported or closed the review (not emitted on destruction).
    void closed();

private slots:
    void deliverBackgroundResults();

private:
    struct Planning;

    void startPlanning();
    void complete();

    const FastCutReviewRequest request_;
    const engine::Tools tools_;
    Plans plans_;
    std::map<engine::Uuid, std::string> failures_;
    std::vector<engine::Uuid> handedBack_;
    std::optional<engine::Uuid> checking_;
    bool loading_ = false;
    bool acceptWholeFile_ = false;
    bool changed_ = false;
    bool completed_ = false;
    // Results of another generation than this one are dropped: closing moves it on.
    uint64_t generation_ = 1;
    std::shared_ptr<Planning> planning_;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
