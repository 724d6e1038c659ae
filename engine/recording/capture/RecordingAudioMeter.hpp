// The latest audio levels of a running capture: written from the sample path, read by the
// interface. Its lock is held only to copy two numbers.
#pragma once

#include <mutex>

#include "engine/recording/capture/RecordingTarget.hpp"

namespace tessarin::engine {

struct RecordingAudioLevels {
    double system = 0;
    double microphone = 0;
};

class RecordingAudioMeter {
public:
    void store(AudioSource source, double level, double time) {
        const std::lock_guard lock(mutex_);
        (source == AudioSource::system ? levels_.system : levels_.microphone) = level;
        (source == AudioSource::system ? systemTime_ : microphoneTime_) = time;
    }
    [[nodiscard]] RecordingAudioLevels levels() const {
        const std::lock_guard lock(mutex_);
        return levels_;
    }

private:
    mutable std::mutex mutex_;
    RecordingAudioLevels levels_;
    double systemTime_ = 0;
    double microphoneTime_ = 0;
};

}  // namespace tessarin::engine
