// Conversion-job tests: a job runner that records what the job reported, fake tools, and small
// probes of finished files.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "engine/job/ConversionJob.hpp"
#include "tests/support/Files.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
// Readable failures in test messages.
void PrintTo(const JobFailure& failure, std::ostream* out);
}  // namespace tessarin::engine

namespace tessarin::test {

// What one run of a job reported, in order.
struct JobRecord {
    struct Event {
        std::optional<engine::JobPhase> phase;  // a phase, or else a progress report
        std::optional<double> fraction;
    };
    std::optional<std::filesystem::path> published;
    std::optional<engine::JobFailure> failure;
    std::vector<std::string> warnings;
    std::vector<Event> events;
    std::optional<engine::MediaInfo> info;
};

// Source, output and temporary folders of one job test.
using JobSandbox = Sandbox;

// A tools folder in `folder` holding links to the helper ffmpeg and ffprobe and, for each body
// given, a script of that body in place of the tool ("$REAL" in a body is the real tool's path).
[[nodiscard]] engine::Tools fakeTools(const std::filesystem::path& folder,
                                      std::optional<std::string> ffprobeBody,
                                      std::optional<std::string> gifsicleBody);

// Runs `job` on this thread, recording everything it reported.
[[nodiscard]] JobRecord runJob(engine::ConversionJob& job);

// A job on `source` into the sandbox's output folder.
[[nodiscard]] std::unique_ptr<engine::ConversionJob> makeJob(
    const JobSandbox& sandbox, const std::filesystem::path& source, engine::MediaTask task,
    engine::MediaInputPolicy policy = engine::MediaInputPolicy::unrestricted,
    std::optional<engine::Tools> tools = std::nullopt);

// Decoded video frames of the first video stream.
[[nodiscard]] int64_t countVideoFrames(const std::filesystem::path& path);

// Polls `condition` until it holds; false at `limit`.
[[nodiscard]] bool waitUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds limit = std::chrono::seconds(20));

// The encode target of a running local job writing into `outputFolder`: a ".converting-" file
// inside a ".tessarin-scratch-" folder.
[[nodiscard]] std::optional<std::filesystem::path> findEncodeTarget(
    const std::filesystem::path& outputFolder);

// Twenty seconds of 640x360 test pattern at 25 fps with a tone: long enough that an encode
// is still running well after its output file appeared.
[[nodiscard]] std::filesystem::path longClip();

// A preset whose options carry `trim`.
[[nodiscard]] engine::Preset withTrim(engine::Preset preset, engine::Trim trim);

}  // namespace tessarin::test
