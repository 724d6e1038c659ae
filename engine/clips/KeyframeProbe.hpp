// The video keyframe nearest to a time in one direction, found by asking ffprobe for the packets
// of a bounded stretch of the file: at most kPacketLimit packets, starting at most
// kBackwardWindowSeconds before the time. It answers quickly or says that it can't.
//
// Times in and out are on the video's own timeline, zero at its first packet; `origin` is that
// packet's presentation time as the media probe reports it (MediaInfo::videoStart).
//
//   ProcessRunner runner;  // another thread may cancel it
//   double start = KeyframeProbe::find(source, tools, 12.0, info.videoStart.value_or(0),
//                                      KeyframeProbe::Direction::atOrBefore, std::nullopt, runner);
#pragma once

#include <cstddef>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

class KeyframeProbe {
public:
    // previous: strictly before; next: strictly after.
    enum class Direction { previous, next, atOrBefore, atOrAfter };

    // Why no keyframe came back; what() is the sentence shown to the user.
    class Failure : public std::exception {
    public:
        enum class Kind { timing, missing, cancelled };

        explicit Failure(Kind kind) noexcept : kind_(kind) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;

        bool operator==(const Failure& other) const noexcept { return kind_ == other.kind_; }

    private:
        Kind kind_;
    };

    static constexpr std::size_t kPacketLimit = 10'000;
    static constexpr double kBackwardWindowSeconds = 30.0;
    static constexpr double kTimeoutSeconds = 20.0;

    // ffprobe's arguments for a search from `time`: packets of the first video stream from the
    // scan's start on, at most kPacketLimit of them. Throws Failure(timing) when `time` or
    // `origin` is not usable.
    [[nodiscard]] static std::vector<std::string> arguments(const std::filesystem::path& source,
                                                            double time, double origin,
                                                            Direction direction);

    // Runs tools.ffprobe on `runner` (fresh; any thread may cancel it, also before this call)
    // and picks the keyframe. `limit`, the end of the video, lets `atOrAfter` answer the end
    // itself when the last packet ends exactly there. Blocks for the run, at most
    // kTimeoutSeconds plus the runner's grace. Returns seconds on the timeline; throws Failure
    // only.
    [[nodiscard]] static double find(const std::filesystem::path& source, const Tools& tools,
                                     double time, double origin, Direction direction,
                                     std::optional<double> limit, ProcessRunner& runner);

    // The choice made from ffprobe's JSON output, as find() makes it. Pure; any thread. Throws
    // Failure (timing or missing) only; what it returns lies on a keyframe of `json` (or is
    // `limit`), on the requested side of `time`.
    [[nodiscard]] static double pick(std::string_view json, double time, double origin,
                                     Direction direction, std::optional<double> limit);
};

}  // namespace tessarin::engine
