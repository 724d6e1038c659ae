// Frame selection for a 60 frame-per-second take: the screen may deliver frames faster than the
// take's rate, or unevenly. Intervals are counted in 480ths of a second. A frame that follows
// the previous one by less than 6/480 s is held rather than written; the held frame is written
// (and the newest one held instead) once the gap from the last written frame reaches 11/480 s.
// Written times within 2/480 s of the last written time plus 1/60 s are snapped onto it, so a
// steady stream has exactly even frames. A take of any other rate passes every frame unchanged.
//
// Pure value logic; the writer's queue owns it.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "engine/recording/capture/RecordingTarget.hpp"

namespace tessarin::engine {

class VideoCadence {
public:
    explicit VideoCadence(bool selects) : selects_(selects) {}

    struct Output {
        MediaSample sample;
        int64_t pts = 0;  // the time to write it at (snapped), in the sample's clock
    };

    // The frames to write now, oldest first (none, one, or the released held frame and this).
    [[nodiscard]] std::vector<Output> push(MediaSample frame);
    // The held frame, if any, once no newer frame will come; it is written only before `limit`.
    [[nodiscard]] std::optional<Output> flush(std::optional<int64_t> limit);

    [[nodiscard]] bool selects() const { return selects_; }
    [[nodiscard]] bool holding() const { return held_.has_value(); }

private:
    Output emit(MediaSample frame);

    bool selects_;
    std::optional<int64_t> lastPTS_;        // cadenceLastPTS
    std::optional<int64_t> lastOutputPTS_;  // cadenceLastOutputPTS
    std::optional<MediaSample> held_;       // cadenceHeld
};

}  // namespace tessarin::engine
