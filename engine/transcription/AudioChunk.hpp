// How speech audio is prepared for a model and cut into overlapping chunks. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/model/AudioExtractionOptions.hpp"
#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/TranscriptionOptions.hpp"

namespace tessarin::engine {

// One piece of the prepared audio, times relative to it (it begins at the trim's start).
struct AudioChunk {
    int index = 0;
    double start = 0;
    double duration = 0;

    [[nodiscard]] double end() const { return start + duration; }
    bool operator==(const AudioChunk&) const = default;

    static constexpr double kMaximumDuration = 86'400.0;

    // Chunks of `chunkSeconds` that overlap by `overlapSeconds` over `duration`: empty for an
    // unknown, non-positive or over-long duration; one chunk when it fits in one; otherwise steps
    // of chunk minus overlap (never below half a chunk), the last one cut at the end.
    [[nodiscard]] static std::vector<AudioChunk> plan(std::optional<double> duration,
                                                      double chunkSeconds, double overlapSeconds);
};

// The audio a model is sent and how long each chunk is.
struct SpeechAudioPlan {
    bool dedicated = false;  // a dedicated speech model (whole audio extracted and measured first)
    AudioExtractionCodec codec = AudioExtractionCodec::aac;
    std::string format;  // the body's audio format: "m4a", "wav" or "flac"
    double chunkSeconds = 1200.0;

    static constexpr double kOverlapSeconds = 2.0;

    [[nodiscard]] static SpeechAudioPlan of(std::string_view modelID, TranscriptionRoute route,
                                            const TranscriptionOptions& options);
};

// The MIME type a whole video is sent as, from its extension.
[[nodiscard]] std::string videoMimeType(std::string_view filename);

}  // namespace tessarin::engine
