// Hand-written argument vectors for the built-in presets crossed with source audio (AAC,
// Opus, none) and range (none, end only, start and end, a join of two ranges), plus edge rows.
// Shared by the vector comparison and the real runs, so that every vector checked is also
// fed to ffmpeg.
#pragma once

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "engine/ffmpeg/FFmpegCommandBuilder.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::engine::golden {

enum class SourceAudio { aac, opus, none };

// The paths that stand in a row's vectors as "$SRC", "$OUT", "$PAL" (the GIF palette) and
// "$GIF" (the rendered GIF before gifsicle).
struct Paths {
    std::filesystem::path source = "/in/source.mov";
    std::filesystem::path output = "/out/result";
    std::filesystem::path palette = "/work/palette.png";
    std::filesystem::path renderedGif = "/work/rendered.gif";
};

struct Row {
    std::string name;  // a valid gtest name
    ConversionOptions options;
    SourceAudio audio = SourceAudio::aac;
    std::string sourceVideoCodec = "h264";
    JoinRanges ranges;
    std::optional<HardwareEncoderBlock> hardware;  // handed to the builder as it stands

    // One vector for MP4 and WebM, palette and render pass for GIF; gifsicle for GIF only.
    std::vector<std::vector<std::string>> ffmpeg;
    std::vector<std::string> gifsicle;

    // What the output must be when run: its video codec_name and about how long it lasts.
    std::string outputCodec;
    double outputSeconds = 0;
    bool needsHardware = false;
};

// Every row: the 120 of the preset matrix, then the edge rows.
[[nodiscard]] const std::vector<Row>& rows();

// A row's vector with the "$" tokens replaced by `paths`.
[[nodiscard]] std::vector<std::string> expand(const std::vector<std::string>& vector,
                                              const Paths& paths);

// The builder's vectors for a row, in the order of Row::ffmpeg.
[[nodiscard]] std::vector<std::vector<std::string>> buildFFmpeg(const Row& row, const Paths& paths);

[[nodiscard]] AudioPlan planFor(SourceAudio audio);

// gtest prints a row by its name instead of its bytes.
inline void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

}  // namespace tessarin::engine::golden
