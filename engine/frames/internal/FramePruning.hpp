// Holds a list of candidates to a frame budget by greedily giving up, one at a time, the
// candidate whose loss would be noticed least: the highest-ranked reason first, then one whose
// removal leaves no wide gap, then the one that shows the least change for the shortest time.
// Pure function: any thread. O(n log n) with a lazy heap.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace tessarin::engine::frames_internal {

struct PruneEntry {
    int64_t tier = 0;  // the reason's rank
    double time = 0;   // seconds; entries are in time order
    std::span<const std::uint8_t> thumbnail;
};

// Which entries are kept. Nothing is removed when there are at most `maxFrames` entries or
// fewer than 3; the first and the last entry are never removed, so a `maxFrames` below 2 still
// keeps both ends. `cellDelta` is the change threshold for comparing thumbnails.
[[nodiscard]] std::vector<bool> pruneToBudget(std::span<const PruneEntry> entries,
                                              int64_t maxFrames, double pruneGapFactor,
                                              int64_t cellDelta);

}  // namespace tessarin::engine::frames_internal
