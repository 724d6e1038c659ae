// One capture stream for one segment: the picture of the target (ximagesrc on X11, pipewiresrc
// through the ScreenCast portal on Wayland), system sound from the default output's monitor and
// the chosen microphone (pulsesrc), all on one pipeline clock, each ending in an appsink. The
// samples go to a RecordingSampleWriter on its own serial queue, which writes the segment file.
// A capture is started once and stopped once; a resume makes a new one with the same
// outputSize, so that the segments join without re-encoding.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "engine/recording/RecordingPreferences.hpp"
#include "engine/recording/capture/RecordingAudioMeter.hpp"
#include "engine/recording/capture/RecordingTarget.hpp"

namespace tessarin::engine {

struct RecordingCaptureRequest {
    RecordingTarget target;
    RecordingPreferences preferences;
    std::filesystem::path url;            // the segment file
    std::set<uint32_t> excludedWindowIDs;  // the application's own windows
    std::optional<RecordingSize> outputSize;  // given on resume
};

// What the session drives. start() and stop() block; call them from one thread at a time (the
// session's own), never from a sample or bus thread.
class RecordingCaptureControlling {
public:
    virtual ~RecordingCaptureControlling() = default;
    // Runs the stream and returns once the first frame is in the file. Throws RecordingError
    // (sourceUnavailable, outputExists) or std::runtime_error with the platform's sentence.
    virtual void start() = 0;
    // Ends the stream at the current time and finishes the file; the segment's length in
    // seconds. Throws RecordingError(timedOut) or std::runtime_error with the writer's sentence;
    // what was written stays either way.
    [[nodiscard]] virtual double stop() = 0;
    [[nodiscard]] virtual RecordingSize outputSize() const = 0;
    // Seconds of the current segment so far (0 before start). Any thread.
    [[nodiscard]] virtual double runningTime() const = 0;
    [[nodiscard]] virtual RecordingAudioLevels levels() const = 0;
    // Called at most once, from a capture thread, when the stream ends by itself (a window
    // closed, the capture failed, the writer failed); the message, when there is one, says why.
    virtual void setOnInterruption(std::function<void(std::optional<std::string>)> handler) = 0;
};

// The size a target of `content` pixels is written at: scaled down (never up) to fit
// `maximumDimension` on its longer side, rounded down to even numbers for the encoder.
[[nodiscard]] RecordingSize fittedRecordingSize(RecordingSize content, int64_t maximumDimension);

// The platform capture for `request`: X11 when $DISPLAY is set and $WAYLAND_DISPLAY is not,
// otherwise the ScreenCast portal.
[[nodiscard]] std::unique_ptr<RecordingCaptureControlling> makeRecordingCapture(
    RecordingCaptureRequest request);

}  // namespace tessarin::engine
