#include "engine/frames/internal/FramePruning.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

#include "engine/frames/internal/GridArithmetic.hpp"
#include "engine/frames/internal/PruneHeap.hpp"

namespace tessarin::engine::frames_internal {

namespace {

constexpr double kMicroLimit = 4e18;

// Microseconds, held well inside the 64-bit range so that differences can't overflow.
int64_t microseconds(double seconds) {
    const double value = seconds * 1e6;
    if (!std::isfinite(value)) {
        return 0;
    }
    return clampedInteger(std::round(std::clamp(value, -kMicroLimit, kMicroLimit)));
}

class Pruning {
public:
    Pruning(std::span<const PruneEntry> entries, int64_t maxFrames, double pruneGapFactor,
            int64_t cellDelta)
        : entries_(entries),
          cellDelta_(cellDelta),
          count_(entries.size()),
          micro_(count_),
          cells_(count_, 0),
          version_(count_, 0),
          previous_(count_),
          next_(count_),
          kept_(count_, true) {
        for (std::size_t i = 0; i < count_; ++i) {
            micro_[i] = microseconds(entries[i].time);
            previous_[i] = i == 0 ? 0 : i - 1;
            next_[i] = i + 1 < count_ ? i + 1 : i;
        }
        const double gap = static_cast<double>(micro_.back() - micro_.front()) /
                           static_cast<double>(std::max<int64_t>(maxFrames - 1, 1)) *
                           pruneGapFactor;
        gapLimit_ = std::isfinite(gap) && gap <= kMicroLimit ? clampedInteger(gap)
                                                             : std::numeric_limits<int64_t>::max();
    }

    std::vector<bool> run(int64_t maxFrames) {
        for (std::size_t i = 1; i + 1 < count_; ++i) {
            cells_[i] = changedCells(entries_[i].thumbnail, entries_[i - 1].thumbnail, cellDelta_);
            heap_.push(keyOf(i));
        }
        auto remaining = static_cast<int64_t>(count_);
        while (remaining > maxFrames) {
            std::optional<PruneHeap::Key> key = heap_.pop();
            while (key && !isCurrent(*key)) {
                key = heap_.pop();
            }
            if (!key) {
                break;
            }
            remove(static_cast<std::size_t>(key->index));
            --remaining;
        }
        return kept_;
    }

private:
    [[nodiscard]] bool isCurrent(const PruneHeap::Key& key) const {
        const auto i = static_cast<std::size_t>(key.index);
        return kept_[i] && key.version == version_[i];
    }

    [[nodiscard]] PruneHeap::Key keyOf(std::size_t i) const {
        const int64_t span = micro_[next_[i]] - micro_[i];
        return {.tier = entries_[i].tier,
                .opensGap = micro_[next_[i]] - micro_[previous_[i]] > gapLimit_,
                .cost = saturatingMultiply(log2q(cells_[i]), span),
                .index = static_cast<int64_t>(i),
                .version = version_[i]};
    }

    void remove(std::size_t i) {
        kept_[i] = false;
        const std::size_t p = previous_[i];
        const std::size_t q = next_[i];
        next_[p] = q;
        previous_[q] = p;
        // p keeps its predecessor, so its cells stand; only its span has grown.
        if (p != 0) {
            ++version_[p];
            heap_.push(keyOf(p));
        }
        // q now follows p, so its change is measured against p.
        if (q != count_ - 1) {
            ++version_[q];
            cells_[q] = changedCells(entries_[q].thumbnail, entries_[p].thumbnail, cellDelta_);
            heap_.push(keyOf(q));
        }
    }

    std::span<const PruneEntry> entries_;
    int64_t cellDelta_;
    std::size_t count_;
    std::vector<int64_t> micro_;
    std::vector<int64_t> cells_;
    std::vector<int64_t> version_;
    std::vector<std::size_t> previous_;
    std::vector<std::size_t> next_;
    std::vector<bool> kept_;
    int64_t gapLimit_ = 0;
    PruneHeap heap_;
};

}  // namespace

std::vector<bool> pruneToBudget(std::span<const PruneEntry> entries, int64_t maxFrames,
                                double pruneGapFactor, int64_t cellDelta) {
    if (static_cast<int64_t>(entries.size()) <= maxFrames || entries.size() < 3) {
        return std::vector<bool>(entries.size(), true);
    }
    return Pruning(entries, maxFrames, pruneGapFactor, cellDelta).run(maxFrames);
}

}  // namespace tessarin::engine::frames_internal
