#include "engine/model/Preset.hpp"

#include <array>

namespace tessarin::engine {

std::optional<std::string> Scale::filter(bool evenDimensions) const {
    const int evenValue = value & ~1;
    switch (kind) {
        case Kind::fitWidth:
            return "scale=" + std::to_string(evenDimensions ? evenValue : value) + ":-2";
        case Kind::fitHeight:
            return "scale=-2:" + std::to_string(evenDimensions ? evenValue : value);
        case Kind::original:
            return std::nullopt;
        case Kind::half:
            return evenDimensions ? "scale=trunc(iw/4)*2:-2" : "scale=iw/2:-2";
        case Kind::third:
            return evenDimensions ? "scale=trunc(iw/6)*2:-2" : "scale=iw/3:-2";
    }
    return std::nullopt;
}

namespace {

Preset makePreset(std::string id, std::string displayName, OutputFormat format, Scale scale,
                  std::optional<int> fps, std::optional<int> crf, std::string dither,
                  GifLossy lossy, std::string suffix, std::string extension) {
    ConversionOptions options;
    options.format = format;
    options.scale = scale;
    options.fps = fps;
    options.crf = crf;
    options.preset = "medium";
    options.dither = std::move(dither);
    options.lossy = lossy;
    options.optimizeGif = true;
    return Preset{std::move(id), std::move(displayName), options, std::move(suffix),
                  std::move(extension)};
}

const std::array<Preset, 10>& table() {
    using V = VideoCodec;
    static const std::array<Preset, 10> presets = {
        makePreset("mp4-h264", "MP4 · Compatible (H.264)", OutputFormat::mp4(V::h264),
                   Scale::original(), {}, 33, "sierra2_4a", GifLossy::off(), "-h264_crf33", "mp4"),
        makePreset("mp4-h264-half", "MP4 · Compatible (H.264, ½ size)", OutputFormat::mp4(V::h264),
                   Scale::half(), {}, 29, "sierra2_4a", GifLossy::off(), "-h264_half_size_crf29",
                   "mp4"),
        makePreset("mp4-h265", "MP4 · Smaller (H.265)", OutputFormat::mp4(V::h265),
                   Scale::original(), {}, 35, "sierra2_4a", GifLossy::off(), "-h265_crf35", "mp4"),
        makePreset("mp4-h265-half", "MP4 · Smaller (H.265, ½ size)", OutputFormat::mp4(V::h265),
                   Scale::half(), {}, 31, "sierra2_4a", GifLossy::off(), "-h265_half_size_crf31",
                   "mp4"),
        makePreset("gif-small", "GIF · Small (⅓ size)", OutputFormat::gif(), Scale::third(), 6, {},
                   "bayer", GifLossy::defaultLossiness(), "-third_size", "gif"),
        makePreset("gif-full", "GIF · Full size", OutputFormat::gif(), Scale::original(), 10, {},
                   "sierra2_4a", GifLossy::off(), "-full_size", "gif"),
        makePreset("mp4-av1", "MP4 · Smallest (AV1)", OutputFormat::mp4(V::av1), Scale::original(),
                   {}, {}, "sierra2_4a", GifLossy::off(), "-av1_crf32", "mp4"),
        makePreset("webm-vp9", "WebM · Efficient (VP9)", OutputFormat::webm(V::vp9),
                   Scale::original(), {}, 33, "sierra2_4a", GifLossy::off(), "-vp9_crf33", "webm"),
        makePreset("mp4-h264-vt", "MP4 · Fast (H.264 hardware)", OutputFormat::mp4(V::h264VT),
                   Scale::original(), {}, {}, "sierra2_4a", GifLossy::off(), "-h264_vt_q50", "mp4"),
        makePreset("mp4-h265-vt", "MP4 · Fast (H.265 hardware)", OutputFormat::mp4(V::hevcVT),
                   Scale::original(), {}, {}, "sierra2_4a", GifLossy::off(), "-h265_vt_q50", "mp4"),
    };
    return presets;
}

}  // namespace

std::span<const Preset> Preset::builtins() {
    return table();
}

const Preset* Preset::builtin(std::string_view id) {
    for (const Preset& preset : table()) {
        if (preset.id == id) {
            return &preset;
        }
    }
    return nullptr;
}

const Preset& Preset::mp4H264() {
    return table()[0];
}
const Preset& Preset::mp4H264Half() {
    return table()[1];
}
const Preset& Preset::mp4H265() {
    return table()[2];
}
const Preset& Preset::mp4H265Half() {
    return table()[3];
}
const Preset& Preset::gifSmall() {
    return table()[4];
}
const Preset& Preset::gifFull() {
    return table()[5];
}
const Preset& Preset::mp4AV1() {
    return table()[6];
}
const Preset& Preset::webmVP9() {
    return table()[7];
}
const Preset& Preset::mp4H264Hardware() {
    return table()[8];
}
const Preset& Preset::mp4H265Hardware() {
    return table()[9];
}

}  // namespace tessarin::engine
