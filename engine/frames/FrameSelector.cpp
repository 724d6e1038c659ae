#include "engine/frames/FrameSelector.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <span>
#include <string_view>
#include <utility>

#include "engine/frames/internal/CandidateCompetition.hpp"
#include "engine/frames/internal/FramePruning.hpp"
#include "engine/frames/internal/GridArithmetic.hpp"

namespace tessarin::engine {

namespace {

using frames_internal::saturatingAdd;
using frames_internal::saturatingMultiply;
using Kind = FrameSelector::Failure::Kind;

// Per-allocation overhead assumed by the memory account.
constexpr int64_t kAllocationOverhead = 128;
// The fixed part of the account: the selector itself and the finish's bookkeeping.
constexpr int64_t kBaseBytes = 4096;

[[noreturn]] void programmerError(std::string_view message) {
    std::fprintf(stderr, "tessarin: programmer error: %.*s\n", static_cast<int>(message.size()),
                 message.data());
    std::fflush(stderr);
    std::abort();
}

[[noreturn]] void fail(Kind kind) {
    throw FrameSelector::Failure(kind);
}

// sum of (bytes + overhead) over `entries`, saturating.
int64_t withOverheads(std::initializer_list<int64_t> entries) {
    int64_t total = 0;
    for (const int64_t bytes : entries) {
        total = saturatingAdd(total, saturatingAdd(bytes, kAllocationOverhead));
    }
    return total;
}

// a * n + overhead, saturating: the account of one array of n elements of a bytes.
int64_t arrayBytes(int64_t elementBytes, int64_t count) {
    return saturatingAdd(saturatingMultiply(elementBytes, count), kAllocationOverhead);
}

std::vector<double> intervalTargets(double window, int64_t maxFrames) {
    if (maxFrames == 1) {
        return {0.0};
    }
    std::vector<double> targets;
    targets.reserve(static_cast<std::size_t>(maxFrames));
    for (int64_t k = 0; k < maxFrames; ++k) {
        targets.push_back(window * static_cast<double>(k) / static_cast<double>(maxFrames - 1));
    }
    return targets;
}

}  // namespace

const char* FrameSelector::Failure::what() const noexcept {
    return kind_ == Kind::gridMismatch ? "gridMismatch" : "resourceLimit";
}

FrameSelector::FrameSelector(FrameAnalysisSettings settings, FrameSelectionMode mode,
                             int64_t maxFrames, int64_t memoryLimitBytes,
                             std::optional<double> intervalWindowLength)
    : settings_(settings),
      mode_(mode),
      maxFrames_(maxFrames),
      memoryLimitBytes_(memoryLimitBytes),
      intervalWindowLength_(intervalWindowLength) {
    if (mode_ != FrameSelectionMode::interval) {
        return;
    }
    if (!intervalWindowLength_ || !std::isfinite(*intervalWindowLength_) ||
        !(*intervalWindowLength_ > 0)) {
        programmerError("interval frame selection needs a positive, finite window length");
    }
    if (maxFrames_ < 1) {
        programmerError("interval frame selection needs at least one frame");
    }
    intervalTargets_ = intervalTargets(*intervalWindowLength_, maxFrames_);
}

int64_t FrameSelector::changedCells(const Grid& a, const Grid& b) const {
    return frames_internal::changedCells(a, b, settings_.cellDelta);
}

void FrameSelector::checkGrid(const std::vector<std::uint8_t>& grid,
                              const ShowinfoFrame& frame) const {
    const int64_t limit = settings_.gridLongEdge;
    int64_t cells = 0;
    if (frame.width < 1 || frame.height < 1 || frame.width > limit || frame.height > limit ||
        __builtin_mul_overflow(frame.width, frame.height, &cells) ||
        cells != static_cast<int64_t>(grid.size())) {
        fail(Kind::gridMismatch);
    }
    if (width_ != 0 && (frame.width != width_ || frame.height != height_)) {
        fail(Kind::gridMismatch);
    }
}

// A conservative account of everything held now and of what finishing will need; `added` more
// candidates, a grid of `gridCapacity` bytes and a thumbnail of `thumbnailCapacity` bytes are
// about to exist.
void FrameSelector::reserve(int64_t added, int64_t gridCapacity, int64_t thumbnailCapacity) {
    if (mode_ == FrameSelectionMode::interval) {
        return;
    }
    const int64_t r = saturatingAdd(added, finalizing_ ? 0 : 2);
    const int64_t n = saturatingAdd(static_cast<int64_t>(candidates_.size()), r);
    const int64_t capacity = std::max(static_cast<int64_t>(candidates_.capacity()),
                                      saturatingAdd(saturatingMultiply(2, n), 64));
    using frames_internal::capacityOf;
    const int64_t grids = withOverheads({
        capacityOf(previous_),
        capacityOf(reference_),
        capacityOf(lastCandidateGrid_),
        peak_ ? capacityOf(peak_->grid) : 0,
        quiet_ ? capacityOf(quiet_->grid) : 0,
        preStart_ ? capacityOf(preStart_->grid) : 0,
        gridCapacity,
        saturatingMultiply(2, maximumGridCapacity_),
    });
    const int64_t thumb =
        std::max({saturatingAdd(saturatingMultiply(2, saturatingMultiply(settings_.pruneLongEdge,
                                                                         settings_.pruneLongEdge)),
                                4096),
                  maximumGridCapacity_, thumbnailCapacity});
    const int64_t kept = std::min(n, std::max<int64_t>(maxFrames_, 2));

    int64_t total = kBaseBytes;
    for (const int64_t part : {
             grids,
             retainedThumbnailBytes_,
             saturatingMultiply(saturatingAdd(thumb, kAllocationOverhead), saturatingAdd(r, 1)),
             saturatingMultiply(3, arrayBytes(96, capacity)),
             arrayBytes(16, n),
             arrayBytes(2, n),
             saturatingMultiply(6, arrayBytes(16, n)),
             arrayBytes(320, n),
             arrayBytes(288, kept),
             arrayBytes(176, kept),
             arrayBytes(64, kept),
         }) {
        total = saturatingAdd(total, part);
    }
    if (total > memoryLimitBytes_) {
        fail(Kind::resourceLimit);
    }
    accountedPeakBytes_ = std::max(accountedPeakBytes_, total);
}

void FrameSelector::consume(std::vector<std::uint8_t> grid, const ShowinfoFrame& frame) {
    checkGrid(grid, frame);
    const auto shared = std::make_shared<const std::vector<std::uint8_t>>(std::move(grid));
    if (mode_ == FrameSelectionMode::changes) {
        const int64_t gridCapacity = frames_internal::capacityOf(shared);
        maximumGridCapacity_ = std::max(maximumGridCapacity_, gridCapacity);
        reserve(2, gridCapacity, 0);
    }
    if (width_ == 0) {
        width_ = frame.width;
        height_ = frame.height;
        const double cells = static_cast<double>(width_ * height_);
        using frames_internal::clampedInteger;
        minCells_ = std::max<int64_t>(clampedInteger(std::ceil(settings_.minFraction * cells)), 1);
        quietCells_ = clampedInteger(std::floor(settings_.quietFraction * cells));
        cutCells_ = std::max<int64_t>(clampedInteger(std::ceil(settings_.cutFraction * cells)), 1);
    }

    if (frame.time < 0) {
        preStart_ = Still{frame, shared};
        reserve(1, 0, 0);
        return;
    }
    if (preStart_) {
        Still early = std::move(*preStart_);
        preStart_.reset();
        // Stands for the start of the range unless a frame lands on it exactly.
        if (frame.time > 0) {
            early.frame.time = 0;
            step(early.grid, early.frame);
        }
    }
    step(shared, frame);
    reserve(0, 0, 0);
}

void FrameSelector::step(const Grid& grid, const ShowinfoFrame& frame) {
    const auto advance = [&] {
        previous_ = grid;
        lastFrame_ = frame;
        ++processedFrames_;
    };
    try {
        if (mode_ == FrameSelectionMode::changes) {
            stepChanges(grid, frame);
        } else {
            stepInterval(frame);
        }
    } catch (...) {
        advance();
        throw;
    }
    advance();
}

void FrameSelector::stepChanges(const Grid& grid, const ShowinfoFrame& frame) {
    const double t = frame.time;
    if (!lastFrame_) {
        reference_ = grid;
        emit(frame, FrameReason::first, std::nullopt, grid, std::nullopt);
        lastEmit_ = t;
        return;
    }
    if (pending_ && quiet_ && t - quiet_->frame.time >= settings_.settleSeconds) {
        settle(*quiet_);
    }

    const int64_t dPrev = changedCells(grid, previous_);
    int64_t dRef = changedCells(grid, reference_);
    bool idle = !pending_;
    if (dPrev >= cutCells_) {
        if (!pending_) {
            lastCut_ = t;
        } else if (t - pendingStart_ >= settings_.settleSeconds && dRef >= minCells_ / 2 &&
                   (!lastCut_ || t - *lastCut_ >= settings_.cutHoldSeconds) &&
                   changedCells(previous_, lastCandidateGrid_) >= minCells_) {
            // The picture before the cut was a real state that never got the time to settle.
            const ShowinfoFrame before = *lastFrame_;
            const Grid beforeGrid = previous_;
            emit(before, FrameReason::change, changedCells(beforeGrid, reference_), beforeGrid, t);
            reference_ = beforeGrid;
            lastEmit_ = before.time;
            clearPending();
            dRef = changedCells(grid, beforeGrid);
            lastCut_ = t;
            idle = true;
        } else {
            lastCut_ = t;
        }
    }

    if (!idle) {
        stepPending(grid, frame, dPrev, dRef);
    } else if (dRef >= minCells_) {
        pending_ = true;
        pendingStart_ = t;
        peak_ = Peak{frame, dRef, grid};
        quiet_ = Still{frame, grid};
    }
}

void FrameSelector::stepPending(const Grid& grid, const ShowinfoFrame& frame, int64_t dPrev,
                                int64_t dRef) {
    const double t = frame.time;
    if ((!peak_ && dRef > 0) || (peak_ && dRef > peak_->cells)) {
        peak_ = Peak{frame, dRef, grid};
    }

    // Back to the reference: a pop-up came and went.
    if (dRef < minCells_ / 2) {
        if (peak_ && peak_->cells >= saturatingMultiply(2, minCells_)) {
            const Peak peak = *peak_;
            emit(peak.frame, FrameReason::transient, peak.cells, peak.grid, t);
        }
        clearPending();
        return;
    }

    // Still, and not slowly drifting away from where it went still either.
    if (quiet_ && dPrev <= quietCells_ && changedCells(grid, quiet_->grid) <= quietCells_) {
        if (t - quiet_->frame.time >= settings_.settleSeconds) {
            settle(*quiet_);
        }
        return;
    }

    quiet_ = Still{frame, grid};
    if (t - std::max(lastEmit_, pendingStart_) >= settings_.activitySeconds &&
        dRef >= saturatingMultiply(4, minCells_)) {
        emit(frame, FrameReason::activity, dRef, grid, std::nullopt);
        reference_ = grid;
        lastEmit_ = t;
        pendingStart_ = t;
        peak_.reset();
    }
}

void FrameSelector::stepInterval(const ShowinfoFrame& frame) {
    const double t = frame.time;
    while (intervalNextTarget_ < intervalTargets_.size() &&
           t >= intervalTargets_[intervalNextTarget_]) {
        const double target = intervalTargets_[intervalNextTarget_];
        // On an exact tie the earlier frame wins.
        const bool takesThis = !lastFrame_ || t - target < target - lastFrame_->time;
        const int64_t index = takesThis ? processedFrames_ : processedFrames_ - 1;
        if (intervalLastPickedIndex_ != index) {
            intervalFrames_.push_back(takesThis ? frame : *lastFrame_);
            intervalLastPickedIndex_ = index;
        }
        ++intervalNextTarget_;
    }
}

void FrameSelector::settle(Still still) {
    if (lastCandidateFrameNumber_ != still.frame.n) {
        emit(still.frame, FrameReason::change, changedCells(still.grid, reference_), still.grid,
             std::nullopt);
    }
    reference_ = still.grid;
    lastEmit_ = still.frame.time;
    clearPending();
}

void FrameSelector::emit(const ShowinfoFrame& frame, FrameReason reason,
                         std::optional<int64_t> changedCells, const Grid& grid,
                         std::optional<double> returnTime) {
    reserve(1, 0, 0);
    Grid thumbnail = frames_internal::thumbnail(grid, width_, height_, settings_.pruneLongEdge);
    reserve(1, 0, frames_internal::capacityOf(thumbnail));
    frames_internal::offerCandidate(
        candidates_, Candidate{frame, reason, changedCells, std::move(thumbnail), returnTime},
        settings_.spacingSeconds, retainedThumbnailBytes_);
    // Kept also when the candidate lost its place: later comparisons are against what was
    // offered, so that a dropped state is not offered again.
    lastCandidateFrameNumber_ = frame.n;
    lastCandidateGrid_ = grid;
    reserve(0, 0, 0);
}

void FrameSelector::clearPending() {
    pending_ = false;
    peak_.reset();
    quiet_.reset();
}

void FrameSelector::stepLeftoverPreStart() {
    if (!preStart_) {
        return;
    }
    Still early = std::move(*preStart_);
    preStart_.reset();
    early.frame.time = 0;
    step(early.grid, early.frame);
}

FrameSelectionResult FrameSelector::finish(double window, std::optional<int64_t> expectedFrames,
                                           bool trimmed) const {
    if (mode_ == FrameSelectionMode::interval && window != *intervalWindowLength_) {
        programmerError("interval frame selection finished with a different window length");
    }
    FrameSelector work = *this;
    return work.finishInPlace(window, expectedFrames, trimmed);
}

FrameSelectionResult FrameSelector::finishInPlace(double window,
                                                  std::optional<int64_t> expectedFrames,
                                                  bool trimmed) {
    reserve(0, 0, 0);
    finalizing_ = true;
    stepLeftoverPreStart();

    FrameSelectionResult result;
    if (processedFrames_ == 0) {
        return result;
    }
    const ShowinfoFrame& last = *lastFrame_;
    const double end = last.time + last.duration;
    const bool decodedShort = !trimmed && expectedFrames &&
                              end < window - std::max(2.0, 2 * last.duration) &&
                              *expectedFrames > saturatingAdd(processedFrames_, 2);
    if (decodedShort) {
        result.warnings.push_back(FrameWarning::decodedShort);
    }
    result.decodedUntil = decodedShort ? std::min(end, window) : window;
    if (mode_ == FrameSelectionMode::interval) {
        return finishInterval(std::move(result));
    }
    const double finalTime = decodedShort ? last.time : window;
    return finishChanges(std::move(result), finalTime);
}

FrameSelectionResult FrameSelector::finishChanges(FrameSelectionResult result, double finalTime) {
    if (pending_ && quiet_ && finalTime - quiet_->frame.time >= settings_.settleSeconds) {
        settle(*quiet_);
    } else if (pending_ && peak_ && peak_->cells >= saturatingMultiply(2, minCells_)) {
        const Peak peak = *peak_;
        emit(peak.frame, FrameReason::unsettled, peak.cells, peak.grid, std::nullopt);
    }
    if (lastCandidateFrameNumber_ != lastFrame_->n) {
        const int64_t cells = changedCells(previous_, lastCandidateGrid_);
        if (cells >= minCells_) {
            emit(*lastFrame_, FrameReason::last, cells, previous_, std::nullopt);
        }
    }

    std::vector<frames_internal::PruneEntry> entries;
    entries.reserve(candidates_.size());
    for (const Candidate& candidate : candidates_) {
        entries.push_back({frames_internal::reasonRank(candidate.reason), candidate.frame.time,
                           std::span<const std::uint8_t>(*candidate.thumbnail)});
    }
    const std::vector<bool> kept = frames_internal::pruneToBudget(
        entries, maxFrames_, settings_.pruneGapFactor, settings_.cellDelta);

    result.candidates = static_cast<int64_t>(candidates_.size());
    result.prunedByBudget = std::count(kept.begin(), kept.end(), false);
    if (result.prunedByBudget > 0) {
        result.warnings.push_back(FrameWarning::budgetPruned);
    }
    for (std::size_t i = 0; i < candidates_.size(); ++i) {
        if (!kept[i]) {
            continue;
        }
        std::size_t next = i + 1;
        while (next < candidates_.size() && !kept[next]) {
            ++next;
        }
        const Candidate& candidate = candidates_[i];
        double holdsUntil =
            next < candidates_.size() ? candidates_[next].frame.time : result.decodedUntil;
        if (candidate.returnTime) {
            holdsUntil = std::min(holdsUntil, *candidate.returnTime);
        }
        result.frames.push_back({.frame = candidate.frame,
                                 .reason = candidate.reason,
                                 .changedCells = candidate.changedCells,
                                 .holdsUntil = holdsUntil,
                                 .followingSpanPruned = next > i + 1});
    }
    return result;
}

FrameSelectionResult FrameSelector::finishInterval(FrameSelectionResult result) const {
    std::vector<ShowinfoFrame> frames = intervalFrames_;
    // Targets beyond the last decoded frame are filled by that frame.
    if (intervalNextTarget_ < intervalTargets_.size() &&
        intervalLastPickedIndex_ != processedFrames_ - 1) {
        frames.push_back(*lastFrame_);
    }
    for (std::size_t i = 0; i < frames.size(); ++i) {
        result.frames.push_back(
            {.frame = frames[i],
             .reason = FrameReason::interval,
             .changedCells = std::nullopt,
             .holdsUntil = i + 1 < frames.size() ? frames[i + 1].time : result.decodedUntil,
             .followingSpanPruned = false});
    }
    result.candidates = static_cast<int64_t>(frames.size());
    result.prunedByBudget = 0;
    return result;
}

}  // namespace tessarin::engine
