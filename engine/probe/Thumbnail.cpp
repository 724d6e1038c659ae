#include "engine/probe/Thumbnail.hpp"

#include <fmt/format.h>

#include <string_view>

namespace tessarin::engine {

std::vector<std::string> Thumbnail::arguments(const std::filesystem::path& source, double at,
                                              int width) {
    std::vector<std::string> args = {"-nostdin", "-v", "error", "-skip_frame", "nokey"};
    if (at > 0) {
        // Frames before the time are dropped after the seek, so a keyframe must follow it.
        args.insert(args.end(), {"-ss", fmt::format("{:.6f}", at)});
    }
    args.insert(args.end(), {"-i", source.string(), "-map", "0:V:0", "-frames:v", "1", "-vf",
                             fmt::format("scale={}:-2:flags=fast_bilinear", width), "-f",
                             "image2pipe", "-c:v", "png", "-"});
    return args;
}

std::optional<std::string> Thumbnail::render(const std::filesystem::path& source,
                                             const Tools& tools, double at, int width,
                                             ProcessRunner& runner) {
    std::string picture;
    bool overflowed = false;
    ProcessRunner::RawOptions options;
    options.timeout = kTimeoutSeconds;
    options.stdoutHandler = ProcessRunner::collectInto(picture, overflowed, kOutputLimit);
    ProcessResult result;
    try {
        result = runner.runRaw(tools.ffmpeg, arguments(source, at, width), std::move(options));
    } catch (const LaunchError&) {
        return std::nullopt;
    }
    if (result.wasCancelled || result.exitCode != 0 || overflowed ||
        !std::string_view(picture).starts_with("\x89PNG")) {
        return std::nullopt;
    }
    return picture;
}

}  // namespace tessarin::engine
