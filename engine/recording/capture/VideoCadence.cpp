#include "engine/recording/capture/VideoCadence.hpp"

namespace tessarin::engine {

namespace {

constexpr int64_t kNanoseconds = 1'000'000'000;

// Whether `gap` nanoseconds is less than (or at least) `units` 480ths of a second, exactly.
bool below(int64_t gap, int64_t units) { return gap * 480 < units * kNanoseconds; }

}  // namespace

VideoCadence::Output VideoCadence::emit(MediaSample frame) {
    int64_t pts = frame.pts;
    if (selects_ && lastOutputPTS_) {
        const int64_t step = kNanoseconds / 60;
        const int64_t expected = *lastOutputPTS_ + step;
        const int64_t distance = pts > expected ? pts - expected : expected - pts;
        if (distance * 480 <= 2 * kNanoseconds) {
            pts = expected;
        }
    }
    lastOutputPTS_ = pts;
    return {std::move(frame), pts};
}

std::vector<VideoCadence::Output> VideoCadence::push(MediaSample frame) {
    std::vector<Output> out;
    const std::optional<int64_t> previous = lastPTS_;
    lastPTS_ = frame.pts;
    if (!selects_ || !lastOutputPTS_ || !previous) {
        out.push_back(emit(std::move(frame)));
        return out;
    }
    const bool shortInterval = below(frame.pts - *previous, 6);
    if (shortInterval) {
        if (held_ && !below(frame.pts - *lastOutputPTS_, 11)) {
            out.push_back(emit(std::move(*held_)));
        }
        held_ = std::move(frame);
        return out;
    }
    held_.reset();  // a newer frame at a normal interval replaces it
    out.push_back(emit(std::move(frame)));
    return out;
}

std::optional<VideoCadence::Output> VideoCadence::flush(std::optional<int64_t> limit) {
    if (!held_) {
        return std::nullopt;
    }
    MediaSample frame = std::move(*held_);
    held_.reset();
    if (limit && frame.pts >= *limit) {
        return std::nullopt;
    }
    return emit(std::move(frame));
}

}  // namespace tessarin::engine
