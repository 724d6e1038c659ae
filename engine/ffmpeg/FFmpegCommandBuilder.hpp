// Argument vectors for ffmpeg and gifsicle, built from a source, an output, the conversion
// options, an audio plan and optional join ranges.
//
// Every function is pure: it holds no state, runs nothing and touches no file, so any thread
// may call it at any time. Each string of a result is one argument of an argv with no shell
// involved, and the order is part of the contract (what stands before "-i" applies to the
// input). Times the user typed stay text; computed times are printed with "%.6f" or "%.9f"
// independent of the user's locale.
//
// Paths are passed as they stand. Callers give absolute paths: ffmpeg would read a relative
// path beginning with "-" as an option and one like "http:x" as a protocol.
//
// Nothing here throws. Misuse that the layers above must prevent (vp9 in MP4, anything but
// webm(vp9) for WebM, a join with no ranges, more than 500, or a range whose ends do not parse)
// is a programmer error: the process prints the reason and aborts.
//
//   std::vector<std::string> argv = FFmpegCommandBuilder::mp4Arguments(
//       source, output, preset.options, AudioPlan::forSource(info.hasAudio, info.audioCodec),
//       std::nullopt, info.videoCodec);
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "engine/ffmpeg/AudioPlan.hpp"
#include "engine/ffmpeg/HardwareEncoderBlock.hpp"
#include "engine/model/AudioExtractionOptions.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::engine {

// The ranges of a join task in the order they are joined; absent for every other task.
using JoinRanges = std::optional<std::vector<Trim>>;

class FFmpegCommandBuilder {
public:
    FFmpegCommandBuilder() = delete;

    // "-ss" start and "-to" end, each only when present, as the user typed them.
    [[nodiscard]] static std::vector<std::string> seekArguments(const Trim& trim);

    // The comma-joined video filter chain: the scale filter (even dimensions except for GIF),
    // then "fps=" for MP4 and WebM when options.fps is set, or for GIF always (10 when unset)
    // followed by "trim=duration=" when duration() has a value. Nothing when nothing applies.
    [[nodiscard]] static std::optional<std::string> chain(const ConversionOptions& options,
                                                          const JoinRanges& ranges);

    // The output length as "%.9f" text: the sum of the ranges, or without ranges the one range
    // of `trim` (nothing when trim.end is absent). Nothing when any range does not parse, is
    // empty, or the sum is not finite and above zero.
    [[nodiscard]] static std::optional<std::string> duration(const Trim& trim,
                                                             const JoinRanges& ranges);

    // The filter graph that splits input 0's first video (and with audio its first audio)
    // stream, trims each range and concatenates them into "[jv]" (and "[ja]"). Requires 1 to
    // 500 ranges whose ends both parse; otherwise aborts.
    [[nodiscard]] static std::string joinGraph(const std::vector<Trim>& ranges, bool withAudio);

    // One MP4 encode. `sourceVideoCodec` is the probed codec_name ("av1" turns on hardware
    // decoding). For h264VT and hevcVT `hardware` supplies the encoder; when absent the NVENC
    // block of defaultHardwareEncoderBlock is used. `hardware` is ignored for software codecs.
    // Aborts for vp9.
    [[nodiscard]] static std::vector<std::string> mp4Arguments(
        const std::filesystem::path& source, const std::filesystem::path& output,
        const ConversionOptions& options, AudioPlan audio, const JoinRanges& ranges,
        const std::optional<std::string>& sourceVideoCodec,
        const std::optional<HardwareEncoderBlock>& hardware = std::nullopt);

    // One WebM encode with libvpx-vp9 and, when there is audio, libopus. Aborts unless
    // options.format is webm(vp9).
    [[nodiscard]] static std::vector<std::string> webmArguments(
        const std::filesystem::path& source, const std::filesystem::path& output,
        const ConversionOptions& options, AudioPlan audio, const JoinRanges& ranges,
        const std::optional<std::string>& sourceVideoCodec);

    // The first GIF pass: writes the palette image `palette` (a PNG path in the job's folder).
    [[nodiscard]] static std::vector<std::string> gifPaletteArguments(
        const std::filesystem::path& source, const std::filesystem::path& palette,
        const ConversionOptions& options, const JoinRanges& ranges,
        const std::optional<std::string>& sourceVideoCodec);

    // The second GIF pass: renders `output` from the source with the palette as input 1.
    [[nodiscard]] static std::vector<std::string> gifRenderArguments(
        const std::filesystem::path& source, const std::filesystem::path& palette,
        const std::filesystem::path& output, const ConversionOptions& options,
        const JoinRanges& ranges, const std::optional<std::string>& sourceVideoCodec);

    // gifsicle's optimising pass from `input` to `output`, lossy as options.lossy says.
    [[nodiscard]] static std::vector<std::string> gifsicleArguments(
        const std::filesystem::path& input, const std::filesystem::path& output,
        const ConversionOptions& options);

    // Writes the source's first audio track to `output`. `formatWhitelist` is the list of
    // container formats ffmpeg may open (the transcription input policy's list); when present it
    // goes in as "-format_whitelist", with only the "file" protocol allowed.
    [[nodiscard]] static std::vector<std::string> audioExtractionArguments(
        const std::filesystem::path& source, const std::filesystem::path& output,
        const AudioExtractionOptions& options, const std::optional<std::string>& formatWhitelist);
};

}  // namespace tessarin::engine
