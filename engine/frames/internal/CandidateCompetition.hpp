// How a new candidate competes with the last one for a place in the selector's list, and the
// rank of each reason, which pruning uses too. Pure functions: any thread.
#pragma once

#include <cstdint>
#include <vector>

#include "engine/frames/FrameSelector.hpp"
#include "engine/frames/FrameTypes.hpp"

namespace tessarin::engine::frames_internal {

// The lower number wins a place; the highest is given up first: first, last and interval 0,
// transient 1, change and unsettled 2, activity 3.
[[nodiscard]] int64_t reasonRank(FrameReason reason);

enum class Offer { appended, replaced, dropped };

// Offers `candidate` to `candidates`: it is appended when it is far enough from the last one
// (or when the pair must both be kept), otherwise it takes the last one's place or is dropped.
// `retainedThumbnailBytes` follows what the list holds, each thumbnail's capacity plus 128,
// saturating.
Offer offerCandidate(std::vector<FrameSelector::Candidate>& candidates,
                     FrameSelector::Candidate candidate, double spacingSeconds,
                     int64_t& retainedThumbnailBytes);

}  // namespace tessarin::engine::frames_internal
