#include "engine/clips/WaveformPreview.hpp"

#include <fmt/format.h>

#include <cmath>
#include <string_view>

namespace tessarin::engine {

namespace {

using Kind = WaveformPreview::Failure::Kind;

constexpr std::string_view kPngSignature{"\x89PNG\r\n\x1a\n", 8};

}  // namespace

const char* WaveformPreview::Failure::what() const noexcept {
    switch (kind_) {
        case Kind::range:
            return "Choose a finite waveform window between 0 and 30 seconds long.";
        case Kind::cancelled:
            return "Waveform cancelled.";
        case Kind::unavailable:
            return "Waveform unavailable for this range. Try another window or use the trim "
                   "fields.";
    }
    return "Waveform failed.";
}

std::vector<std::string> WaveformPreview::arguments(const std::filesystem::path& source,
                                                    double start, double length) {
    if (!std::isfinite(start) || start < 0 || !std::isfinite(length) || length <= 0 ||
        length > kMaximumLength) {
        throw Failure(Kind::range);
    }
    const std::string graph = fmt::format(
        "[0:a:0]aresample=8000:async=1:first_pts=0,apad=whole_dur={0:.6f},"
        "atrim=duration={0:.6f},showwavespic=s={1}x{2}:colors=white:filter=peak[wave]",
        length, kWidth, kHeight);
    return {"-nostdin",
            "-v",
            "error",
            "-ss",
            fmt::format("{:.6f}", start),
            "-i",
            source.string(),
            "-filter_complex",
            graph,
            "-map",
            "[wave]",
            "-frames:v",
            "1",
            "-f",
            "image2pipe",
            "-c:v",
            "png",
            "-"};
}

std::string WaveformPreview::render(const std::filesystem::path& source, const Tools& tools,
                                    double start, double length, ProcessRunner& runner) {
    const std::vector<std::string> args = arguments(source, start, length);
    std::string picture;
    bool overflowed = false;
    ProcessRunner::RawOptions options;
    options.timeout = kTimeoutSeconds;
    options.stdoutHandler = ProcessRunner::collectInto(picture, overflowed, kOutputLimit);
    ProcessResult result;
    try {
        result = runner.runRaw(tools.ffmpeg, args, std::move(options));
    } catch (const LaunchError&) {
        throw Failure(Kind::unavailable);
    }
    if (result.wasCancelled && !result.timedOut) {
        throw Failure(Kind::cancelled);
    }
    if (result.timedOut || result.exitCode != 0 || result.outputIncomplete || overflowed ||
        !std::string_view(picture).starts_with(kPngSignature)) {
        throw Failure(Kind::unavailable);
    }
    return picture;
}

}  // namespace tessarin::engine
