// Chooses the few moments of a video worth showing an AI tool, from a stream of tiny gray grids.
//
// In `changes` mode the selector looks for states of the picture that were reached and then
// held, not for every flicker: a change must settle before it counts; a brief pop-up is caught
// at its fullest as a transient; a picture that never settles still yields an `activity` frame
// now and then; a hard cut keeps the last good frame before it; and a greedy pruning holds the
// count to `maxFrames` by giving up the frames whose loss would be noticed least. In `interval`
// mode it simply picks the frames nearest to evenly spaced times.
//
// It knows nothing of ffmpeg, files or clocks: only the grids and frame records it is fed, in
// frame order. Equal input gives equal output.
//
//   FrameSelector selector(FrameAnalysisSettings{}, FrameSelectionMode::changes, 20);
//   for (...) selector.consume(std::move(grid), frame);   // throws FrameSelector::Failure
//   FrameSelectionResult result = selector.finish(window, probedFrameCount, false);
//
// Threads: not synchronised; one thread at a time, which the owning stream's lock ensures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "engine/frames/FrameTypes.hpp"

namespace tessarin::engine {

class FrameSelector {
public:
    // Thrown at once; nothing selected before it survives. The job words the message for the
    // user; what() is the case's name ("gridMismatch").
    class Failure : public std::exception {
    public:
        enum class Kind { gridMismatch, resourceLimit };

        explicit Failure(Kind kind) noexcept : kind_(kind) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;

    private:
        Kind kind_;
    };

    // A moment offered for selection, before pruning.
    struct Candidate {
        ShowinfoFrame frame;
        FrameReason reason = FrameReason::first;
        std::optional<int64_t> changedCells;
        // A grid of at most `pruneLongEdge` cells on its long edge; possibly the analysis grid
        // itself, shared.
        std::shared_ptr<const std::vector<std::uint8_t>> thumbnail;
        // When the picture went back or away; the candidate holds no longer than that.
        std::optional<double> returnTime;
    };

    static constexpr int64_t kDefaultMemoryLimitBytes = 201'326'592;

    // In interval mode `intervalWindowLength` must be present, positive and finite, and
    // `maxFrames` at least 1; anything else is a programming error that stops the process. The
    // targets are then `window * k / (maxFrames - 1)` for k = 0 … maxFrames - 1 (just 0 for one
    // frame). `memoryLimitBytes` bounds what `changes` mode may account for.
    FrameSelector(FrameAnalysisSettings settings, FrameSelectionMode mode, int64_t maxFrames,
                  int64_t memoryLimitBytes = kDefaultMemoryLimitBytes,
                  std::optional<double> intervalWindowLength = std::nullopt);

    // Takes the next analysis grid (one gray byte a cell, row by row, frame.width by
    // frame.height) with its frame record. Frames with a negative time lie before the range:
    // only the latest of them is kept, to stand for time 0 when the first frame inside the range
    // comes later than 0.
    //
    // Throws Failure: gridMismatch for a grid that doesn't match its record, the analysis size
    // limit or the first grid's size; resourceLimit as soon as `changes` mode would account for
    // more than `memoryLimitBytes`. After a resourceLimit inside a step the previous grid, the
    // last frame and the processed count are still up to date, for inspection.
    void consume(std::vector<std::uint8_t> grid, const ShowinfoFrame& frame);

    // The selection for a range of `window` seconds. `expectedFrames` is the number of frames
    // the range should have decoded, when known; with `trimmed` the range was cut and the count
    // is not checked. Works on a copy, so the selector itself is unchanged and may go on.
    // In interval mode `window` must equal the construction's window length (a programming
    // error otherwise). Throws Failure(resourceLimit).
    [[nodiscard]] FrameSelectionResult finish(double window, std::optional<int64_t> expectedFrames,
                                              bool trimmed) const;

    [[nodiscard]] const FrameAnalysisSettings& settings() const { return settings_; }
    [[nodiscard]] FrameSelectionMode mode() const { return mode_; }
    [[nodiscard]] int64_t maxFrames() const { return maxFrames_; }
    [[nodiscard]] int64_t memoryLimitBytes() const { return memoryLimitBytes_; }
    // The most the memory account has reached, in bytes.
    [[nodiscard]] int64_t accountedPeakBytes() const { return accountedPeakBytes_; }
    [[nodiscard]] int64_t processedFrames() const { return processedFrames_; }
    [[nodiscard]] const std::vector<Candidate>& candidates() const { return candidates_; }

private:
    using Grid = std::shared_ptr<const std::vector<std::uint8_t>>;

    struct Peak {
        ShowinfoFrame frame;
        int64_t cells = 0;
        Grid grid;
    };
    struct Still {
        ShowinfoFrame frame;
        Grid grid;
    };

    void checkGrid(const std::vector<std::uint8_t>& grid, const ShowinfoFrame& frame) const;
    void reserve(int64_t addedCandidates, int64_t gridCapacity, int64_t thumbnailCapacity);
    void step(const Grid& grid, const ShowinfoFrame& frame);
    void stepChanges(const Grid& grid, const ShowinfoFrame& frame);
    void stepPending(const Grid& grid, const ShowinfoFrame& frame, int64_t dPrev, int64_t dRef);
    void stepInterval(const ShowinfoFrame& frame);
    void settle(Still still);
    void emit(const ShowinfoFrame& frame, FrameReason reason, std::optional<int64_t> changedCells,
              const Grid& grid, std::optional<double> returnTime);
    void clearPending();
    void stepLeftoverPreStart();
    [[nodiscard]] int64_t changedCells(const Grid& a, const Grid& b) const;
    [[nodiscard]] FrameSelectionResult finishChanges(FrameSelectionResult result, double finalTime);
    [[nodiscard]] FrameSelectionResult finishInterval(FrameSelectionResult result) const;
    [[nodiscard]] FrameSelectionResult finishInPlace(double window,
                                                     std::optional<int64_t> expectedFrames,
                                                     bool trimmed);

    FrameAnalysisSettings settings_;
    FrameSelectionMode mode_;
    int64_t maxFrames_;
    int64_t memoryLimitBytes_;

    int64_t accountedPeakBytes_ = 0;
    int64_t retainedThumbnailBytes_ = 0;
    int64_t maximumGridCapacity_ = 0;
    bool finalizing_ = false;

    int64_t width_ = 0;
    int64_t height_ = 0;
    int64_t minCells_ = 0;
    int64_t quietCells_ = 0;
    int64_t cutCells_ = 0;

    std::optional<double> lastCut_;

    std::vector<Candidate> candidates_;
    std::optional<int64_t> lastCandidateFrameNumber_;
    Grid lastCandidateGrid_;

    std::optional<double> intervalWindowLength_;
    std::vector<double> intervalTargets_;
    std::size_t intervalNextTarget_ = 0;
    std::vector<ShowinfoFrame> intervalFrames_;
    std::optional<int64_t> intervalLastPickedIndex_;

    Grid previous_;
    Grid reference_;  // the last settled picture

    bool pending_ = false;
    double pendingStart_ = 0;
    std::optional<Peak> peak_;
    std::optional<Still> quiet_;

    double lastEmit_ = 0;
    std::optional<ShowinfoFrame> lastFrame_;
    int64_t processedFrames_ = 0;
    std::optional<Still> preStart_;
};

}  // namespace tessarin::engine
