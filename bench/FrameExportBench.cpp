// Frame export on a 2-minute 1920x1080 screen recording made of 12 slides, each of which gains
// a bullet line halfway (24 states of the screen in all):
//   analysis: the analysis pass alone against the same decode written to -f null (target: at
//             most 1.15);
//   export:   a whole FrameExtractionJob against ffmpeg's select='gt(scene,0.3)' one-liner
//             writing JPEGs (target: at most 2.2, since the export decodes twice), with the
//             number of states each found, and the peak memory of this process and of its
//             largest child.
// Usage: [runs] (default 3). Needs CONVERTER_TOOLS_DIR or the build's helper folder.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/BenchSupport.hpp"
#include "engine/frames/FrameExtractionJob.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tessarin::engine;
using Clock = std::chrono::steady_clock;

constexpr int kSlides = 12;
constexpr int kSlideSeconds = 10;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::size_t countFiles(const fs::path& folder, const std::string& extension) {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        count += entry.path().extension() == extension ? 1 : 0;
    }
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const std::optional<Tools> tools = tessarin::bench::locateTools();
    const std::optional<fs::path> folder = tessarin::bench::makeFolder("tessarin-frames-bench");
    if (!tools || !folder) {
        return 2;
    }
    const fs::path source = *folder / "recording.mp4";
    const std::string length = std::to_string(kSlides * kSlideSeconds);
    std::printf("making a 2-minute 1920x1080 slide recording...\n");
    std::fflush(stdout);
    const std::string graph =
        "color=c=white:s=1920x1080:r=30:d=" + length +
        ",drawtext=text='Slide %{eif\\:floor(t/10)+1\\:d}':fontsize=120:x=160:y=160:fontcolor=black"
        ",drawtext=text='- one more point on this slide':fontsize=48:x=160:y=520:fontcolor=black:"
        "enable='gte(mod(t\\,10)\\,5)'";
    if (!tessarin::bench::runQuietly(
            tools->ffmpeg, {"-y", "-nostdin", "-v", "error", "-f", "lavfi", "-i", graph, "-c:v",
                            "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
                            source.string()})) {
        return 1;
    }
    // The analysis pass's decode and scaling, without the pairing and selection.
    const std::vector<std::string> bareDecode = {
        "-nostdin", "-v",  "error", "-i", source.string(), "-an", "-map", "0:V:0", "-vf",
        "trim=end=" + length + "," + longEdgeScale(320, -1) + ":flags=area,format=gray",
        "-f", "null", "-"};
    const fs::path oneLinerFolder = *folder / "one-liner";
    fs::create_directory(oneLinerFolder);
    const std::vector<std::string> oneLiner = {
        "-nostdin", "-v", "error", "-i", source.string(), "-vf", "select='gt(scene,0.3)'",
        "-fps_mode", "passthrough", "-q:v", "5", (oneLinerFolder / "%04d.jpg").string()};

    std::vector<double> decodeTimes;
    std::vector<double> analysisTimes;
    std::vector<double> oneLinerTimes;
    std::vector<double> exportTimes;
    std::size_t exportFound = 0;
    std::size_t oneLinerFound = 0;
    for (int run = 0; run < runs; ++run) {
        auto start = Clock::now();
        if (!tessarin::bench::runQuietly(tools->ffmpeg, bareDecode)) {
            return 1;
        }
        decodeTimes.push_back(secondsSince(start));

        // The analysis pass alone: an export cancelled as soon as the extraction begins.
        FrameExtractionJob analysisOnly(source, FrameExtractionOptions{}, *folder, *tools);
        start = Clock::now();
        analysisOnly.betweenPassesHook = [&] {
            analysisTimes.push_back(secondsSince(start));
            analysisOnly.cancel();
        };
        try {
            (void)analysisOnly.run();
        } catch (const JobFailure&) {
        }

        fs::remove_all(oneLinerFolder);
        fs::create_directory(oneLinerFolder);
        start = Clock::now();
        if (!tessarin::bench::runQuietly(tools->ffmpeg, oneLiner)) {
            return 1;
        }
        oneLinerTimes.push_back(secondsSince(start));
        oneLinerFound = countFiles(oneLinerFolder, ".jpg");

        start = Clock::now();
        try {
            FrameExtractionJob job(source, FrameExtractionOptions{}, *folder, *tools);
            const FrameExtractionResult result = job.run();
            exportTimes.push_back(secondsSince(start));
            exportFound = result.manifest.frames.size();
            fs::remove_all(result.directory);
        } catch (const JobFailure& failure) {
            std::fprintf(stderr, "export failed: %s: %s\n", failure.step.c_str(),
                         failure.stderrTail.c_str());
            return 1;
        }
        std::printf("run %d: decode %.3f s, analysis %.3f s; one-liner %.3f s, export %.3f s\n",
                    run + 1, decodeTimes.back(), analysisTimes.back(), oneLinerTimes.back(),
                    exportTimes.back());
        std::fflush(stdout);
    }
    using tessarin::bench::median;
    std::printf("analysis vs bare decode: %.3f s vs %.3f s, ratio %.3f (target <= 1.15)\n",
                median(analysisTimes), median(decodeTimes),
                median(analysisTimes) / median(decodeTimes));
    std::printf("export vs one-liner: %.3f s vs %.3f s, ratio %.3f (target <= 2.2)\n",
                median(exportTimes), median(oneLinerTimes),
                median(exportTimes) / median(oneLinerTimes));
    std::printf("screen states: %d; export kept %zu frames, the one-liner wrote %zu\n",
                2 * kSlides, exportFound, oneLinerFound);
    struct rusage self {};
    struct rusage children {};
    ::getrusage(RUSAGE_SELF, &self);
    ::getrusage(RUSAGE_CHILDREN, &children);
    std::printf("peak RSS: this process %ld KiB, largest child %ld KiB\n", self.ru_maxrss,
                children.ru_maxrss);
    std::error_code ignored;
    fs::remove_all(*folder, ignored);
    return 0;
}
