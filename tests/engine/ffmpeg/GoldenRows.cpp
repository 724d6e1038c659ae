#include "tests/engine/ffmpeg/GoldenRows.hpp"

#include <algorithm>

namespace tessarin::engine::golden {

namespace {

// clang-format off
using Vector = std::vector<std::string>;

// The two ranges of every join row: 0.3 s and 0.4 s, the second typed with minutes.
const std::vector<Trim> kJoinRanges = {Trim{"0.1", "0.4"}, Trim{"0:00.5", "0.9"}};

const std::string kJoinGraphVideo =
    "[0:V:0]split=2[vs0][vs1];" "[vs0]trim=start=0.100000:end=0.400000,setpts=PTS-STARTPTS[v0];"
    "[vs1]trim=start=0.500000:end=0.900000,setpts=PTS-STARTPTS[v1];"
    "[v0][v1]concat=n=2:v=1:a=0[jv]";

const std::string kJoinGraphAudio =
    "[0:V:0]split=2[vs0][vs1];"
    "[0:a:0]aresample=async=1:first_pts=0,apad=whole_dur=0.900000,asplit=2[as0][as1];"
    "[vs0]trim=start=0.100000:end=0.400000,setpts=PTS-STARTPTS[v0];"
    "[as0]atrim=start=0.100000:end=0.400000,asetpts=PTS-STARTPTS[a0];"
    "[vs1]trim=start=0.500000:end=0.900000,setpts=PTS-STARTPTS[v1];"
    "[as1]atrim=start=0.500000:end=0.900000,asetpts=PTS-STARTPTS[a1];"
    "[v0][a0][v1][a1]concat=n=2:v=1:a=1[jv][ja]";

enum class RangeCase { none, endOnly, startEnd, join };

constexpr SourceAudio kAudios[] = {SourceAudio::aac, SourceAudio::opus, SourceAudio::none};
constexpr RangeCase kRanges[] = {RangeCase::none, RangeCase::endOnly, RangeCase::startEnd,
                                 RangeCase::join};

const char* audioName(SourceAudio audio) {
    switch (audio) {
        case SourceAudio::aac:
            return "aac";
        case SourceAudio::opus:
            return "opus";
        case SourceAudio::none:
            return "silent";
    }
    return "?";
}

const char* rangeName(RangeCase range) {
    switch (range) {
        case RangeCase::none:
            return "whole";
        case RangeCase::endOnly:
            return "endOnly";
        case RangeCase::startEnd:
            return "startEnd";
        case RangeCase::join:
            return "join";
    }
    return "?";
}

// The clips are one second long.
double secondsOf(RangeCase range) {
    switch (range) {
        case RangeCase::none:
            return 1.0;
        case RangeCase::endOnly:
        case RangeCase::startEnd:
            return 0.6;
        case RangeCase::join:
            return 0.7;
    }
    return 0;
}

void applyRange(Row& row, RangeCase range) {
    switch (range) {
        case RangeCase::none:
            break;
        case RangeCase::endOnly:
            row.options.trim = Trim{std::nullopt, "0.6"};
            break;
        case RangeCase::startEnd:
            row.options.trim = Trim{"0.2", "0.8"};
            break;
        case RangeCase::join:
            row.ranges = kJoinRanges;
            break;
    }
}

// MP4 and WebM vectors by audio and range, with the preset's parts left as tokens:
// "$VF" is "-vf" and the chain (nothing without a chain), "$ENC" the encoder arguments, "$FCA"
// and "$FCV" the join filter graph with and without audio followed by ";[jv]", the chain or
// "null", and "[outv]".
Vector mp4Template(SourceAudio audio, RangeCase range) {
    const bool withAudio = audio != SourceAudio::none;
    switch (range) {
        case RangeCase::none:
            if (audio == SourceAudio::aac) {
                return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0", "-map",
                        "0:a:0", "-map_metadata", "0", "$VF", "$ENC", "-c:a", "copy", "-movflags",
                        "+faststart", "-progress", "pipe:1", "$OUT"};
            }
            if (audio == SourceAudio::opus) {
                return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0", "-map",
                        "0:a:0", "-map_metadata", "0", "$VF", "$ENC", "-c:a", "aac", "-b:a",
                        "128k", "-movflags", "+faststart", "-progress", "pipe:1", "$OUT"};
            }
            return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0",
                    "-map_metadata", "0", "$VF", "$ENC", "-an", "-movflags", "+faststart",
                    "-progress", "pipe:1", "$OUT"};
        case RangeCase::endOnly:
            if (withAudio) {
                return {"-y", "-nostdin", "-v", "error", "-to", "0.6", "-i", "$SRC", "-map",
                        "0:V:0", "-map", "0:a:0", "-map_metadata", "0", "-map_chapters", "-1",
                        "$VF", "$ENC", "-c:a", "aac", "-b:a", "128k", "-movflags", "+faststart",
                        "-progress", "pipe:1", "$OUT"};
            }
            return {"-y", "-nostdin", "-v", "error", "-to", "0.6", "-i", "$SRC", "-map", "0:V:0",
                    "-map_metadata", "0", "-map_chapters", "-1", "$VF", "$ENC", "-an", "-movflags",
                    "+faststart", "-progress", "pipe:1", "$OUT"};
        case RangeCase::startEnd:
            if (withAudio) {
                return {"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-i", "$SRC",
                        "-map", "0:V:0", "-map", "0:a:0", "-map_metadata", "0", "-map_chapters",
                        "-1", "$VF", "$ENC", "-c:a", "aac", "-b:a", "128k", "-movflags",
                        "+faststart", "-progress", "pipe:1", "$OUT"};
            }
            return {"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-i", "$SRC",
                    "-map", "0:V:0", "-map_metadata", "0", "-map_chapters", "-1", "$VF", "$ENC",
                    "-an", "-movflags", "+faststart", "-progress", "pipe:1", "$OUT"};
        case RangeCase::join:
            if (withAudio) {
                return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex", "$FCA",
                        "-map", "[outv]", "-map", "[ja]", "-map_metadata", "0", "-map_chapters",
                        "-1", "$ENC", "-c:a", "aac", "-b:a", "128k", "-movflags", "+faststart",
                        "-progress", "pipe:1", "$OUT"};
            }
            return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex", "$FCV",
                    "-map", "[outv]", "-map_metadata", "0", "-map_chapters", "-1", "$ENC", "-an",
                    "-movflags", "+faststart", "-progress", "pipe:1", "$OUT"};
    }
    return {};
}

Vector webmTemplate(SourceAudio audio, RangeCase range) {
    const bool withAudio = audio != SourceAudio::none;
    switch (range) {
        case RangeCase::none:
            if (withAudio) {
                return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0", "-map",
                        "0:a:0", "-map_metadata", "0", "$VF", "$ENC", "-c:a", "libopus", "-b:a",
                        "128k", "-progress", "pipe:1", "$OUT"};
            }
            return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0",
                    "-map_metadata", "0", "$VF", "$ENC", "-an", "-progress", "pipe:1", "$OUT"};
        case RangeCase::endOnly:
            if (withAudio) {
                return {"-y", "-nostdin", "-v", "error", "-to", "0.6", "-i", "$SRC", "-map",
                        "0:V:0", "-map", "0:a:0", "-map_metadata", "0", "-map_chapters", "-1",
                        "$VF", "$ENC", "-c:a", "libopus", "-b:a", "128k", "-progress", "pipe:1",
                        "$OUT"};
            }
            return {"-y", "-nostdin", "-v", "error", "-to", "0.6", "-i", "$SRC", "-map", "0:V:0",
                    "-map_metadata", "0", "-map_chapters", "-1", "$VF", "$ENC", "-an", "-progress",
                    "pipe:1", "$OUT"};
        case RangeCase::startEnd:
            if (withAudio) {
                return {"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-i", "$SRC",
                        "-map", "0:V:0", "-map", "0:a:0", "-map_metadata", "0", "-map_chapters",
                        "-1", "$VF", "$ENC", "-c:a", "libopus", "-b:a", "128k", "-progress",
                        "pipe:1", "$OUT"};
            }
            return {"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-i", "$SRC",
                    "-map", "0:V:0", "-map_metadata", "0", "-map_chapters", "-1", "$VF", "$ENC",
                    "-an", "-progress", "pipe:1", "$OUT"};
        case RangeCase::join:
            if (withAudio) {
                return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex", "$FCA",
                        "-map", "[outv]", "-map", "[ja]", "-map_metadata", "0", "-map_chapters",
                        "-1", "$ENC", "-c:a", "libopus", "-b:a", "128k", "-progress", "pipe:1",
                        "$OUT"};
            }
            return {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex", "$FCV",
                    "-map", "[outv]", "-map_metadata", "0", "-map_chapters", "-1", "$ENC", "-an",
                    "-progress", "pipe:1", "$OUT"};
    }
    return {};
}

// The parts of a video preset that its vectors differ by.
struct VideoPresetParts {
    const Preset* preset;
    Vector encoder;
    std::optional<std::string> chain;
    std::string outputCodec;
    bool webm = false;
    bool needsHardware = false;
};

std::vector<VideoPresetParts> videoPresetParts() {
    return {
        {&Preset::mp4H264(),
         {"-c:v", "libx264", "-preset", "medium", "-crf", "33", "-pix_fmt", "yuv420p"},
         std::nullopt,
         "h264"},
        {&Preset::mp4H264Half(),
         {"-c:v", "libx264", "-preset", "medium", "-crf", "29", "-pix_fmt", "yuv420p"},
         "scale=trunc(iw/4)*2:-2", "h264"},
        {&Preset::mp4H265(),
         {"-c:v", "libx265", "-preset", "medium", "-crf", "35", "-pix_fmt", "yuv420p", "-tag:v",
          "hvc1"},
         std::nullopt,
         "hevc"},
        {&Preset::mp4H265Half(),
         {"-c:v", "libx265", "-preset", "medium", "-crf", "31", "-pix_fmt", "yuv420p", "-tag:v",
          "hvc1"},
         "scale=trunc(iw/4)*2:-2", "hevc"},
        {&Preset::mp4AV1(),
         {"-c:v", "libsvtav1", "-preset", "8", "-crf", "32", "-pix_fmt", "yuv420p"},
         std::nullopt,
         "av1"},
        {&Preset::webmVP9(),
         {"-c:v", "libvpx-vp9", "-deadline", "good", "-cpu-used", "4", "-row-mt", "1", "-crf",
          "33", "-b:v", "0", "-pix_fmt", "yuv420p"},
         std::nullopt,
         "vp9",
         true},
        // Quality 50 on NVENC's scale: 51 - round(49 * 50 / 99) = 26.
        {&Preset::mp4H264Hardware(),
         {"-c:v", "h264_nvenc", "-rc", "vbr", "-cq", "26", "-b:v", "0", "-pix_fmt", "yuv420p"},
         std::nullopt,
         "h264",
         false,
         true},
        {&Preset::mp4H265Hardware(),
         {"-c:v", "hevc_nvenc", "-rc", "vbr", "-cq", "26", "-b:v", "0", "-pix_fmt", "yuv420p",
          "-tag:v", "hvc1"},
         std::nullopt,
         "hevc",
         false,
         true},
    };
}

Vector fillVideoTemplate(const Vector& pattern, const VideoPresetParts& parts) {
    Vector filled;
    for (const std::string& item : pattern) {
        if (item == "$VF") {
            if (parts.chain) {
                filled.insert(filled.end(), {"-vf", *parts.chain});
            }
        } else if (item == "$ENC") {
            filled.insert(filled.end(), parts.encoder.begin(), parts.encoder.end());
        } else if (item == "$FCA" || item == "$FCV") {
            filled.push_back((item == "$FCA" ? kJoinGraphAudio : kJoinGraphVideo) + ";[jv]" +
                             parts.chain.value_or("null") + "[outv]");
        } else {
            filled.push_back(item);
        }
    }
    return filled;
}

struct GifRow {
    RangeCase range;
    Vector palette;
    Vector render;
};

// The GIF presets have no audio, so their vectors depend on the range alone.
std::vector<GifRow> gifSmallRows() {
    const std::string use = "paletteuse=dither=bayer:diff_mode=rectangle";
    return {
        {RangeCase::none,
         {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0", "-vf",
          "scale=iw/3:-2,fps=6,palettegen=stats_mode=full", "-update", "1", "-progress", "pipe:1",
          "$PAL"},
         {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-i", "$PAL", "-filter_complex",
          "[0:V:0]scale=iw/3:-2,fps=6[s]; [s][1:v]" + use, "-progress", "pipe:1", "$GIF"}},
        {RangeCase::endOnly,
         {"-y", "-nostdin", "-v", "error", "-to", "0.6", "-i", "$SRC", "-map", "0:V:0", "-vf",
          "scale=iw/3:-2,fps=6,trim=duration=0.600000000,palettegen=stats_mode=full", "-update",
          "1", "-progress", "pipe:1", "$PAL"},
         {"-y", "-nostdin", "-v", "error", "-to", "0.6", "-i", "$SRC", "-i", "$PAL",
          "-filter_complex",
          "[0:V:0]scale=iw/3:-2,fps=6,trim=duration=0.600000000[s]; [s][1:v]" + use, "-progress",
          "pipe:1", "$GIF"}},
        {RangeCase::startEnd,
         {"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-i", "$SRC", "-map",
          "0:V:0", "-vf",
          "scale=iw/3:-2,fps=6,trim=duration=0.600000000,palettegen=stats_mode=full", "-update",
          "1", "-progress", "pipe:1", "$PAL"},
         {"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-i", "$SRC", "-i", "$PAL",
          "-filter_complex",
          "[0:V:0]scale=iw/3:-2,fps=6,trim=duration=0.600000000[s]; [s][1:v]" + use, "-progress",
          "pipe:1", "$GIF"}},
        {RangeCase::join,
         {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex",
          kJoinGraphVideo +
              ";[jv]scale=iw/3:-2,fps=6,trim=duration=0.700000000,palettegen=stats_mode=full"
              "[palette]",
          "-map", "[palette]", "-update", "1", "-progress", "pipe:1", "$PAL"},
         {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-i", "$PAL", "-filter_complex",
          kJoinGraphVideo + ";[jv]scale=iw/3:-2,fps=6,trim=duration=0.700000000,null[s];[s][1:v]" +
              use,
          "-progress", "pipe:1", "$GIF"}},
    };
}

std::vector<GifRow> gifFullRows() {
    const std::string use = "paletteuse=dither=sierra2_4a:diff_mode=rectangle";
    return {
        {RangeCase::none,
         {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0", "-vf",
          "fps=10,palettegen=stats_mode=full", "-update", "1", "-progress", "pipe:1", "$PAL"},
         {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-i", "$PAL", "-filter_complex",
          "[0:V:0]fps=10[s]; [s][1:v]" + use, "-progress", "pipe:1", "$GIF"}},
        {RangeCase::endOnly,
         {"-y", "-nostdin", "-v", "error", "-to", "0.6", "-i", "$SRC", "-map", "0:V:0", "-vf",
          "fps=10,trim=duration=0.600000000,palettegen=stats_mode=full", "-update", "1",
          "-progress", "pipe:1", "$PAL"},
         {"-y", "-nostdin", "-v", "error", "-to", "0.6", "-i", "$SRC", "-i", "$PAL",
          "-filter_complex", "[0:V:0]fps=10,trim=duration=0.600000000[s]; [s][1:v]" + use,
          "-progress", "pipe:1", "$GIF"}},
        {RangeCase::startEnd,
         {"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-i", "$SRC", "-map",
          "0:V:0", "-vf", "fps=10,trim=duration=0.600000000,palettegen=stats_mode=full", "-update",
          "1", "-progress", "pipe:1", "$PAL"},
         {"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-i", "$SRC", "-i", "$PAL",
          "-filter_complex", "[0:V:0]fps=10,trim=duration=0.600000000[s]; [s][1:v]" + use,
          "-progress", "pipe:1", "$GIF"}},
        {RangeCase::join,
         {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex",
          kJoinGraphVideo +
              ";[jv]fps=10,trim=duration=0.700000000,palettegen=stats_mode=full[palette]",
          "-map", "[palette]", "-update", "1", "-progress", "pipe:1", "$PAL"},
         {"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-i", "$PAL", "-filter_complex",
          kJoinGraphVideo + ";[jv]fps=10,trim=duration=0.700000000,null[s];[s][1:v]" + use,
          "-progress", "pipe:1", "$GIF"}},
    };
}

std::string rowName(const Preset& preset, SourceAudio audio, RangeCase range) {
    std::string name = preset.id;
    std::replace(name.begin(), name.end(), '-', '_');
    return name + "_" + audioName(audio) + "_" + rangeName(range);
}

void addMatrix(std::vector<Row>& rows) {
    for (const VideoPresetParts& parts : videoPresetParts()) {
        for (SourceAudio audio : kAudios) {
            for (RangeCase range : kRanges) {
                Row row;
                row.name = rowName(*parts.preset, audio, range);
                row.options = parts.preset->options;
                row.audio = audio;
                applyRange(row, range);
                row.ffmpeg = {fillVideoTemplate(
                    parts.webm ? webmTemplate(audio, range) : mp4Template(audio, range), parts)};
                row.outputCodec = parts.outputCodec;
                row.outputSeconds = secondsOf(range);
                row.needsHardware = parts.needsHardware;
                rows.push_back(std::move(row));
            }
        }
    }
    const std::pair<const Preset*, std::vector<GifRow>> gifs[] = {
        {&Preset::gifSmall(), gifSmallRows()}, {&Preset::gifFull(), gifFullRows()}};
    for (const auto& [preset, gifRows] : gifs) {
        const Vector gifsicle = preset->id == "gif-small"
                                    ? Vector{"--lossy", "-O3", "-o", "$OUT", "$GIF"}
                                    : Vector{"-O3", "-o", "$OUT", "$GIF"};
        for (SourceAudio audio : kAudios) {
            for (const GifRow& gifRow : gifRows) {
                Row row;
                row.name = rowName(*preset, audio, gifRow.range);
                row.options = preset->options;
                row.audio = audio;
                applyRange(row, gifRow.range);
                row.ffmpeg = {gifRow.palette, gifRow.render};
                row.gifsicle = gifsicle;
                row.outputCodec = "gif";
                row.outputSeconds = secondsOf(gifRow.range);
                rows.push_back(std::move(row));
            }
        }
    }
}

void addEdgeRows(std::vector<Row>& rows) {
    {
        // Seeks, then the hardware decoder, then the input.
        Row row;
        row.name = "mp4_h264_av1Source_startEnd";
        row.options = Preset::mp4H264().options;
        row.options.trim = Trim{"0.2", "0.8"};
        row.sourceVideoCodec = "av1";
        row.ffmpeg = {{"-y", "-nostdin", "-v", "error", "-ss", "0.2", "-to", "0.8", "-hwaccel",
                       "auto", "-i", "$SRC", "-map", "0:V:0", "-map", "0:a:0", "-map_metadata",
                       "0", "-map_chapters", "-1", "-c:v", "libx264", "-preset", "medium", "-crf",
                       "33", "-pix_fmt", "yuv420p", "-c:a", "aac", "-b:a", "128k", "-movflags",
                       "+faststart", "-progress", "pipe:1", "$OUT"}};
        row.outputCodec = "h264";
        row.outputSeconds = 0.6;
        rows.push_back(std::move(row));
    }
    {
        Row row;
        row.name = "gif_small_av1Source_whole";
        row.options = Preset::gifSmall().options;
        row.sourceVideoCodec = "av1";
        row.ffmpeg = {
            {"-y", "-nostdin", "-v", "error", "-hwaccel", "auto", "-i", "$SRC", "-map", "0:V:0",
             "-vf", "scale=iw/3:-2,fps=6,palettegen=stats_mode=full", "-update", "1", "-progress",
             "pipe:1", "$PAL"},
            {"-y", "-nostdin", "-v", "error", "-hwaccel", "auto", "-i", "$SRC", "-i", "$PAL",
             "-filter_complex",
             "[0:V:0]scale=iw/3:-2,fps=6[s]; [s][1:v]paletteuse=dither=bayer:diff_mode=rectangle",
             "-progress", "pipe:1", "$GIF"}};
        row.gifsicle = {"--lossy", "-O3", "-o", "$OUT", "$GIF"};
        row.outputCodec = "gif";
        row.outputSeconds = 1.0;
        rows.push_back(std::move(row));
    }
    {
        // An odd width is rounded down for video; a rate change pins the length with -t.
        Row row;
        row.name = "mp4_custom_fitWidthOdd_fps_endOnly";
        row.options.format = OutputFormat::mp4(VideoCodec::h264);
        row.options.scale = Scale::fitWidth(101);
        row.options.fps = 15;
        row.options.crf = 20;
        row.options.preset = "veryfast";
        row.options.trim = Trim{std::nullopt, "0.5"};
        row.ffmpeg = {{"-y", "-nostdin", "-v", "error", "-to", "0.5", "-i", "$SRC", "-map",
                       "0:V:0", "-map", "0:a:0", "-map_metadata", "0", "-map_chapters", "-1",
                       "-vf", "scale=100:-2,fps=15", "-c:v", "libx264", "-preset", "veryfast",
                       "-crf", "20", "-pix_fmt", "yuv420p", "-c:a", "aac", "-b:a", "128k",
                       "-movflags", "+faststart", "-t", "0.500000000", "-progress", "pipe:1",
                       "$OUT"}};
        row.outputCodec = "h264";
        row.outputSeconds = 0.5;
        rows.push_back(std::move(row));
    }
    {
        // A rate change without an end has no length to pin.
        Row row;
        row.name = "mp4_custom_h265_fps_whole";
        row.options.format = OutputFormat::mp4(VideoCodec::h265);
        row.options.fps = 15;
        row.options.preset = "fast";
        row.audio = SourceAudio::none;
        row.ffmpeg = {{"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0",
                       "-map_metadata", "0", "-vf", "fps=15", "-c:v", "libx265", "-preset", "fast",
                       "-crf", "28", "-pix_fmt", "yuv420p", "-tag:v", "hvc1", "-an", "-movflags",
                       "+faststart", "-progress", "pipe:1", "$OUT"}};
        row.outputCodec = "hevc";
        row.outputSeconds = 1.0;
        rows.push_back(std::move(row));
    }
    {
        Row row;
        row.name = "webm_custom_fps_opus_join";
        row.options.format = OutputFormat::webm(VideoCodec::vp9);
        row.options.fps = 12;
        row.audio = SourceAudio::opus;
        row.ranges = kJoinRanges;
        row.ffmpeg = {{"-y",
                       "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex",
                       kJoinGraphAudio + ";[jv]fps=12[outv]",
                       "-map", "[outv]", "-map", "[ja]", "-map_metadata", "0", "-map_chapters",
                       "-1", "-c:v", "libvpx-vp9", "-deadline", "good", "-cpu-used", "4", "-row-mt",
                       "1", "-crf", "33", "-b:v", "0", "-pix_fmt", "yuv420p", "-c:a", "libopus",
                       "-b:a", "128k", "-t", "0.700000000", "-progress", "pipe:1", "$OUT"}};
        row.outputCodec = "vp9";
        row.outputSeconds = 0.7;
        rows.push_back(std::move(row));
    }
    {
        // One range still splits and concatenates.
        Row row;
        row.name = "mp4_h264_silent_joinOneRange";
        row.options = Preset::mp4H264().options;
        row.audio = SourceAudio::none;
        row.ranges = std::vector<Trim>{Trim{"0.2", "0.7"}};
        row.ffmpeg = {{"-y",
                       "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex",
                       "[0:V:0]split=1[vs0];"
                       "[vs0]trim=start=0.200000:end=0.700000,setpts=PTS-STARTPTS[v0];"
                       "[v0]concat=n=1:v=1:a=0[jv];[jv]null[outv]", "-map", "[outv]",
                       "-map_metadata", "0", "-map_chapters", "-1", "-c:v", "libx264", "-preset",
                       "medium", "-crf", "33", "-pix_fmt", "yuv420p", "-an", "-movflags",
                       "+faststart", "-progress", "pipe:1", "$OUT"}};
        row.outputCodec = "h264";
        row.outputSeconds = 0.5;
        rows.push_back(std::move(row));
    }
    {
        Row row;
        row.name = "mp4_h264_aac_joinOneRange";
        row.options = Preset::mp4H264().options;
        row.ranges = std::vector<Trim>{Trim{"0", "00:00:00.5"}};
        row.ffmpeg = {{"-y",
                       "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex",
                       "[0:V:0]split=1[vs0];"
                       "[0:a:0]aresample=async=1:first_pts=0,apad=whole_dur=0.500000,asplit=1[as0];"
                       "[vs0]trim=start=0.000000:end=0.500000,setpts=PTS-STARTPTS[v0];"
                       "[as0]atrim=start=0.000000:end=0.500000,asetpts=PTS-STARTPTS[a0];"
                       "[v0][a0]concat=n=1:v=1:a=1[jv][ja];[jv]null[outv]", "-map", "[outv]",
                       "-map", "[ja]", "-map_metadata", "0", "-map_chapters", "-1", "-c:v",
                       "libx264", "-preset", "medium", "-crf", "33", "-pix_fmt", "yuv420p", "-c:a",
                       "aac", "-b:a", "128k", "-movflags", "+faststart", "-progress", "pipe:1",
                       "$OUT"}};
        row.outputCodec = "h264";
        row.outputSeconds = 0.5;
        rows.push_back(std::move(row));
    }
    {
        // A start alone gives no length, so no trim filter; an odd GIF width stays odd.
        Row row;
        row.name = "gif_custom_lossyLevel_defaultFps_startOnly";
        row.options.format = OutputFormat::gif();
        row.options.scale = Scale::fitWidth(81);
        row.options.dither = "floyd_steinberg";
        row.options.lossy = GifLossy::atLevel(40);
        row.options.trim = Trim{"0.3", std::nullopt};
        row.ffmpeg = {{"-y", "-nostdin", "-v", "error", "-ss", "0.3", "-i", "$SRC", "-map",
                       "0:V:0", "-vf", "scale=81:-2,fps=10,palettegen=stats_mode=full", "-update",
                       "1", "-progress", "pipe:1", "$PAL"},
                      {"-y", "-nostdin", "-v", "error", "-ss", "0.3", "-i", "$SRC", "-i", "$PAL",
                       "-filter_complex", "[0:V:0]scale=81:-2,fps=10[s]; [s][1:v]"
                       "paletteuse=dither=floyd_steinberg:diff_mode=rectangle",
                       "-progress", "pipe:1", "$GIF"}};
        row.gifsicle = {"--lossy=40", "-O3", "-o", "$OUT", "$GIF"};
        row.outputCodec = "gif";
        row.outputSeconds = 0.7;
        rows.push_back(std::move(row));
    }
    {
        // An uploading block: its filter ends the chain and it sets no software pixel format.
        Row row;
        row.name = "mp4_hardware_uploadBlock_aac_whole";
        row.options = Preset::mp4H264Hardware().options;
        row.options.scale = Scale::half();
        row.hardware = HardwareEncoderBlock{
            {"-vaapi_device", "/dev/dri/renderD128", "-c:v", "h264_vaapi", "-qp", "24"},
            "format=nv12,hwupload"};
        row.ffmpeg = {{"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0", "-map",
                       "0:a:0", "-map_metadata", "0", "-vf",
                       "scale=trunc(iw/4)*2:-2,format=nv12,hwupload", "-vaapi_device",
                       "/dev/dri/renderD128", "-c:v", "h264_vaapi", "-qp", "24", "-c:a", "copy",
                       "-movflags", "+faststart", "-progress", "pipe:1", "$OUT"}};
        row.outputCodec = "h264";
        row.outputSeconds = 1.0;
        row.needsHardware = true;
        rows.push_back(std::move(row));
    }
    {
        Row row;
        row.name = "mp4_hardware_uploadBlock_silent_join";
        row.options = Preset::mp4H265Hardware().options;
        row.audio = SourceAudio::none;
        row.ranges = kJoinRanges;
        row.hardware = HardwareEncoderBlock{
            {"-vaapi_device", "/dev/dri/renderD128", "-c:v", "hevc_vaapi", "-qp", "24"},
            "format=nv12,hwupload"};
        row.ffmpeg = {{"-y",
                       "-nostdin", "-v", "error", "-i", "$SRC", "-filter_complex",
                       kJoinGraphVideo + ";[jv]format=nv12,hwupload[outv]",
                       "-map", "[outv]", "-map_metadata", "0", "-map_chapters", "-1",
                       "-vaapi_device", "/dev/dri/renderD128", "-c:v", "hevc_vaapi", "-qp", "24",
                       "-tag:v", "hvc1", "-an", "-movflags", "+faststart", "-progress", "pipe:1",
                       "$OUT"}};
        row.outputCodec = "hevc";
        row.outputSeconds = 0.7;
        row.needsHardware = true;
        rows.push_back(std::move(row));
    }
    {
        // Quality 80: 51 - round(79 * 50 / 99) = 11.
        Row row;
        row.name = "mp4_hardware_quality80_aac_whole";
        row.options = Preset::mp4H264Hardware().options;
        row.options.crf = 80;
        row.ffmpeg = {{"-y", "-nostdin", "-v", "error", "-i", "$SRC", "-map", "0:V:0", "-map",
                       "0:a:0", "-map_metadata", "0", "-c:v", "h264_nvenc", "-rc", "vbr", "-cq",
                       "11", "-b:v", "0", "-pix_fmt", "yuv420p", "-c:a", "copy", "-movflags",
                       "+faststart", "-progress", "pipe:1", "$OUT"}};
        row.outputCodec = "h264";
        row.outputSeconds = 1.0;
        row.needsHardware = true;
        rows.push_back(std::move(row));
    }
}

// clang-format on

}  // namespace

const std::vector<Row>& rows() {
    static const std::vector<Row> all = [] {
        std::vector<Row> built;
        addMatrix(built);
        addEdgeRows(built);
        return built;
    }();
    return all;
}

std::vector<std::string> expand(const std::vector<std::string>& vector, const Paths& paths) {
    std::vector<std::string> expanded;
    expanded.reserve(vector.size());
    for (const std::string& item : vector) {
        if (item == "$SRC") {
            expanded.push_back(paths.source.string());
        } else if (item == "$OUT") {
            expanded.push_back(paths.output.string());
        } else if (item == "$PAL") {
            expanded.push_back(paths.palette.string());
        } else if (item == "$GIF") {
            expanded.push_back(paths.renderedGif.string());
        } else {
            expanded.push_back(item);
        }
    }
    return expanded;
}

AudioPlan planFor(SourceAudio audio) {
    switch (audio) {
        case SourceAudio::aac:
            return AudioPlan::forSource(true, "aac");
        case SourceAudio::opus:
            return AudioPlan::forSource(true, "opus");
        case SourceAudio::none:
            return AudioPlan::forSource(false, std::nullopt);
    }
    return {};
}

std::vector<std::vector<std::string>> buildFFmpeg(const Row& row, const Paths& paths) {
    const std::optional<std::string> sourceCodec = row.sourceVideoCodec;
    const AudioPlan audio = planFor(row.audio);
    switch (row.options.format.kind) {
        case OutputFormat::Kind::mp4:
            return {FFmpegCommandBuilder::mp4Arguments(paths.source, paths.output, row.options,
                                                       audio, row.ranges, sourceCodec,
                                                       row.hardware)};
        case OutputFormat::Kind::webm:
            return {FFmpegCommandBuilder::webmArguments(paths.source, paths.output, row.options,
                                                        audio, row.ranges, sourceCodec)};
        case OutputFormat::Kind::gif:
            return {FFmpegCommandBuilder::gifPaletteArguments(paths.source, paths.palette,
                                                              row.options, row.ranges, sourceCodec),
                    FFmpegCommandBuilder::gifRenderArguments(paths.source, paths.palette,
                                                             paths.renderedGif, row.options,
                                                             row.ranges, sourceCodec)};
    }
    return {};
}

}  // namespace tessarin::engine::golden
