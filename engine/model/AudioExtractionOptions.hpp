// What an audio extraction writes: codec, rate, channels, range and naming.
#pragma once

#include <optional>
#include <string_view>

#include "engine/model/Preset.hpp"

namespace tessarin::engine {

enum class AudioExtractionCodec { aac, pcmS16LE, flac };

[[nodiscard]] std::string_view rawValue(AudioExtractionCodec codec);
[[nodiscard]] std::optional<AudioExtractionCodec> audioExtractionCodecFromRawValue(
    std::string_view raw);

struct AudioExtractionOptions {
    AudioExtractionCodec codec = AudioExtractionCodec::aac;
    int bitrateKbps = 192;  // aac only
    std::optional<int> sampleRate;
    std::optional<int> channels;
    Trim trim;
    OutputNaming naming = defaultNaming(AudioExtractionCodec::aac);

    // "-audio" and the codec's extension: m4a, wav or flac.
    [[nodiscard]] static OutputNaming defaultNaming(AudioExtractionCodec codec);

    // Options whose naming follows the codec unless one is given.
    [[nodiscard]] static AudioExtractionOptions make(AudioExtractionCodec codec, int bitrateKbps,
                                                     std::optional<int> sampleRate = std::nullopt,
                                                     std::optional<int> channels = std::nullopt,
                                                     Trim trim = {},
                                                     std::optional<OutputNaming> naming = {});

    bool operator==(const AudioExtractionOptions&) const = default;
};

}  // namespace tessarin::engine
