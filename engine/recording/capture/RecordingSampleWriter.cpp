#include "engine/recording/capture/RecordingSampleWriter.hpp"

#include <stdexcept>

namespace tessarin::engine {

namespace {

constexpr int64_t kNanoseconds = 1'000'000'000;

const char* sourceName(AudioSource source) {
    return source == AudioSource::system ? "system" : "microphone";
}

nlohmann::json optionalTime(const std::optional<int64_t>& value) {
    return value ? nlohmann::json(static_cast<double>(*value) / kNanoseconds) : nlohmann::json();
}

}  // namespace

RecordingSampleWriter::RecordingSampleWriter(std::unique_ptr<SegmentEncoder> encoder,
                                             int64_t framesPerSecond,
                                             std::vector<AudioSource> audioSources,
                                             Callbacks callbacks,
                                             std::shared_ptr<RecordingAudioMeter> meter)
    : encoder_(std::move(encoder)),
      frameDuration_(kNanoseconds / (framesPerSecond > 0 ? framesPerSecond : 30)),
      callbacks_(std::move(callbacks)),
      meter_(std::move(meter)),
      cadence_(framesPerSecond == 60) {
    for (const AudioSource source : audioSources) {
        AudioTrack track;
        track.track = source == AudioSource::system ? WriterTrack::system : WriterTrack::microphone;
        audio_.emplace(source, std::move(track));
    }
}

void RecordingSampleWriter::fail(const std::string& message) {
    if (failure_) {
        return;
    }
    failure_ = message;
    if (callbacks_.onFailure) {
        callbacks_.onFailure(message);
    }
}

void RecordingSampleWriter::startTimeline() {
    try {
        encoder_->begin();
    } catch (const std::exception& error) {
        const std::string reason = error.what();
        fail(reason.empty() ? "Sample writer startup failed." : reason);
        return;
    }
    epoch_ = pendingEpoch_;
    for (auto& [source, track] : audio_) {
        std::vector<MediaSample> waiting = std::move(track.preroll);
        track.preroll.clear();
        for (const MediaSample& sample : waiting) {
            if (sample.pts + sample.duration > *epoch_) {
                writeAudio(track, sample);
            }
        }
    }
    if (!failure_ && callbacks_.onStarted && !startAcknowledged_) {
        startAcknowledged_ = true;
        callbacks_.onStarted(*epoch_);
    }
}

void RecordingSampleWriter::appendVideo(MediaSample sample) {
    if (failure_ || !sample.payload || writerFinalizationStarted_) {
        return;
    }
    lastVideoArrival_ = sample.pts + sample.duration;
    if (stopTime_ && sample.pts >= *stopTime_) {
        ++ignoredVideoAfterStop_;
        if (!terminalVideoPTS_) {
            terminalVideoPTS_ = sample.pts;
        }
        return;
    }
    if (!epoch_) {
        pendingEpoch_ = sample.pts;
        startTimeline();
        if (failure_) {
            return;
        }
    }
    for (const VideoCadence::Output& frame : cadence_.push(std::move(sample))) {
        writeVideo(frame);
    }
}

void RecordingSampleWriter::writeVideo(const VideoCadence::Output& frame) {
    if (failure_) {
        return;
    }
    if (const auto trouble = encoder_->error()) {
        fail("Recording stopped because the recording file could not be written (" + *trouble +
             "). Captured parts have been kept.");
        return;
    }
    if (!encoder_->ready(WriterTrack::video)) {
        fail("Recording stopped because the encoder could not keep up. Captured parts have been "
             "kept.");
        return;
    }
    if (frame.pts < *epoch_) {
        fail("Could not time a recorded frame.");
        return;
    }
    if (!encoder_->append(WriterTrack::video, frame.sample, frame.pts - *epoch_, frameDuration_)) {
        fail("The sample writer rejected a captured buffer.");
        return;
    }
    lastVideoPTS_ = frame.pts;
    lastVideoEnd_ = frame.pts + frameDuration_;
    ++videoSamples_;
}

void RecordingSampleWriter::appendAudio(AudioSource source, MediaSample sample, double level) {
    const auto found = audio_.find(source);
    if (failure_ || found == audio_.end() || writerFinalizationStarted_) {
        return;
    }
    AudioTrack& track = found->second;
    if (sample.pts < 0 || sample.duration <= 0) {
        fail(sample.duration == 0
                 ? "The sample writer could not determine the captured audio duration."
                 : "The sample writer received invalid audio timing.");
        return;
    }
    if (meter_) {
        meter_->store(source, level, static_cast<double>(sample.pts) / kNanoseconds);
    }
    const int64_t end = sample.pts + sample.duration;
    if (track.lastEnd && end <= *track.lastEnd) {
        fail("Recording stopped because captured audio timestamps did not increase.");
        return;
    }
    track.lastEnd = end;
    track.lastPTS = sample.pts;
    if (!track.firstPTS) {
        track.firstPTS = sample.pts;
    }
    ++track.buffers;
    if (stopTime_ && sample.pts >= *stopTime_) {
        ++track.ignoredAfterStop;
        return;
    }
    if (!epoch_) {
        if (track.preroll.size() >= kPrerollLimit) {
            fail("Recording audio pre-roll filled before capture could start.");
            return;
        }
        track.preroll.push_back(std::move(sample));
        return;
    }
    if (end <= *epoch_) {
        return;
    }
    writeAudio(track, sample);
}

void RecordingSampleWriter::writeAudio(AudioTrack& track, const MediaSample& sample) {
    if (failure_) {
        return;
    }
    if (!encoder_->ready(track.track)) {
        fail("Recording stopped because the encoder could not keep up. Captured parts have been "
             "kept.");
        return;
    }
    // A sample that overlaps the epoch is kept whole; the file's clock begins at its start.
    const int64_t pts = sample.pts > *epoch_ ? sample.pts - *epoch_ : 0;
    if (!encoder_->append(track.track, sample, pts, sample.duration)) {
        fail("The sample writer rejected a captured buffer.");
        return;
    }
    track.lastAcceptedEnd = sample.pts + sample.duration;
}

void RecordingSampleWriter::stop(int64_t stopTime) {
    if (!stopTime_) {
        stopTime_ = stopTime;
    }
}

bool RecordingSampleWriter::reachedStop(int64_t now) const {
    if (!stopTime_) {
        return false;
    }
    const auto arrived = [&](const std::optional<int64_t>& end) {
        return !end || *end >= *stopTime_ || *end + kStopMargin <= now;
    };
    if (!arrived(lastVideoArrival_) && !terminalVideoPTS_) {
        return false;
    }
    for (const auto& [source, track] : audio_) {
        if (!arrived(track.lastEnd)) {
            return false;
        }
    }
    return true;
}

double RecordingSampleWriter::finish(const std::string& endReason) {
    if (writerFinalizationStarted_) {
        throw std::logic_error("RecordingSampleWriter::finish called twice");
    }
    if (!failure_ && epoch_) {
        if (auto held = cadence_.flush(stopTime_)) {
            writeVideo(*held);
        }
    }
    writerFinalizationStarted_ = true;
    std::optional<std::string> error = failure_;
    if (epoch_) {
        try {
            encoder_->finish();
        } catch (const std::exception&) {
            if (!error) {
                error = "Sample writer finalization failed.";
            }
        }
    } else if (!error) {
        error = "The recording has no playable video. Any captured files have been kept for "
                "recovery.";
    }

    report_ = nlohmann::json{{"endReason", endReason},
                             {"result", error ? "failed" : "finished"},
                             {"error", error ? nlohmann::json(*error) : nlohmann::json()},
                             {"startPTS", optionalTime(epoch_)},
                             {"stopPTS", optionalTime(stopTime_)},
                             {"terminalVideoPTS", optionalTime(terminalVideoPTS_)},
                             {"ignoredVideoAfterStop", ignoredVideoAfterStop_},
                             {"videoSamples", videoSamples_}};
    nlohmann::json tracks = nlohmann::json::object();
    int64_t ignoredAudio = 0;
    for (const auto& [source, track] : audio_) {
        ignoredAudio += track.ignoredAfterStop;
        tracks[sourceName(source)] = {{"firstPTS", optionalTime(track.firstPTS)},
                                      {"lastRawEndPTS", optionalTime(track.lastEnd)},
                                      {"lastAcceptedEndPTS", optionalTime(track.lastAcceptedEnd)},
                                      {"ignoredAfterStop", track.ignoredAfterStop},
                                      {"buffers", track.buffers}};
    }
    report_["ignoredAudioAfterStop"] = ignoredAudio;
    report_["audioTracks"] = tracks;
    if (error) {
        throw std::runtime_error(*error);
    }
    return static_cast<double>(lastVideoEnd_.value_or(*epoch_) - *epoch_) / kNanoseconds;
}

}  // namespace tessarin::engine
