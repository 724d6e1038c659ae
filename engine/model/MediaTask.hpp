// What one conversion job does: exactly one of convert, join, extractAudio or fastCut.
#pragma once

#include <variant>
#include <vector>

#include "engine/model/AudioExtractionOptions.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::engine {

struct MediaTask {
    // Re-encode the whole source, or the preset's own trim.
    struct Convert {
        Preset preset;
        bool operator==(const Convert&) const = default;
    };
    // Re-encode several ranges of one source into one output, in the order given. `removing`
    // means the ranges name what to take out. Every range has a start and an end that parse to
    // finite values of at least zero, and there are 1 to 500 of them: the layer that builds the
    // task checks this.
    struct Join {
        Preset preset;
        std::vector<Trim> ranges;
        bool removing = false;
        bool operator==(const Join&) const = default;
    };
    struct ExtractAudio {
        AudioExtractionOptions options;
        bool operator==(const ExtractAudio&) const = default;
    };
    // Copy without re-encoding.
    struct FastCut {
        Trim trim;
        bool operator==(const FastCut&) const = default;
    };

    std::variant<Convert, Join, ExtractAudio, FastCut> kind;

    [[nodiscard]] static MediaTask convert(Preset preset) { return {Convert{std::move(preset)}}; }
    [[nodiscard]] static MediaTask join(Preset preset, std::vector<Trim> ranges, bool removing) {
        return {Join{std::move(preset), std::move(ranges), removing}};
    }
    [[nodiscard]] static MediaTask extractAudio(AudioExtractionOptions options) {
        return {ExtractAudio{std::move(options)}};
    }
    [[nodiscard]] static MediaTask fastCut(Trim trim) { return {FastCut{std::move(trim)}}; }

    bool operator==(const MediaTask&) const = default;
};

inline constexpr std::size_t kMaximumJoinRanges = 500;

}  // namespace tessarin::engine
