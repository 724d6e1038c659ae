#include "engine/model/AudioExtractionOptions.hpp"

namespace tessarin::engine {

std::string_view rawValue(AudioExtractionCodec codec) {
    switch (codec) {
        case AudioExtractionCodec::aac:
            return "aac";
        case AudioExtractionCodec::pcmS16LE:
            return "pcmS16LE";
        case AudioExtractionCodec::flac:
            return "flac";
    }
    return "aac";
}

std::optional<AudioExtractionCodec> audioExtractionCodecFromRawValue(std::string_view raw) {
    for (AudioExtractionCodec codec :
         {AudioExtractionCodec::aac, AudioExtractionCodec::pcmS16LE, AudioExtractionCodec::flac}) {
        if (rawValue(codec) == raw) {
            return codec;
        }
    }
    return std::nullopt;
}

OutputNaming AudioExtractionOptions::defaultNaming(AudioExtractionCodec codec) {
    switch (codec) {
        case AudioExtractionCodec::aac:
            return {"-audio", "m4a"};
        case AudioExtractionCodec::pcmS16LE:
            return {"-audio", "wav"};
        case AudioExtractionCodec::flac:
            return {"-audio", "flac"};
    }
    return {"-audio", "m4a"};
}

AudioExtractionOptions AudioExtractionOptions::make(AudioExtractionCodec codec, int bitrateKbps,
                                                    std::optional<int> sampleRate,
                                                    std::optional<int> channels, Trim trim,
                                                    std::optional<OutputNaming> naming) {
    AudioExtractionOptions options;
    options.codec = codec;
    options.bitrateKbps = bitrateKbps;
    options.sampleRate = sampleRate;
    options.channels = channels;
    options.trim = std::move(trim);
    options.naming = naming ? *naming : defaultNaming(codec);
    return options;
}

}  // namespace tessarin::engine
