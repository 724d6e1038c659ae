// Throughput of ProgressParser::feed over a long synthetic -progress stream, fed in chunks of
// 1 B, 64 B, 512 B and 64 KiB. Reported as bytes per second (Google Benchmark prints MB/s).
#include <benchmark/benchmark.h>

#include <string>

#include "engine/progress/ProgressParser.hpp"

namespace {

using tessarin::engine::ProgressParser;

// About 1 MiB of blocks shaped like ffmpeg 5.1's, with growing counters.
const std::string& stream() {
    static const std::string text = [] {
        std::string out;
        for (int i = 0; out.size() < (1u << 20); ++i) {
            const long long micros = static_cast<long long>(i) * 40'000;
            out += "frame=" + std::to_string(i) + "\nfps=25.00\nstream_0_0_q=28.0\n";
            out += "bitrate= 512.3kbits/s\ntotal_size=" + std::to_string(i * 2048) + "\n";
            out += "out_time_us=" + std::to_string(micros) +
                   "\nout_time_ms=" + std::to_string(micros) +
                   "\nout_time=00:00:" + std::to_string(i / 25) + ".000000\n";
            out += "dup_frames=0\ndrop_frames=0\nspeed=1.23x\nprogress=continue\n";
        }
        return out;
    }();
    return text;
}

void BM_ProgressParserFeed(benchmark::State& state) {
    const std::string& text = stream();
    const auto chunk = static_cast<std::size_t>(state.range(0));
    std::size_t blocks = 0;
    for (auto _ : state) {
        ProgressParser parser;
        for (std::size_t at = 0; at < text.size(); at += chunk) {
            blocks += parser.feed(std::string_view(text).substr(at, chunk)).size();
        }
        benchmark::DoNotOptimize(parser.current());
    }
    benchmark::DoNotOptimize(blocks);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(text.size()));
}

BENCHMARK(BM_ProgressParserFeed)
    ->Arg(1)
    ->Arg(64)
    ->Arg(512)
    ->Arg(64 * 1024)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
