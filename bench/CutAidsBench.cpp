// The trim editor's aids against what they cost at the least:
//   silence: SilenceSuggestions::analyze of a 10-minute clip against the bare
//            ffmpeg -af silencedetect -f null - of the same audio (target ratio: at most 1.1);
//   waveform: WaveformPreview::render of a 30-second window (target: under 150 ms);
//   thumbnail: Thumbnail::render of a 1080p source (target: under 100 ms).
// Prints the median of each. Usage: [runs] (default 5). Needs CONVERTER_TOOLS_DIR or the
// build's helper folder.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/BenchSupport.hpp"
#include "engine/clips/SilenceSuggestions.hpp"
#include "engine/clips/WaveformPreview.hpp"
#include "engine/probe/Thumbnail.hpp"

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
    const std::optional<fs::path> folder = tessarin::bench::makeFolder("tessarin-aids-bench");
    if (!tools || !folder) {
        return 2;
    }
    // Ten minutes of a still picture with a tone that pauses for 2 s every 10 s: the scan's cost
    // is the audio's.
    const fs::path talk = *folder / "talk.mp4";
    const fs::path hd = *folder / "hd.mp4";
    std::printf("making a 10-minute clip with pauses and a 1080p source...\n");
    std::fflush(stdout);
    if (!tessarin::bench::runQuietly(tools->ffmpeg,
                                     {"-y",
                                      "-nostdin",
                                      "-v",
                                      "error",
                                      "-f",
                                      "lavfi",
                                      "-i",
                                      "color=c=navy:size=320x180:rate=10:duration=600",
                                      "-f",
                                      "lavfi",
                                      "-i",
                                      "sine=frequency=440:sample_rate=48000:duration=600",
                                      "-filter_complex",
                                      "[1:a]volume=enable='lt(mod(t,10),2)':volume=0[a]",
                                      "-map",
                                      "0:v",
                                      "-map",
                                      "[a]",
                                      "-c:v",
                                      "libx264",
                                      "-preset",
                                      "ultrafast",
                                      "-c:a",
                                      "aac",
                                      "-shortest",
                                      talk.string()}) ||
        !tessarin::bench::runQuietly(tools->ffmpeg,
                                     tessarin::bench::testClipArguments(hd, "1920x1080", 5))) {
        return 1;
    }

    // Audio alone, as the scan reads it.
    const std::vector<std::string> bare = {
        "-nostdin",    "-v",   "error", "-i",
        talk.string(), "-vn",  "-af",   "silencedetect=n=-35dB:d=0.5",
        "-f",          "null", "-"};
    std::vector<double> bareTimes;
    std::vector<double> scanTimes;
    std::vector<double> waveTimes;
    std::vector<double> thumbTimes;
    std::size_t clips = 0;
    for (int run = 0; run < runs; ++run) {
        auto start = Clock::now();
        if (!tessarin::bench::runQuietly(tools->ffmpeg, bare)) {
            return 1;
        }
        bareTimes.push_back(secondsSince(start));

        start = Clock::now();
        try {
            ProcessRunner runner;
            clips =
                SilenceSuggestions::analyze(talk, *tools, SilenceSettings{}, 600.0, true, runner)
                    .size();
        } catch (const SilenceSuggestions::Failure& failure) {
            std::fprintf(stderr, "scan failed: %s\n", failure.what());
            return 1;
        }
        scanTimes.push_back(secondsSince(start));

        start = Clock::now();
        try {
            ProcessRunner runner;
            (void)WaveformPreview::render(talk, *tools, 95.0, 30.0, runner);
        } catch (const WaveformPreview::Failure& failure) {
            std::fprintf(stderr, "waveform failed: %s\n", failure.what());
            return 1;
        }
        waveTimes.push_back(secondsSince(start));

        start = Clock::now();
        ProcessRunner runner;
        if (!Thumbnail::render(hd, *tools, 0, 128, runner)) {
            std::fprintf(stderr, "thumbnail failed\n");
            return 1;
        }
        thumbTimes.push_back(secondsSince(start));
    }
    const double bareMedian = tessarin::bench::median(bareTimes);
    const double scanMedian = tessarin::bench::median(scanTimes);
    std::printf(
        "silence scan of 10 min (%zu keep clips): %.3f s; bare silencedetect: %.3f s; "
        "ratio %.3f (target <= 1.1)\n",
        clips, scanMedian, bareMedian, scanMedian / bareMedian);
    std::printf("waveform of a 30 s window: %.1f ms (target < 150 ms)\n",
                tessarin::bench::median(waveTimes) * 1000);
    std::printf("thumbnail of a 1080p source: %.1f ms (target < 100 ms)\n",
                tessarin::bench::median(thumbTimes) * 1000);
    std::error_code ignored;
    fs::remove_all(*folder, ignored);
    return 0;
}
