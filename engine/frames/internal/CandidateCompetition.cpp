#include "engine/frames/internal/CandidateCompetition.hpp"

#include <limits>
#include <utility>

#include "engine/frames/internal/GridArithmetic.hpp"

namespace tessarin::engine::frames_internal {

namespace {

// What a thumbnail costs in the memory account while it is held.
constexpr int64_t kEntryOverhead = 128;

int64_t heldBytes(const FrameSelector::Candidate& candidate) {
    return saturatingAdd(capacityOf(candidate.thumbnail), kEntryOverhead);
}

// The ends of the video always matter most; otherwise the amount of change decides.
int64_t importance(const FrameSelector::Candidate& candidate) {
    if (candidate.reason == FrameReason::first || candidate.reason == FrameReason::last) {
        return std::numeric_limits<int64_t>::max();
    }
    return candidate.changedCells.value_or(0);
}

}  // namespace

int64_t reasonRank(FrameReason reason) {
    switch (reason) {
        case FrameReason::first:
        case FrameReason::last:
        case FrameReason::interval:
            return 0;
        case FrameReason::transient:
            return 1;
        case FrameReason::change:
        case FrameReason::unsettled:
            return 2;
        case FrameReason::activity:
            return 3;
    }
    return 3;
}

Offer offerCandidate(std::vector<FrameSelector::Candidate>& candidates,
                     FrameSelector::Candidate candidate, double spacingSeconds,
                     int64_t& retainedThumbnailBytes) {
    const auto append = [&] {
        retainedThumbnailBytes = saturatingAdd(retainedThumbnailBytes, heldBytes(candidate));
        candidates.push_back(std::move(candidate));
        return Offer::appended;
    };
    if (candidates.empty()) {
        return append();
    }
    FrameSelector::Candidate& last = candidates.back();
    if (candidate.frame.time - last.frame.time >= spacingSeconds) {
        return append();
    }
    // A pop-up right before the end is worth its own place next to the end frame.
    if (candidate.reason == FrameReason::last && last.reason == FrameReason::transient) {
        return append();
    }
    // A frame captured ahead of a cut shows a state that the cut ended: never give it up.
    if (last.reason == FrameReason::change && last.returnTime) {
        return append();
    }

    const int64_t newRank = reasonRank(candidate.reason);
    const int64_t lastRank = reasonRank(last.reason);
    const bool replaces =
        newRank != lastRank ? newRank < lastRank : importance(last) < importance(candidate);
    if (!replaces) {
        return Offer::dropped;
    }
    const int64_t released = heldBytes(last);
    retainedThumbnailBytes =
        retainedThumbnailBytes >= released ? retainedThumbnailBytes - released : 0;
    retainedThumbnailBytes = saturatingAdd(retainedThumbnailBytes, heldBytes(candidate));
    last = std::move(candidate);
    return Offer::replaced;
}

}  // namespace tessarin::engine::frames_internal
