#include "engine/ffmpeg/FFmpegCommandBuilder.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cmath>
#include <initializer_list>

#include "engine/ffmpeg/ProgrammerError.hpp"
#include "engine/model/MediaTask.hpp"
#include "engine/model/TimeText.hpp"

namespace tessarin::engine {

namespace {

using Arguments = std::vector<std::string>;
using ffmpeg_internal::programmerError;

constexpr std::string_view kPaletteGen = "palettegen=stats_mode=full";

void append(Arguments& arguments, std::initializer_list<std::string_view> items) {
    for (std::string_view item : items) {
        arguments.emplace_back(item);
    }
}

void append(Arguments& arguments, const Arguments& items) {
    arguments.insert(arguments.end(), items.begin(), items.end());
}

// fmt formats floating point without the global locale, which is what ffmpeg's parser wants.
std::string microsecondText(double seconds) {
    return fmt::format("{:.6f}", seconds);
}

struct RangeSeconds {
    double start;
    double end;
};

RangeSeconds checkedJoinRange(const Trim& range, std::size_t index) {
    const std::optional<double> start = range.start ? parseTimeSeconds(*range.start) : std::nullopt;
    const std::optional<double> end = range.end ? parseTimeSeconds(*range.end) : std::nullopt;
    if (!start || !end) {
        programmerError(
            fmt::format("join range {} lacks an end or has one that does not parse", index));
    }
    return {*start, *end};
}

// "-y" ... "-i" source: the start of every ffmpeg run. Seeks stand before the input so that the
// times are positions in the source.
Arguments commonBeginning(const std::filesystem::path& source, const Trim& trim,
                          const JoinRanges& ranges,
                          const std::optional<std::string>& sourceVideoCodec) {
    Arguments arguments{"-y", "-nostdin", "-v", "error"};
    if (!ranges) {
        append(arguments, FFmpegCommandBuilder::seekArguments(trim));
    }
    if (sourceVideoCodec == "av1") {
        append(arguments, {"-hwaccel", "auto"});
    }
    append(arguments, {"-i", source.string()});
    return arguments;
}

// The mapping and filter block shared by MP4 and WebM.
void appendVideoMapping(Arguments& arguments, const ConversionOptions& options, bool withAudio,
                        const JoinRanges& ranges, const std::optional<std::string>& videoChain) {
    if (ranges) {
        append(arguments,
               {"-filter_complex", FFmpegCommandBuilder::joinGraph(*ranges, withAudio) + ";[jv]" +
                                       videoChain.value_or("null") + "[outv]"});
        append(arguments, {"-map", "[outv]"});
        if (withAudio) {
            append(arguments, {"-map", "[ja]"});
        }
        append(arguments, {"-map_metadata", "0", "-map_chapters", "-1"});
        return;
    }
    append(arguments, {"-map", "0:V:0"});
    if (withAudio) {
        append(arguments, {"-map", "0:a:0"});
    }
    append(arguments, {"-map_metadata", "0"});
    if (options.trim.start || options.trim.end) {
        append(arguments, {"-map_chapters", "-1"});
    }
    if (videoChain) {
        append(arguments, {"-vf", *videoChain});
    }
}

std::string qualityText(const ConversionOptions& options, VideoCodec codec) {
    return fmt::format("{}", options.crf.value_or(defaultQuality(codec)));
}

// The fps filter can run past a cut by a frame, so a rate change also pins the length.
void appendLengthLimit(Arguments& arguments, const ConversionOptions& options,
                       const JoinRanges& ranges) {
    if (!options.fps) {
        return;
    }
    if (std::optional<std::string> length = FFmpegCommandBuilder::duration(options.trim, ranges)) {
        append(arguments, {"-t", *length});
    }
}

void appendProgress(Arguments& arguments, const std::filesystem::path& output) {
    append(arguments, {"-progress", "pipe:1", output.string()});
}

}  // namespace

std::vector<std::string> FFmpegCommandBuilder::seekArguments(const Trim& trim) {
    Arguments arguments;
    if (trim.start) {
        append(arguments, {"-ss", *trim.start});
    }
    if (trim.end) {
        append(arguments, {"-to", *trim.end});
    }
    return arguments;
}

std::optional<std::string> FFmpegCommandBuilder::chain(const ConversionOptions& options,
                                                       const JoinRanges& ranges) {
    const bool gif = options.format.isGif();
    Arguments filters;
    if (std::optional<std::string> scale = options.scale.filter(!gif)) {
        filters.push_back(std::move(*scale));
    }
    if (gif) {
        filters.push_back(fmt::format("fps={}", options.fps.value_or(10)));
        if (std::optional<std::string> length = duration(options.trim, ranges)) {
            filters.push_back("trim=duration=" + *length);
        }
    } else if (options.fps) {
        filters.push_back(fmt::format("fps={}", *options.fps));
    }
    if (filters.empty()) {
        return std::nullopt;
    }
    return fmt::format("{}", fmt::join(filters, ","));
}

std::optional<std::string> FFmpegCommandBuilder::duration(const Trim& trim,
                                                          const JoinRanges& ranges) {
    if (!ranges && !trim.end) {
        return std::nullopt;
    }
    const std::vector<Trim> single{trim};
    const std::vector<Trim>& all = ranges ? *ranges : single;
    double total = 0;
    for (const Trim& range : all) {
        const std::optional<double> end = range.end ? parseTimeSeconds(*range.end) : std::nullopt;
        if (!end) {
            return std::nullopt;
        }
        double start = 0;
        if (range.start) {
            const std::optional<double> parsed = parseTimeSeconds(*range.start);
            if (!parsed) {
                return std::nullopt;
            }
            start = *parsed;
        }
        // With no start this is "end above 0".
        if (!(start < *end)) {
            return std::nullopt;
        }
        total += *end - start;
    }
    if (!std::isfinite(total) || !(total > 0)) {
        return std::nullopt;
    }
    return fmt::format("{:.9f}", total);
}

std::string FFmpegCommandBuilder::joinGraph(const std::vector<Trim>& ranges, bool withAudio) {
    if (ranges.empty() || ranges.size() > kMaximumJoinRanges) {
        programmerError(
            fmt::format("a join needs 1 to {} ranges, got {}", kMaximumJoinRanges, ranges.size()));
    }
    std::vector<RangeSeconds> seconds;
    seconds.reserve(ranges.size());
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        seconds.push_back(checkedJoinRange(ranges[i], i));
    }
    const std::size_t n = ranges.size();

    Arguments statements;
    std::string split = fmt::format("[0:V:0]split={}", n);
    for (std::size_t i = 0; i < n; ++i) {
        split += fmt::format("[vs{}]", i);
    }
    statements.push_back(std::move(split));
    if (withAudio) {
        // Padding to the last range's end keeps every atrim covered when the audio is shorter.
        std::string audioSplit =
            fmt::format("[0:a:0]aresample=async=1:first_pts=0,apad=whole_dur={},asplit={}",
                        microsecondText(seconds.back().end), n);
        for (std::size_t i = 0; i < n; ++i) {
            audioSplit += fmt::format("[as{}]", i);
        }
        statements.push_back(std::move(audioSplit));
    }
    std::string concatInputs;
    for (std::size_t i = 0; i < n; ++i) {
        const std::string start = microsecondText(seconds[i].start);
        const std::string end = microsecondText(seconds[i].end);
        statements.push_back(
            fmt::format("[vs{0}]trim=start={1}:end={2},setpts=PTS-STARTPTS[v{0}]", i, start, end));
        concatInputs += fmt::format("[v{}]", i);
        if (withAudio) {
            statements.push_back(fmt::format(
                "[as{0}]atrim=start={1}:end={2},asetpts=PTS-STARTPTS[a{0}]", i, start, end));
            concatInputs += fmt::format("[a{}]", i);
        }
    }
    statements.push_back(fmt::format("{}concat=n={}:v=1:a={}[jv]{}", concatInputs, n,
                                     withAudio ? 1 : 0, withAudio ? "[ja]" : ""));
    return fmt::format("{}", fmt::join(statements, ";"));
}

std::vector<std::string> FFmpegCommandBuilder::mp4Arguments(
    const std::filesystem::path& source, const std::filesystem::path& output,
    const ConversionOptions& options, AudioPlan audio, const JoinRanges& ranges,
    const std::optional<std::string>& sourceVideoCodec,
    const std::optional<HardwareEncoderBlock>& hardware) {
    if (options.format.kind != OutputFormat::Kind::mp4) {
        programmerError("mp4Arguments needs an mp4 format");
    }
    const VideoCodec codec = options.format.codec;
    if (codec == VideoCodec::vp9) {
        programmerError("vp9 cannot go into an MP4");
    }

    std::optional<HardwareEncoderBlock> block;
    if (isHardware(codec)) {
        block = hardware ? *hardware
                         : defaultHardwareEncoderBlock(codec,
                                                       options.crf.value_or(defaultQuality(codec)));
    }
    std::optional<std::string> videoChain = chain(options, ranges);
    if (block && block->filterSuffix) {
        videoChain = videoChain ? *videoChain + "," + *block->filterSuffix : *block->filterSuffix;
    }

    Arguments arguments = commonBeginning(source, options.trim, ranges, sourceVideoCodec);
    appendVideoMapping(arguments, options, audio.hasAudio(), ranges, videoChain);

    switch (codec) {
        case VideoCodec::h264:
            append(arguments, {"-c:v", "libx264", "-preset", options.preset, "-crf",
                               qualityText(options, codec), "-pix_fmt", "yuv420p"});
            break;
        case VideoCodec::h265:
            append(arguments,
                   {"-c:v", "libx265", "-preset", options.preset, "-crf",
                    qualityText(options, codec), "-pix_fmt", "yuv420p", "-tag:v", "hvc1"});
            break;
        case VideoCodec::av1:
            // SVT-AV1 numbers its presets; options.preset holds x264-style words.
            append(arguments, {"-c:v", "libsvtav1", "-preset", "8", "-crf",
                               qualityText(options, codec), "-pix_fmt", "yuv420p"});
            break;
        case VideoCodec::h264VT:
        case VideoCodec::hevcVT:
            append(arguments, block->arguments);
            if (!block->filterSuffix) {
                append(arguments, {"-pix_fmt", "yuv420p"});
            }
            if (codec == VideoCodec::hevcVT) {
                append(arguments, {"-tag:v", "hvc1"});
            }
            break;
        case VideoCodec::vp9:
            break;  // refused above
    }

    const bool reencodeForCut =
        ranges || options.trim.start || (options.trim.end && audio.mode == AudioPlan::Mode::copy);
    if (!audio.hasAudio()) {
        append(arguments, {"-an"});
    } else if (reencodeForCut || audio.mode == AudioPlan::Mode::transcodeAAC) {
        // A copied stream would start and stop on packet boundaries, not on the cut.
        append(arguments, {"-c:a", "aac", "-b:a", "128k"});
    } else {
        append(arguments, {"-c:a", "copy"});
    }

    append(arguments, {"-movflags", "+faststart"});
    appendLengthLimit(arguments, options, ranges);
    appendProgress(arguments, output);
    return arguments;
}

std::vector<std::string> FFmpegCommandBuilder::webmArguments(
    const std::filesystem::path& source, const std::filesystem::path& output,
    const ConversionOptions& options, AudioPlan audio, const JoinRanges& ranges,
    const std::optional<std::string>& sourceVideoCodec) {
    if (options.format != OutputFormat::webm(VideoCodec::vp9)) {
        programmerError("webmArguments needs webm(vp9)");
    }
    Arguments arguments = commonBeginning(source, options.trim, ranges, sourceVideoCodec);
    appendVideoMapping(arguments, options, audio.hasAudio(), ranges, chain(options, ranges));
    append(arguments,
           {"-c:v", "libvpx-vp9", "-deadline", "good", "-cpu-used", "4", "-row-mt", "1", "-crf",
            qualityText(options, VideoCodec::vp9), "-b:v", "0", "-pix_fmt", "yuv420p"});
    if (audio.hasAudio()) {
        append(arguments, {"-c:a", "libopus", "-b:a", "128k"});
    } else {
        append(arguments, {"-an"});
    }
    appendLengthLimit(arguments, options, ranges);
    appendProgress(arguments, output);
    return arguments;
}

std::vector<std::string> FFmpegCommandBuilder::gifPaletteArguments(
    const std::filesystem::path& source, const std::filesystem::path& palette,
    const ConversionOptions& options, const JoinRanges& ranges,
    const std::optional<std::string>& sourceVideoCodec) {
    const std::optional<std::string> gifChain = chain(options, ranges);
    Arguments arguments = commonBeginning(source, options.trim, ranges, sourceVideoCodec);
    if (ranges) {
        append(arguments, {"-filter_complex",
                           fmt::format("{};[jv]{},{}[palette]", joinGraph(*ranges, false),
                                       gifChain.value_or(""), kPaletteGen),
                           "-map", "[palette]"});
    } else {
        append(arguments,
               {"-map", "0:V:0", "-vf",
                gifChain ? *gifChain + "," + std::string(kPaletteGen) : std::string(kPaletteGen)});
    }
    append(arguments, {"-update", "1"});
    appendProgress(arguments, palette);
    return arguments;
}

std::vector<std::string> FFmpegCommandBuilder::gifRenderArguments(
    const std::filesystem::path& source, const std::filesystem::path& palette,
    const std::filesystem::path& output, const ConversionOptions& options, const JoinRanges& ranges,
    const std::optional<std::string>& sourceVideoCodec) {
    const std::optional<std::string> gifChain = chain(options, ranges);
    const std::string paletteUse = "paletteuse=dither=" + options.dither + ":diff_mode=rectangle";
    Arguments arguments = commonBeginning(source, options.trim, ranges, sourceVideoCodec);
    append(arguments, {"-i", palette.string()});
    std::string graph;
    if (ranges) {
        graph = joinGraph(*ranges, false) + ";[jv]" + (gifChain ? *gifChain + "," : "") +
                "null[s];[s][1:v]" + paletteUse;
    } else if (gifChain) {
        graph = "[0:V:0]" + *gifChain + "[s]; [s][1:v]" + paletteUse;
    } else {
        graph = "[0:V:0][1:v]" + paletteUse;
    }
    append(arguments, {"-filter_complex", graph});
    appendProgress(arguments, output);
    return arguments;
}

std::vector<std::string> FFmpegCommandBuilder::gifsicleArguments(
    const std::filesystem::path& input, const std::filesystem::path& output,
    const ConversionOptions& options) {
    Arguments arguments;
    switch (options.lossy.kind) {
        case GifLossy::Kind::off:
            break;
        case GifLossy::Kind::defaultLevel:
            append(arguments, {"--lossy"});
            break;
        case GifLossy::Kind::level:
            arguments.push_back(fmt::format("--lossy={}", options.lossy.level));
            break;
    }
    append(arguments, {"-O3", "-o", output.string(), input.string()});
    return arguments;
}

std::vector<std::string> FFmpegCommandBuilder::audioExtractionArguments(
    const std::filesystem::path& source, const std::filesystem::path& output,
    const AudioExtractionOptions& options, const std::optional<std::string>& formatWhitelist) {
    Arguments arguments{"-y", "-nostdin", "-v", "error"};
    append(arguments, seekArguments(options.trim));
    if (formatWhitelist) {
        append(arguments, {"-format_whitelist", *formatWhitelist, "-protocol_whitelist", "file"});
    }
    append(arguments, {"-i", source.string(), "-vn", "-map", "0:a:0", "-map_metadata", "0"});
    if (options.trim.start || options.trim.end) {
        append(arguments, {"-map_chapters", "-1"});
    }
    if (options.sampleRate) {
        append(arguments, {"-ar", fmt::format("{}", *options.sampleRate)});
    }
    if (options.channels) {
        append(arguments, {"-ac", fmt::format("{}", *options.channels)});
    }
    switch (options.codec) {
        case AudioExtractionCodec::aac:
            append(arguments, {"-c:a", "aac", "-b:a", fmt::format("{}k", options.bitrateKbps),
                               "-movflags", "+faststart"});
            break;
        case AudioExtractionCodec::pcmS16LE:
            append(arguments, {"-c:a", "pcm_s16le"});
            break;
        case AudioExtractionCodec::flac:
            append(arguments, {"-c:a", "flac", "-sample_fmt", "s16"});
            break;
    }
    appendProgress(arguments, output);
    return arguments;
}

}  // namespace tessarin::engine
