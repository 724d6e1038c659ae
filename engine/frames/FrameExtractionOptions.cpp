#include "engine/frames/FrameExtractionOptions.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace tessarin::engine {

namespace {

constexpr int64_t kAutomaticMinimumFrames = 24;
constexpr double kSecondsPerAutomaticFrame = 5.0;
constexpr int64_t kBytesPerFrame = 614'400;
constexpr int64_t kLeastBytesNeeded = 52'428'800;
constexpr std::size_t kSelectGroupSize = 50;

// The same seek and decoder choice for both passes, so that they see the same frames.
void addInput(std::vector<std::string>& arguments, const std::filesystem::path& input, double start,
              bool av1) {
    if (start > 0) {
        // Lands on an earlier keyframe: the frames before the start come with negative times,
        // which the selector uses to represent the start itself.
        arguments.insert(arguments.end(),
                         {"-noaccurate_seek", "-ss", fmt::format("{:.6f}", start)});
    }
    if (av1) {
        arguments.insert(arguments.end(), {"-hwaccel", "auto"});
    }
    arguments.insert(arguments.end(), {"-i", input.string()});
}

}  // namespace

std::string_view rawValue(FrameImageFormat format) {
    return format == FrameImageFormat::jpeg ? "jpeg" : "png";
}

std::string_view fileExtension(FrameImageFormat format) {
    return format == FrameImageFormat::jpeg ? "jpg" : "png";
}

std::optional<FrameImageFormat> frameImageFormatFromRaw(std::string_view raw) {
    if (raw == "jpeg") {
        return FrameImageFormat::jpeg;
    }
    if (raw == "png") {
        return FrameImageFormat::png;
    }
    return std::nullopt;
}

const char* FrameExtractionOptions::Invalid::what() const noexcept {
    return kind_ == Kind::maxFrames ? "Choose between 2 and 1000 frames."
                                    : "Choose a maximum size between 64 and 2576 pixels.";
}

void FrameExtractionOptions::validate() const {
    if (maxFrames && (*maxFrames < kMinimumFrames || *maxFrames > kMaximumFrames)) {
        throw Invalid(Invalid::Kind::maxFrames);
    }
    if (maxSize < kMinimumSize || maxSize > kMaximumSize) {
        throw Invalid(Invalid::Kind::maxSize);
    }
}

int64_t automaticFrameBudget(double windowSeconds) {
    if (!std::isfinite(windowSeconds)) {
        return kAutomaticMinimumFrames;
    }
    const double count = std::round(std::max(windowSeconds, 0.0) / kSecondsPerAutomaticFrame);
    return std::clamp(static_cast<int64_t>(std::min(count, 1e9)), kAutomaticMinimumFrames,
                      FrameExtractionOptions::kMaximumFrames);
}

int64_t frameExportBytesNeeded(int64_t frames) {
    return std::max(kLeastBytesNeeded, std::max<int64_t>(frames, 0) * kBytesPerFrame);
}

std::string longEdgeScale(int64_t edge, int64_t freeEdge) {
    return fmt::format("scale='if(gte(iw,ih),min({0},iw),{1})':'if(gte(iw,ih),{1},min({0},ih))'",
                       edge, freeEdge);
}

std::vector<std::string> frameAnalysisArguments(const std::filesystem::path& input, double start,
                                                double window, bool av1) {
    std::vector<std::string> arguments = {"-nostdin", "-hide_banner", "-nostats", "-loglevel",
                                          "info"};
    addInput(arguments, input, start, av1);
    const std::string filter = fmt::format("trim=end={:.6f},{}:flags=area,format=gray,showinfo",
                                           window, longEdgeScale(320, -1));
    arguments.insert(arguments.end(), {"-an", "-sn", "-dn", "-map", "0:V:0", "-vf", filter,
                                       "-fps_mode", "passthrough", "-f", "rawvideo", "pipe:1"});
    return arguments;
}

std::string frameSelectExpression(const std::vector<int64_t>& pts) {
    std::vector<std::string> groups;
    for (std::size_t first = 0; first < pts.size(); first += kSelectGroupSize) {
        std::vector<std::string> terms;
        for (std::size_t i = first; i < std::min(pts.size(), first + kSelectGroupSize); ++i) {
            terms.push_back(fmt::format("eq(pts\\,{})", pts[i]));
        }
        groups.push_back(fmt::format("({})", fmt::join(terms, "+")));
    }
    return fmt::format("{}", fmt::join(groups, "+"));
}

std::vector<std::string> frameExtractionArguments(const std::filesystem::path& input,
                                                  const std::filesystem::path& outLink,
                                                  double start, double window,
                                                  const std::vector<int64_t>& pts, int64_t maxSize,
                                                  FrameImageFormat format, bool av1) {
    const bool jpeg = format == FrameImageFormat::jpeg;
    // The unselected branch keeps progress counting the whole range, not only what is written.
    const std::string graph = fmt::format(
        "[0:V:0]trim=end={:.6f},split[a][b];[a]select='{}',{}:flags=lanczos{},showinfo[frames];"
        "[b]null[progress]",
        window, frameSelectExpression(pts), longEdgeScale(maxSize, -2),
        jpeg ? ":out_color_matrix=bt601:out_range=pc" : "");
    std::vector<std::string> arguments = {"-nostdin", "-hide_banner", "-nostats", "-loglevel",
                                          "info",     "-progress",    "pipe:1"};
    addInput(arguments, input, start, av1);
    arguments.insert(arguments.end(),
                     {"-filter_complex", graph, "-map", "[frames]", "-fps_mode", "passthrough"});
    if (jpeg) {
        arguments.insert(arguments.end(), {"-c:v", "mjpeg", "-q:v", "5"});
    } else {
        arguments.insert(arguments.end(), {"-c:v", "png"});
    }
    std::string pattern;
    for (const char c : outLink.string()) {
        pattern += c;
        if (c == '%') {
            pattern += '%';  // image2 reads % as the start of a number pattern
        }
    }
    pattern += fmt::format("/%06d.{}", fileExtension(format));
    arguments.insert(arguments.end(), {"-f", "image2", "-start_number", "1", pattern, "-map",
                                       "[progress]", "-f", "null", "-"});
    return arguments;
}

}  // namespace tessarin::engine
