// What a take records: a whole display, one window, or an area of a display, and the capture's
// sample vocabulary shared by the capture, the writer and the session.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tessarin::engine {

enum class RecordingMode { display, window, app, area };

struct RecordingRect {
    int64_t x = 0;
    int64_t y = 0;
    int64_t width = 0;
    int64_t height = 0;
    bool operator==(const RecordingRect&) const = default;
};

struct RecordingTarget {
    RecordingMode mode = RecordingMode::display;
    uint32_t displayID = 0;                 // index of the RandR monitor
    std::optional<uint32_t> windowID;       // X11 window id in window mode
    std::optional<int32_t> applicationPID;  // _NET_WM_PID of the window, when known
    std::optional<RecordingRect> area;      // root-window pixels in area mode
    std::string title;
    bool operator==(const RecordingTarget&) const = default;
};

struct RecordingSize {
    int64_t width = 0;
    int64_t height = 0;
    bool operator==(const RecordingSize&) const = default;
};

enum class AudioSource { system, microphone };

// One captured buffer. Times are nanoseconds of the capture's running clock, which all of a
// capture's streams share. `payload` keeps the platform's buffer alive and is opaque here.
struct MediaSample {
    int64_t pts = 0;
    int64_t duration = 0;
    std::shared_ptr<void> payload;
};

[[nodiscard]] const char* recordingModeName(RecordingMode mode);

}  // namespace tessarin::engine
