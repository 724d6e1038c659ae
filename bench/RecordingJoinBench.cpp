// Finalising a paused take of 10 two-second 1920x1080 fragmented-MP4 segments against the bare
// join of the same files:
//   bare: ffmpeg -f concat -i LIST -c copy OUT, nothing checked;
//   take: RecordingFiles::finalize, which scans each segment, joins with the concat demuxer,
//         probes the result and publishes it between its marker files, then removes the take.
// Runs alternate; prints the median of each and the ratio take / bare (target: at most 1.2).
// Usage: [runs] (default 5). Needs CONVERTER_TOOLS_DIR or the build's helper folder.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/BenchSupport.hpp"
#include "engine/recording/RecordingFiles.hpp"

namespace {

namespace fs = std::filesystem;
using namespace tessarin::engine;
using Clock = std::chrono::steady_clock;

constexpr int kSegments = 10;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const std::optional<Tools> tools = tessarin::bench::locateTools();
    const std::optional<fs::path> folder = tessarin::bench::makeFolder("tessarin-take-bench");
    if (!tools || !folder) {
        return 2;
    }
    std::printf("making %d two-second 1920x1080 fragmented segments...\n", kSegments);
    std::fflush(stdout);
    const fs::path sources = *folder / "segments";
    fs::create_directory(sources);
    std::ofstream list(sources / "list.txt");
    for (int index = 0; index < kSegments; ++index) {
        const std::string name = segmentName(index);
        if (!tessarin::bench::runQuietly(
                tools->ffmpeg,
                tessarin::bench::testClipArguments(
                    sources / name, "1920x1080", 2,
                    {"-g", "30", "-movflags", "frag_keyframe+empty_moov+default_base_moof",
                     "-frag_duration", "1000000"}))) {
            return 1;
        }
        list << "file '" << name << "'\n";
    }
    list.close();
    const fs::path root = *folder / "root";
    const fs::path destination = *folder / "Recordings";
    fs::create_directory(destination);
    const fs::path bareOutput = *folder / "bare.mp4";
    const std::vector<std::string> bare = {"-y", "-nostdin", "-v", "error", "-f", "concat", "-i",
                                           (sources / "list.txt").string(), "-c", "copy",
                                           bareOutput.string()};

    std::vector<double> bareTimes;
    std::vector<double> takeTimes;
    for (int run = 0; run < runs; ++run) {
        auto start = Clock::now();
        if (!tessarin::bench::runQuietly(tools->ffmpeg, bare)) {
            return 1;
        }
        bareTimes.push_back(secondsSince(start));
        fs::remove(bareOutput);

        try {
            RecordingFiles files = RecordingFiles::create(root, destination,
                                                          "take-" + std::to_string(run) + ".mp4",
                                                          30, 1);
            for (int index = 0; index < kSegments; ++index) {
                fs::copy_file(sources / segmentName(index), files.nextSegmentURL());
            }
            RecordingWork work;
            work.tools = *tools;
            start = Clock::now();
            const RecordingFiles::Finalized done = files.finalize(work);
            takeTimes.push_back(secondsSince(start));
            fs::remove(done.published);
        } catch (const std::exception& error) {
            std::fprintf(stderr, "finalising failed: %s\n", error.what());
            return 1;
        }
        std::printf("run %d: bare %.3f s, take %.3f s\n", run + 1, bareTimes.back(),
                    takeTimes.back());
        std::fflush(stdout);
    }
    const double bareMedian = tessarin::bench::median(bareTimes);
    const double takeMedian = tessarin::bench::median(takeTimes);
    std::printf("median bare join: %.3f s\nmedian finalised take: %.3f s\nratio take/bare: %.3f "
                "(target <= 1.2)\n",
                bareMedian, takeMedian, takeMedian / bareMedian);
    std::error_code ignored;
    fs::remove_all(*folder, ignored);
    return 0;
}
