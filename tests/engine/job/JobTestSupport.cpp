#include "tests/engine/job/JobTestSupport.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <thread>

#include "engine/probe/MediaProbe.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "tests/support/FakeTools.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
void PrintTo(const JobFailure& failure, std::ostream* out) {
    *out << "JobFailure{step=" << failure.step << ", exit="
         << (failure.exitCode ? std::to_string(*failure.exitCode) : std::string("none"))
         << ", cancelled=" << failure.wasCancelled << ", text=\"" << failure.stderrTail << "\"}";
}
}  // namespace tessarin::engine

namespace tessarin::test {

namespace fs = std::filesystem;
using namespace engine;

Tools fakeTools(const fs::path& folder, std::optional<std::string> ffprobeBody,
                std::optional<std::string> gifsicleBody) {
    fs::create_directories(folder);
    const Tools real = helperTools();
    const auto place = [&](const char* name, const fs::path& realTool,
                           const std::optional<std::string>& body) {
        if (body) {
            std::string text = "REAL='" + realTool.string() + "'\n" + *body + "\n";
            (void)writeScript(folder, name, text);
        } else {
            fs::create_symlink(fs::canonical(realTool), folder / name);
        }
    };
    place("ffmpeg", real.ffmpeg, std::nullopt);
    place("ffprobe", real.ffprobe, ffprobeBody);
    place("gifsicle", real.gifsicle, gifsicleBody);
    return Tools{folder / "ffmpeg", folder / "ffprobe", folder / "gifsicle", std::nullopt};
}

JobRecord runJob(ConversionJob& job) {
    JobRecord record;
    ConversionJob::Callbacks callbacks;
    callbacks.onWarning = [&](const std::string& text) { record.warnings.push_back(text); };
    callbacks.onInfo = [&](const MediaInfo& info) { record.info = info; };
    callbacks.onPhase = [&](JobPhase phase) { record.events.push_back({phase, std::nullopt}); };
    callbacks.onProgress = [&](std::optional<double> fraction) {
        record.events.push_back({std::nullopt, fraction});
    };
    try {
        record.published = job.run(callbacks);
    } catch (const JobFailure& failure) {
        record.failure = failure;
    }
    return record;
}

std::unique_ptr<ConversionJob> makeJob(const JobSandbox& sandbox, const fs::path& source,
                                       MediaTask task, MediaInputPolicy policy,
                                       std::optional<Tools> tools) {
    return std::make_unique<ConversionJob>(
        source, std::move(task), tools ? *tools : helperTools(), policy,
        EncoderCapabilityPolicy{SoftwareHEVCSource::privateBundled}, sandbox.outputs());
}

int64_t countVideoFrames(const fs::path& path) {
    ProcessRunner runner;
    const ProcessResult result =
        runner.run(helperTools().ffprobe,
                   {"-v", "error", "-count_frames", "-select_streams", "v:0", "-show_entries",
                    "stream=nb_read_frames", "-of", "csv=p=0", path.string()},
                   true, false, 60.0);
    EXPECT_EQ(result.exitCode, 0) << result.stderrTail;
    return std::stoll(result.stdoutData.value_or("-1"));
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::optional<fs::path> findEncodeTarget(const fs::path& outputFolder) {
    std::error_code error;
    for (const auto& scratch : fs::directory_iterator(outputFolder, error)) {
        if (!scratch.path().filename().string().starts_with(".tessarin-scratch-")) {
            continue;
        }
        for (const auto& entry : fs::directory_iterator(scratch.path(), error)) {
            if (entry.path().filename().string().starts_with(".converting-")) {
                return entry.path();
            }
        }
    }
    return std::nullopt;
}

fs::path longClip() {
    return makeClip(
        "long-640x360.mp4",
        {"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25:duration=20", "-f", "lavfi", "-i",
         "sine=frequency=440:sample_rate=48000:duration=20", "-c:v", "libx264", "-preset",
         "ultrafast", "-pix_fmt", "yuv420p", "-c:a", "aac", "-b:a", "64k"});
}

Preset withTrim(Preset preset, Trim trim) {
    preset.options.trim = std::move(trim);
    return preset;
}

}  // namespace tessarin::test
