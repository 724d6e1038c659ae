// Where the sample writer puts what it decides to keep: one segment file being encoded. The
// GStreamer form is GstSegmentEncoder; the writer's rules are tested against a recording one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "engine/recording/capture/RecordingTarget.hpp"

namespace tessarin::engine {

enum class WriterTrack { video, system, microphone };

class SegmentEncoder {
public:
    virtual ~SegmentEncoder() = default;
    // Opens the file and starts the encoders. Throws std::runtime_error with the reason.
    virtual void begin() = 0;
    // Whether the track's encoder takes more now (false: it is behind).
    [[nodiscard]] virtual bool ready(WriterTrack track) const = 0;
    // Queues `sample` at `pts` nanoseconds of the file's timeline, lasting `duration`. False when
    // the encoder refused it.
    [[nodiscard]] virtual bool append(WriterTrack track, const MediaSample& sample, int64_t pts,
                                      int64_t duration) = 0;
    // The encoder's own failure since begin() (a write error such as a full drive), if any.
    [[nodiscard]] virtual std::optional<std::string> error() const = 0;
    // Ends every track and waits for the file to be complete. Throws std::runtime_error.
    virtual void finish() = 0;
};

}  // namespace tessarin::engine
