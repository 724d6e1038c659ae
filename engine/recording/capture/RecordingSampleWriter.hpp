// Turns one capture's samples into one segment file, keeping video, system audio and the
// microphone on the capture's clock. Nothing is written until a video frame proves that the
// stream runs: that frame's time becomes the file's epoch, audio that came before waits in a
// pre-roll of at most 255 samples a track, and only what ends after the epoch is kept. A 60
// frame-per-second take selects its frames through VideoCadence. After stop(time) no frame at or
// after that time is written, and audio that ends after it is ignored. The first failure is kept,
// reported once, and every later sample is ignored; what was written stays.
//
// Threads: not locked. Every call must come from the writer's own serial queue (the capture
// posts there), which is what confines its state. Callbacks run on that queue.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/recording/capture/RecordingAudioMeter.hpp"
#include "engine/recording/capture/SegmentEncoder.hpp"
#include "engine/recording/capture/VideoCadence.hpp"

namespace tessarin::engine {

class RecordingSampleWriter {
public:
    static constexpr std::size_t kPrerollLimit = 255;
    static constexpr int64_t kStopMargin = 200'000'000;  // 0.2 s for a track that went quiet

    struct Callbacks {
        std::function<void(int64_t epoch)> onStarted;
        std::function<void(const std::string& message)> onFailure;
    };

    RecordingSampleWriter(std::unique_ptr<SegmentEncoder> encoder, int64_t framesPerSecond,
                          std::vector<AudioSource> audioSources, Callbacks callbacks,
                          std::shared_ptr<RecordingAudioMeter> meter = nullptr);

    void appendVideo(MediaSample sample);
    // `level` is the buffer's peak in [0, 1], for the meter.
    void appendAudio(AudioSource source, MediaSample sample, double level);

    // The stop time (capture clock); from now on the drop rules at stop apply.
    void stop(int64_t stopTime);
    // Whether video and every audio track have a sample ending at or after the stop time; a
    // track silent since `now` - kStopMargin counts as arrived. False before stop().
    [[nodiscard]] bool reachedStop(int64_t now) const;

    // Writes the held frame if it belongs in, ends the file, and gives the duration in seconds
    // from the epoch to the end of the last frame. Throws std::runtime_error with the failure's
    // sentence (the first one stored, or the encoder's finish). Called once.
    [[nodiscard]] double finish(const std::string& endReason);

    [[nodiscard]] const std::optional<std::string>& failure() const { return failure_; }
    [[nodiscard]] std::optional<int64_t> epoch() const { return epoch_; }
    [[nodiscard]] int64_t videoSamples() const { return videoSamples_; }
    [[nodiscard]] int64_t ignoredVideoAfterStop() const { return ignoredVideoAfterStop_; }
    // The finish report: what ended the segment and what each track did.
    [[nodiscard]] nlohmann::json report() const { return report_; }

private:
    struct AudioTrack {
        WriterTrack track = WriterTrack::system;
        std::optional<int64_t> firstPTS, lastPTS, lastEnd, lastAcceptedEnd;
        std::vector<MediaSample> preroll;
        int64_t buffers = 0;
        int64_t ignoredAfterStop = 0;
        int64_t lastArrival = 0;
    };

    void fail(const std::string& message);
    void startTimeline();
    void writeVideo(const VideoCadence::Output& frame);
    void writeAudio(AudioTrack& track, const MediaSample& sample);

    std::unique_ptr<SegmentEncoder> encoder_;
    int64_t frameDuration_;
    Callbacks callbacks_;
    std::shared_ptr<RecordingAudioMeter> meter_;
    VideoCadence cadence_;
    std::map<AudioSource, AudioTrack> audio_;
    std::optional<int64_t> pendingEpoch_, epoch_, stopTime_;
    std::optional<int64_t> lastVideoPTS_, lastVideoEnd_, terminalVideoPTS_, lastVideoArrival_;
    bool startAcknowledged_ = false;
    bool writerFinalizationStarted_ = false;
    std::optional<std::string> failure_;
    int64_t videoSamples_ = 0;
    int64_t ignoredVideoAfterStop_ = 0;
    nlohmann::json report_;
};

}  // namespace tessarin::engine
