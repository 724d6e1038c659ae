// The byte arithmetic of frame selection: comparing two gray grids, shrinking a grid to the
// thumbnail kept for pruning, and the saturating integer helpers of the memory account.
// Pure functions: any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace tessarin::engine::frames_internal {

// A gray grid, one byte a cell, row by row. Shared, because the same bytes often serve as the
// previous grid, the reference and a thumbnail at once.
using GridBytes = std::shared_ptr<const std::vector<std::uint8_t>>;

// The capacity of `bytes`, 0 for none.
[[nodiscard]] int64_t capacityOf(const GridBytes& bytes);

// The number of positions at which the two grids differ by more than `cellDelta`, which is held
// to 0 through 255. The grids are of equal length by construction; only the common length is
// compared.
[[nodiscard]] int64_t changedCells(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b,
                                   int64_t cellDelta);
[[nodiscard]] int64_t changedCells(const GridBytes& a, const GridBytes& b, int64_t cellDelta);

struct ThumbnailSize {
    int64_t width = 0;
    int64_t height = 0;

    bool operator==(const ThumbnailSize&) const = default;
};

// The size of the thumbnail of a `width` by `height` grid: the grid's own size when its long
// edge is at most `pruneLongEdge`, otherwise scaled to that long edge, each side rounded to
// nearest (halves away from zero) and at least 1.
[[nodiscard]] ThumbnailSize thumbnailSize(int64_t width, int64_t height, int64_t pruneLongEdge);

// The thumbnail of `grid`: the very same bytes when no scaling is needed, otherwise an exact
// integer box filter (each cell the truncated mean of its source block).
[[nodiscard]] GridBytes thumbnail(const GridBytes& grid, int64_t width, int64_t height,
                                  int64_t pruneLongEdge);

// Arithmetic that sticks at the largest 64-bit integer instead of overflowing.
[[nodiscard]] int64_t saturatingAdd(int64_t a, int64_t b);
[[nodiscard]] int64_t saturatingMultiply(int64_t a, int64_t b);

// `value` truncated to an integer, held to the 64-bit range; NaN gives 0.
[[nodiscard]] int64_t clampedInteger(double value);

}  // namespace tessarin::engine::frames_internal
