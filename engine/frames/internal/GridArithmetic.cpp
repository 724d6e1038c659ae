#include "engine/frames/internal/GridArithmetic.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace tessarin::engine::frames_internal {

namespace {

constexpr int64_t kLargest = std::numeric_limits<int64_t>::max();
constexpr int64_t kSmallest = std::numeric_limits<int64_t>::min();

std::span<const std::uint8_t> view(const GridBytes& bytes) {
    if (!bytes) {
        return {};
    }
    return {bytes->data(), bytes->size()};
}

// The half-open range of source rows (or columns) that output row `index` of `count` averages.
struct Block {
    int64_t begin;
    int64_t end;
};

Block sourceBlock(int64_t index, int64_t count, int64_t sourceLength) {
    const int64_t begin = index * sourceLength / count;
    return {begin, std::max((index + 1) * sourceLength / count, begin + 1)};
}

}  // namespace

int64_t capacityOf(const GridBytes& bytes) {
    return bytes ? static_cast<int64_t>(bytes->capacity()) : 0;
}

int64_t changedCells(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b,
                     int64_t cellDelta) {
    const int delta = static_cast<int>(std::clamp<int64_t>(cellDelta, 0, 255));
    const std::size_t length = std::min(a.size(), b.size());
    int64_t changed = 0;
    for (std::size_t i = 0; i < length; ++i) {
        const int difference = static_cast<int>(a[i]) - static_cast<int>(b[i]);
        changed += (difference > delta || -difference > delta) ? 1 : 0;
    }
    return changed;
}

int64_t changedCells(const GridBytes& a, const GridBytes& b, int64_t cellDelta) {
    return changedCells(view(a), view(b), cellDelta);
}

ThumbnailSize thumbnailSize(int64_t width, int64_t height, int64_t pruneLongEdge) {
    const int64_t longEdge = std::max(width, height);
    if (longEdge <= pruneLongEdge) {
        return {width, height};
    }
    const double scale = static_cast<double>(pruneLongEdge) / static_cast<double>(longEdge);
    const auto side = [scale](int64_t length) {
        return std::max<int64_t>(clampedInteger(std::round(static_cast<double>(length) * scale)),
                                 1);
    };
    return {side(width), side(height)};
}

GridBytes thumbnail(const GridBytes& grid, int64_t width, int64_t height, int64_t pruneLongEdge) {
    const ThumbnailSize size = thumbnailSize(width, height, pruneLongEdge);
    if (size.width == width && size.height == height) {
        return grid;
    }
    const std::span<const std::uint8_t> source = view(grid);
    std::vector<std::uint8_t> cells(static_cast<std::size_t>(size.width * size.height));
    for (int64_t y = 0; y < size.height; ++y) {
        const Block rows = sourceBlock(y, size.height, height);
        for (int64_t x = 0; x < size.width; ++x) {
            const Block columns = sourceBlock(x, size.width, width);
            int64_t sum = 0;
            for (int64_t row = rows.begin; row < rows.end; ++row) {
                for (int64_t column = columns.begin; column < columns.end; ++column) {
                    sum += source[static_cast<std::size_t>(row * width + column)];
                }
            }
            const int64_t count = (rows.end - rows.begin) * (columns.end - columns.begin);
            cells[static_cast<std::size_t>(y * size.width + x)] =
                static_cast<std::uint8_t>(sum / count);
        }
    }
    return std::make_shared<const std::vector<std::uint8_t>>(std::move(cells));
}

int64_t saturatingAdd(int64_t a, int64_t b) {
    int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b > 0 ? kLargest : kSmallest;
    }
    return sum;
}

int64_t saturatingMultiply(int64_t a, int64_t b) {
    int64_t product = 0;
    if (__builtin_mul_overflow(a, b, &product)) {
        return (a < 0) == (b < 0) ? kLargest : kSmallest;
    }
    return product;
}

int64_t clampedInteger(double value) {
    if (std::isnan(value)) {
        return 0;
    }
    // 2^63 is exactly representable; anything at or beyond it does not fit.
    constexpr double kLimit = 9223372036854775808.0;
    if (value >= kLimit) {
        return kLargest;
    }
    if (value <= -kLimit) {
        return kSmallest;
    }
    return static_cast<int64_t>(value);
}

}  // namespace tessarin::engine::frames_internal
