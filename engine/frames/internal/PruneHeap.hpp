// The lazy priority queue behind budget pruning, and the integer logarithm that weighs a
// frame's visual change. Plain values: one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace tessarin::engine::frames_internal {

// A binary min-heap of keys in one array; the front is the candidate to give up next. Keys are
// never updated in place: a newer key with a higher version is pushed instead, and the pruning
// skips keys whose version is stale.
class PruneHeap {
public:
    struct Key {
        int64_t tier = 0;       // the reason's rank; the highest goes first
        bool opensGap = false;  // removal would leave too wide a gap; avoided within a tier
        int64_t cost = 0;       // how much would be lost; the lowest goes first
        int64_t index = 0;      // on a tie, the later candidate goes first
        int64_t version = 0;

        bool operator==(const Key&) const = default;
    };

    // True when `a` comes out before `b`.
    [[nodiscard]] static bool before(const Key& a, const Key& b);

    void push(const Key& key);
    // The front key, removed; nothing when the heap is empty.
    [[nodiscard]] std::optional<Key> pop();
    [[nodiscard]] bool empty() const { return keys_.empty(); }
    [[nodiscard]] std::size_t size() const { return keys_.size(); }

private:
    std::vector<Key> keys_;
};

// log2(max(c, 0) + 1) in fixed point with 8 fractional bits, truncated, in integers only, so
// that equal input gives equal costs on every machine.
[[nodiscard]] int64_t log2q(int64_t c);

}  // namespace tessarin::engine::frames_internal
