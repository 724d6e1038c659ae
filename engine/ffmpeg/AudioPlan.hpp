// What an encode does with the source's first audio track.
#pragma once

#include <optional>
#include <string>

namespace tessarin::engine {

// none: the source has no audio, so the output has none. copy: the source's audio is AAC and
// may go into an MP4 as it stands. transcodeAAC: any other or unknown audio codec. WebM only
// asks whether there is audio at all; it always re-encodes.
struct AudioPlan {
    enum class Mode { none, copy, transcodeAAC };
    Mode mode = Mode::none;

    // The plan for what the probe saw: whether an audio stream exists and, if so, the
    // codec_name of the first one.
    [[nodiscard]] static AudioPlan forSource(bool hasAudio,
                                             const std::optional<std::string>& audioCodec) {
        if (!hasAudio) {
            return {Mode::none};
        }
        return {audioCodec == "aac" ? Mode::copy : Mode::transcodeAAC};
    }

    [[nodiscard]] bool hasAudio() const { return mode != Mode::none; }
    bool operator==(const AudioPlan&) const = default;
};

}  // namespace tessarin::engine
