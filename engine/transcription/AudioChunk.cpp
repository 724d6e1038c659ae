#include "engine/transcription/AudioChunk.hpp"

#include <algorithm>
#include <array>
#include <cmath>

namespace tessarin::engine {

std::vector<AudioChunk> AudioChunk::plan(std::optional<double> duration, double chunkSeconds,
                                         double overlapSeconds) {
    if (!duration || !std::isfinite(*duration) || *duration <= 0 || *duration > kMaximumDuration) {
        return {};
    }
    const double total = *duration;
    if (!(chunkSeconds > 0) || total <= chunkSeconds) {
        return {AudioChunk{0, 0, total}};
    }
    const double step = std::max(chunkSeconds - overlapSeconds, chunkSeconds / 2);
    std::vector<AudioChunk> chunks;
    double start = 0;
    while (start < total) {
        const double length = std::min(total - start, chunkSeconds);
        chunks.push_back(AudioChunk{static_cast<int>(chunks.size()), start, length});
        if (start + length >= total) {
            break;
        }
        start += step;
    }
    return chunks;
}

SpeechAudioPlan SpeechAudioPlan::of(std::string_view modelID, TranscriptionRoute route,
                                    const TranscriptionOptions& options) {
    static constexpr std::array<std::string_view, 3> kDedicated{
        "meta/muse-voice-transcribe-1.0", "microsoft/mai-transcribe-1.5", kMaiTranscribe2};
    const std::string id = lowercasedText(modelID);
    SpeechAudioPlan plan;
    plan.dedicated = route == TranscriptionRoute::stt &&
                     std::find(kDedicated.begin(), kDedicated.end(), id) != kDedicated.end();
    const bool mai2 = id == kMaiTranscribe2;
    if (mai2 && route == TranscriptionRoute::stt) {
        plan.codec = AudioExtractionCodec::flac;
        plan.format = "flac";
    } else if (plan.dedicated) {
        plan.codec = AudioExtractionCodec::pcmS16LE;
        plan.format = "wav";
    } else {
        plan.codec = AudioExtractionCodec::aac;
        plan.format = "m4a";
    }
    if (mai2) {
        plan.chunkSeconds = 30.0;
    } else if (plan.dedicated) {
        plan.chunkSeconds =
            options.format == TranscriptFormat::text && !options.speakers ? 300.0 : 60.0;
    } else {
        plan.chunkSeconds = 1200.0;
    }
    return plan;
}

std::string videoMimeType(std::string_view filename) {
    const std::size_t dot = filename.rfind('.');
    const std::string extension =
        dot == std::string_view::npos ? std::string() : lowercasedText(filename.substr(dot + 1));
    if (extension == "mov") {
        return "video/quicktime";
    }
    if (extension == "webm") {
        return "video/webm";
    }
    if (extension == "mkv") {
        return "video/x-matroska";
    }
    return "video/mp4";
}

}  // namespace tessarin::engine
