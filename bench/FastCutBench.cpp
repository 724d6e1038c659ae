// A fast cut of a 5-minute 1280x720 H.264 file against the bare stream copy of the same range:
//   bare: ffmpeg -ss START -i SOURCE -t LENGTH -c copy, the range a user would type;
//   cut:  the probe and plan a review makes, then ConversionJob copying the reviewed plan with
//         its boundary decodes, verification and publication.
// Runs alternate; prints the median of each and the ratio cut / bare (target: at most 1.5).
// Usage: [runs] (default 5). Needs CONVERTER_TOOLS_DIR or the build's helper folder.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/BenchSupport.hpp"
#include "engine/clips/FastCut.hpp"
#include "engine/job/ConversionJob.hpp"
#include "engine/probe/MediaProbe.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tessarin::engine;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const std::optional<Tools> tools = tessarin::bench::locateTools();
    const std::optional<fs::path> folder = tessarin::bench::makeFolder("tessarin-cut-bench");
    if (!tools || !folder) {
        return 2;
    }
    const fs::path source = *folder / "source.mp4";
    const fs::path outputs = *folder / "out";
    fs::create_directory(outputs);
    std::printf("making a 5-minute 1280x720 source...\n");
    std::fflush(stdout);
    if (!tessarin::bench::runQuietly(tools->ffmpeg,
                                     tessarin::bench::testClipArguments(source, "1280x720", 300))) {
        return 1;
    }
    const Trim trim{"37", "263"};
    const fs::path bareOutput = *folder / "bare.mp4";
    const std::vector<std::string> bare = {"-y",
                                           "-nostdin",
                                           "-v",
                                           "error",
                                           "-ss",
                                           "37",
                                           "-i",
                                           source.string(),
                                           "-t",
                                           "226",
                                           "-c",
                                           "copy",
                                           bareOutput.string()};

    std::vector<double> bareTimes;
    std::vector<double> cutTimes;
    for (int run = 0; run < runs; ++run) {
        auto start = Clock::now();
        if (!tessarin::bench::runQuietly(tools->ffmpeg, bare)) {
            return 1;
        }
        bareTimes.push_back(secondsSince(start));
        fs::remove(bareOutput);

        start = Clock::now();
        try {
            ProcessRunner probeRunner;
            const MediaInfo info =
                MediaProbe::probe(source, *tools, MediaInputPolicy::unrestricted, probeRunner,
                                  MediaProbe::kTimeoutSeconds, true);
            const FastCut::Plan plan = FastCut::plan(source, trim, info, *tools);
            ConversionJob job(source, MediaTask::fastCut(trim), *tools,
                              MediaInputPolicy::unrestricted, EncoderCapabilityPolicy{}, outputs);
            job.expectedFastCutPlan = plan;
            const fs::path published = job.run();
            cutTimes.push_back(secondsSince(start));
            fs::remove(published);
        } catch (const JobFailure& failure) {
            std::fprintf(stderr, "cut failed: %s: %s\n", failure.step.c_str(),
                         failure.stderrTail.c_str());
            return 1;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "planning failed: %s\n", error.what());
            return 1;
        }
        std::printf("run %d: bare %.3f s, cut %.3f s\n", run + 1, bareTimes.back(),
                    cutTimes.back());
        std::fflush(stdout);
    }
    const double bareMedian = tessarin::bench::median(bareTimes);
    const double cutMedian = tessarin::bench::median(cutTimes);
    std::printf(
        "median bare copy: %.3f s\nmedian fast cut: %.3f s\nratio cut/bare: %.3f (target "
        "<= 1.5)\n",
        bareMedian, cutMedian, cutMedian / bareMedian);
    std::error_code ignored;
    fs::remove_all(*folder, ignored);
    return 0;
}
