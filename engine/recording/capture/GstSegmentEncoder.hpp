// The segment file itself: appsrc → x264enc → h264parse → mp4mux (fragments of one second, so a
// crash loses at most the last one) → filesink, and one appsrc → AAC encoder per audio source.
// The encoder runs on GStreamer's own streaming threads; a bus thread of ours watches errors.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "engine/recording/capture/SegmentEncoder.hpp"

namespace tessarin::engine {

struct SegmentEncoderSettings {
    std::filesystem::path url;
    RecordingSize size;
    int64_t framesPerSecond = 30;
    std::vector<AudioSource> audioSources;  // each one a track, in this order
};

// The encoder's own settings (x264enc) as gst-launch words, shared with the benchmark so that
// it compares like with like.
[[nodiscard]] std::string x264Settings(int64_t framesPerSecond);

class GstSegmentEncoder final : public SegmentEncoder {
public:
    // Frames queued for the encoder beyond which it counts as behind: two seconds of them.
    explicit GstSegmentEncoder(SegmentEncoderSettings settings);
    ~GstSegmentEncoder() override;

    void begin() override;
    [[nodiscard]] bool ready(WriterTrack track) const override;
    [[nodiscard]] bool append(WriterTrack track, const MediaSample& sample, int64_t pts,
                              int64_t duration) override;
    [[nodiscard]] std::optional<std::string> error() const override;
    void finish() override;

private:
    struct Pipeline;
    SegmentEncoderSettings settings_;
    std::unique_ptr<Pipeline> pipeline_;
};

// Initialises GStreamer once for the process. Any thread.
void ensureGStreamer();

}  // namespace tessarin::engine
