// A synthetic video for the frame selector: gray analysis grids with rectangles drawn in, fed at
// 25 frames per second, and readings of what the selector kept.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "engine/frames/FrameSelector.hpp"

namespace tessarin::engine::selector_test {

using testing::ElementsAre;
using Kind = FrameSelector::Failure::Kind;
using Selected = FrameSelectionResult::Selected;

constexpr double kRate = 25;
constexpr uint8_t kBackground = 80;

// A synthetic gray analysis grid: a background with rectangles drawn in.
struct Picture {
    int64_t width = 160;
    int64_t height = 90;
    std::vector<std::uint8_t> cells;

    explicit Picture(std::uint8_t background = kBackground, int64_t w = 160, int64_t h = 90)
        : width(w), height(h), cells(static_cast<std::size_t>(w * h), background) {}

    // Clipped to the picture.
    Picture& rectangle(int64_t x, int64_t y, int64_t w, int64_t h, std::uint8_t value) {
        for (int64_t row = std::max<int64_t>(y, 0); row < std::min(y + h, height); ++row) {
            for (int64_t column = std::max<int64_t>(x, 0); column < std::min(x + w, width);
                 ++column) {
                cells[static_cast<std::size_t>(row * width + column)] = value;
            }
        }
        return *this;
    }
};

inline double frameTime(int64_t index) {
    return static_cast<double>(index) / kRate;
}

inline ShowinfoFrame frameRecord(int64_t n, double time, int64_t width = 160, int64_t height = 90) {
    return {
        .n = n, .pts = n, .time = time, .duration = 1 / kRate, .width = width, .height = height};
}

using Video = std::function<Picture(int64_t index)>;

// Feeds frames `from` up to `to` (excluded) at 25 per second.
inline void feed(FrameSelector& selector, const Video& video, int64_t from, int64_t to) {
    for (int64_t i = from; i < to; ++i) {
        Picture picture = video(i);
        selector.consume(std::move(picture.cells),
                         frameRecord(i, frameTime(i), picture.width, picture.height));
    }
}

inline FrameSelector changesSelector(
    int64_t maxFrames = 20, int64_t memoryLimit = FrameSelector::kDefaultMemoryLimitBytes) {
    return FrameSelector(FrameAnalysisSettings{}, FrameSelectionMode::changes, maxFrames,
                         memoryLimit);
}

// Selects from `count` frames of `video`, a range as long as the frames.
inline FrameSelectionResult analyse(const Video& video, int64_t count, int64_t maxFrames = 20) {
    FrameSelector selector = changesSelector(maxFrames);
    feed(selector, video, 0, count);
    return selector.finish(frameTime(count), count, false);
}

// One field of every kept frame.
template <typename Field>
auto kept(const FrameSelectionResult& result, Field field) {
    std::vector<std::decay_t<decltype(std::invoke(field, result.frames.front()))>> list;
    for (const Selected& selected : result.frames) {
        list.push_back(std::invoke(field, selected));
    }
    return list;
}

inline std::vector<FrameReason> reasons(const FrameSelectionResult& result) {
    return kept(result, &Selected::reason);
}

inline std::vector<int64_t> frameNumbers(const FrameSelectionResult& result) {
    return kept(result, [](const Selected& selected) { return selected.frame.n; });
}

inline std::optional<Kind> failureOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const FrameSelector::Failure& failure) {
        return failure.kind();
    }
    return std::nullopt;
}

}  // namespace tessarin::engine::selector_test
