// The job's overhead over bare ffmpeg, on a 10-second 1280x720 clip with the H.264 preset:
//   bare: the very argument vector the job builds, run directly by ffmpeg;
//   job:  ConversionJob::run, with its probe, verification and publication.
// Runs alternate so that drift in the machine's load hits both alike. Prints the median of each
// and the ratio job / bare (target: at most 1.05), the fixed overhead in milliseconds with the
// share of the two ffprobe runs the job must make (timed alone), then the peak resident memory
// of this process (which ran the jobs) against the largest child (ffmpeg). Usage: [runs]
// (default 5).
// Needs CONVERTER_TOOLS_DIR or the build's helper folder beside the executable.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/BenchSupport.hpp"
#include "engine/ffmpeg/FFmpegCommandBuilder.hpp"
#include "engine/job/ConversionJob.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tessarin::engine;
using tessarin::bench::median;
using tessarin::bench::runQuietly;
using Clock = std::chrono::steady_clock;

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const std::optional<Tools> tools = tessarin::bench::locateTools();
    const std::optional<fs::path> madeFolder = tessarin::bench::makeFolder("tessarin-job-bench");
    if (!tools || !madeFolder) {
        return 2;
    }
    const fs::path folder = *madeFolder;
    const fs::path source = folder / "source.mp4";
    const fs::path outputs = folder / "out";
    fs::create_directory(outputs);
    fs::permissions(outputs, fs::perms::owner_all, fs::perm_options::replace);
    if (!runQuietly(tools->ffmpeg, tessarin::bench::testClipArguments(source, "1280x720", 10))) {
        return 1;
    }
    ProcessRunner probeRunner;
    const MediaInfo info =
        MediaProbe::probe(source, *tools, MediaInputPolicy::unrestricted, probeRunner);
    const Preset& preset = Preset::mp4H264();
    const fs::path bareOutput = folder / "bare.mp4";
    const std::vector<std::string> bareArguments = FFmpegCommandBuilder::mp4Arguments(
        source, bareOutput, preset.options, AudioPlan::forSource(info.hasAudio, info.audioCodec),
        std::nullopt, info.videoCodec);

    std::vector<double> bare;
    std::vector<double> job;
    std::vector<double> probes;
    for (int run = 0; run < runs; ++run) {
        // The two probes the job must make (source and result), timed on their own.
        auto probeStart = Clock::now();
        for (int i = 0; i < 2; ++i) {
            ProcessRunner runner;
            (void)MediaProbe::probe(source, *tools, MediaInputPolicy::unrestricted, runner);
        }
        probes.push_back(std::chrono::duration<double>(Clock::now() - probeStart).count());

        auto start = Clock::now();
        if (!runQuietly(tools->ffmpeg, bareArguments)) {
            return 1;
        }
        bare.push_back(std::chrono::duration<double>(Clock::now() - start).count());
        fs::remove(bareOutput);

        start = Clock::now();
        ConversionJob conversion(
            source, MediaTask::convert(preset), *tools, MediaInputPolicy::unrestricted,
            EncoderCapabilityPolicy{SoftwareHEVCSource::privateBundled}, outputs);
        try {
            const fs::path published = conversion.run();
            job.push_back(std::chrono::duration<double>(Clock::now() - start).count());
            fs::remove(published);
        } catch (const JobFailure& failure) {
            std::fprintf(stderr, "job failed: %s: %s\n", failure.step.c_str(),
                         failure.stderrTail.c_str());
            return 1;
        }
        std::printf("run %d: bare %.3f s, job %.3f s\n", run + 1, bare.back(), job.back());
        std::fflush(stdout);
    }
    const double bareMedian = median(bare);
    const double jobMedian = median(job);
    const double probesMedian = median(probes);
    std::printf(
        "median bare ffmpeg: %.3f s\nmedian ConversionJob: %.3f s\nratio job/bare: %.3f "
        "(target <= 1.05)\n",
        bareMedian, jobMedian, jobMedian / bareMedian);
    std::printf("fixed overhead: %.0f ms, of which two ffprobe runs %.0f ms, the rest %.0f ms\n",
                1000 * (jobMedian - bareMedian), 1000 * probesMedian,
                1000 * (jobMedian - bareMedian - probesMedian));

    struct rusage self {};
    struct rusage children {};
    ::getrusage(RUSAGE_SELF, &self);
    ::getrusage(RUSAGE_CHILDREN, &children);
    std::printf(
        "peak RSS of the job process: %ld KiB; largest child (ffmpeg): %ld KiB; ratio %.3f\n",
        self.ru_maxrss, children.ru_maxrss,
        static_cast<double>(self.ru_maxrss) / static_cast<double>(children.ru_maxrss));
    std::error_code ignored;
    fs::remove_all(folder, ignored);
    return 0;
}
