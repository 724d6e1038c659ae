// Presets and the conversion options they are made of. Plain values, compared by value.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <variant>

#include "engine/model/VideoCodec.hpp"

namespace tessarin::engine {

// mp4(codec), webm(codec) or gif. Equal when the kind and, where present, the codec are equal.
struct OutputFormat {
    enum class Kind { mp4, webm, gif };
    Kind kind = Kind::mp4;
    VideoCodec codec = VideoCodec::h264;  // meaningless for gif

    [[nodiscard]] static OutputFormat mp4(VideoCodec codec) { return {Kind::mp4, codec}; }
    [[nodiscard]] static OutputFormat webm(VideoCodec codec) { return {Kind::webm, codec}; }
    [[nodiscard]] static OutputFormat gif() { return {Kind::gif, VideoCodec::h264}; }

    [[nodiscard]] bool isGif() const { return kind == Kind::gif; }
    // The codec for mp4 and webm, nothing for gif.
    [[nodiscard]] std::optional<VideoCodec> videoCodec() const {
        return isGif() ? std::nullopt : std::optional(codec);
    }
    friend bool operator==(const OutputFormat& a, const OutputFormat& b) {
        return a.kind == b.kind && (a.kind == Kind::gif || a.codec == b.codec);
    }
};

// fitWidth(n), fitHeight(n), original, half, third.
struct Scale {
    enum class Kind { fitWidth, fitHeight, original, half, third };
    Kind kind = Kind::original;
    int value = 0;  // the n of fitWidth and fitHeight, 0 otherwise

    [[nodiscard]] static Scale fitWidth(int n) { return {Kind::fitWidth, n}; }
    [[nodiscard]] static Scale fitHeight(int n) { return {Kind::fitHeight, n}; }
    [[nodiscard]] static Scale original() { return {Kind::original, 0}; }
    [[nodiscard]] static Scale half() { return {Kind::half, 0}; }
    [[nodiscard]] static Scale third() { return {Kind::third, 0}; }

    // The ffmpeg scale filter, or nothing for `original`. With evenDimensions (every format
    // but GIF) an odd requested size is rounded down by one, because the encoders need even sizes.
    [[nodiscard]] std::optional<std::string> filter(bool evenDimensions) const;

    bool operator==(const Scale&) const = default;
};

// One range as the user typed it; the texts go to ffmpeg unchanged.
struct Trim {
    std::optional<std::string> start;
    std::optional<std::string> end;

    [[nodiscard]] bool isEmpty() const { return !start && !end; }
    bool operator==(const Trim&) const = default;
};

// level(n) -> "--lossy=n", defaultLevel -> "--lossy", off -> neither.
struct GifLossy {
    enum class Kind { level, off, defaultLevel };
    Kind kind = Kind::off;
    int level = 0;

    [[nodiscard]] static GifLossy atLevel(int n) { return {Kind::level, n}; }
    [[nodiscard]] static GifLossy off() { return {Kind::off, 0}; }
    [[nodiscard]] static GifLossy defaultLossiness() { return {Kind::defaultLevel, 0}; }

    friend bool operator==(const GifLossy& a, const GifLossy& b) {
        return a.kind == b.kind && (a.kind != Kind::level || a.level == b.level);
    }
};

struct ConversionOptions {
    OutputFormat format;
    Scale scale;
    std::optional<int> fps;         // absent: the source's rate, or 10 for GIF
    std::optional<int> crf;         // absent: the codec's default quality; ignored for GIF
    std::string preset = "medium";  // libx264/libx265 speed preset
    Trim trim;
    std::string dither = "sierra2_4a";  // paletteuse dither, GIF only
    GifLossy lossy;
    bool optimizeGif = true;

    bool operator==(const ConversionOptions&) const = default;
};

struct Preset {
    std::string id;
    std::string displayName;
    ConversionOptions options;
    std::string filenameSuffix;
    std::string fileExtension;  // no leading point

    bool operator==(const Preset&) const = default;

    // The ten built-in presets in the order shown to users.
    [[nodiscard]] static std::span<const Preset> builtins();
    // The built-in preset with this id, or nothing.
    [[nodiscard]] static const Preset* builtin(std::string_view id);

    static const Preset& mp4H264();
    static const Preset& mp4H264Half();
    static const Preset& mp4H265();
    static const Preset& mp4H265Half();
    static const Preset& gifSmall();
    static const Preset& gifFull();
    static const Preset& mp4AV1();
    static const Preset& webmVP9();
    static const Preset& mp4H264Hardware();
    static const Preset& mp4H265Hardware();
};

// What output naming needs of a task: the suffix after the source's stem and the extension.
struct OutputNaming {
    std::string filenameSuffix;
    std::string fileExtension;

    bool operator==(const OutputNaming&) const = default;
};

}  // namespace tessarin::engine
