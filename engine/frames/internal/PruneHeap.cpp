#include "engine/frames/internal/PruneHeap.hpp"

#include <bit>
#include <cstddef>
#include <utility>

namespace tessarin::engine::frames_internal {

bool PruneHeap::before(const Key& a, const Key& b) {
    if (a.tier != b.tier) {
        return a.tier > b.tier;
    }
    if (a.opensGap != b.opensGap) {
        return !a.opensGap;
    }
    if (a.cost != b.cost) {
        return a.cost < b.cost;
    }
    return a.index > b.index;
}

void PruneHeap::push(const Key& key) {
    keys_.push_back(key);
    std::size_t child = keys_.size() - 1;
    while (child > 0) {
        const std::size_t parent = (child - 1) / 2;
        if (!before(keys_[child], keys_[parent])) {
            break;
        }
        std::swap(keys_[child], keys_[parent]);
        child = parent;
    }
}

std::optional<PruneHeap::Key> PruneHeap::pop() {
    if (keys_.empty()) {
        return std::nullopt;
    }
    const Key front = keys_.front();
    keys_.front() = keys_.back();
    keys_.pop_back();
    std::size_t parent = 0;
    while (true) {
        const std::size_t left = 2 * parent + 1;
        const std::size_t right = left + 1;
        std::size_t first = parent;
        if (left < keys_.size() && before(keys_[left], keys_[first])) {
            first = left;
        }
        if (right < keys_.size() && before(keys_[right], keys_[first])) {
            first = right;
        }
        if (first == parent) {
            break;
        }
        std::swap(keys_[parent], keys_[first]);
        parent = first;
    }
    return front;
}

int64_t log2q(int64_t c) {
    const uint64_t x = static_cast<uint64_t>(c > 0 ? c : 0) + 1;
    const int integerPart = std::bit_width(x) - 1;
    // x as a mantissa in [1, 2) with 31 fractional bits.
    uint64_t mantissa = integerPart <= 31 ? x << (31 - integerPart) : x >> (integerPart - 31);
    int64_t fraction = 0;
    for (int round = 0; round < 8; ++round) {
        // The square lies in [1, 4) with 62 fractional bits; at 2 or more the next bit is 1.
        const uint64_t square = mantissa * mantissa;
        fraction <<= 1;
        if ((square >> 63) != 0) {
            fraction |= 1;
            mantissa = square >> 32;
        } else {
            mantissa = square >> 31;
        }
    }
    return (static_cast<int64_t>(integerPart) << 8) | fraction;
}

}  // namespace tessarin::engine::frames_internal
