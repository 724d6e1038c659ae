// Line throughput of ProcessRunner::runLines against the floor set by `cat` writing the same
// file to /dev/null. A child prints 64 MiB in lines of 64 KiB; the ratio printed at the end
// is runLines time over cat time.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "engine/process/ProcessRunner.hpp"

namespace {

using tessarin::engine::ProcessRunner;

constexpr std::size_t kTotalBytes = 64U << 20;
constexpr std::size_t kLineBytes = 64U << 10;  // including the line break

const std::filesystem::path& sampleFile() {
    static const std::filesystem::path path = [] {
        std::filesystem::path file = std::filesystem::temp_directory_path() /
                                     ("tessarin-bench-lines-" + std::to_string(::getpid()));
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        std::string line(kLineBytes - 1, 'x');
        line += '\n';
        for (std::size_t written = 0; written < kTotalBytes; written += line.size()) {
            out.write(line.data(), static_cast<std::streamsize>(line.size()));
        }
        return file;
    }();
    return path;
}

void BM_RunLines(benchmark::State& state) {
    for (auto _ : state) {
        ProcessRunner runner;
        std::size_t lines = 0;
        std::size_t bytes = 0;
        const auto result = runner.runLines("/bin/cat", {sampleFile().string()}, std::nullopt,
                                            std::nullopt, [&](std::string_view line) {
                                                ++lines;
                                                bytes += line.size();
                                            });
        if (result.exitCode != 0 || lines != kTotalBytes / kLineBytes) {
            state.SkipWithError("unexpected line count or exit status");
            return;
        }
        benchmark::DoNotOptimize(bytes);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotalBytes));
}

void BM_CatToDevNull(benchmark::State& state) {
    const std::string command = "/bin/cat '" + sampleFile().string() + "' > /dev/null";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("cat failed");
            return;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotalBytes));
}

BENCHMARK(BM_RunLines)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_CatToDevNull)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

// Times both once more after the benchmarks and prints the ratio.
double secondsFor(void (*body)()) {
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    constexpr int kRounds = 5;
    double runLinesSeconds = 0;
    double catSeconds = 0;
    for (int i = 0; i < kRounds; ++i) {
        runLinesSeconds += secondsFor([] {
            ProcessRunner runner;
            (void)runner.runLines("/bin/cat", {sampleFile().string()}, std::nullopt, std::nullopt,
                                  [](std::string_view) {});
        });
        catSeconds += secondsFor([] {
            const std::string command = "/bin/cat '" + sampleFile().string() + "' > /dev/null";
            (void)std::system(command.c_str());
        });
    }
    std::printf("runLines 64 MiB in 64 KiB lines: %.1f ms; cat to /dev/null: %.1f ms; ratio %.2f\n",
                1000 * runLinesSeconds / kRounds, 1000 * catSeconds / kRounds,
                runLinesSeconds / catSeconds);
    std::filesystem::remove(sampleFile());
    benchmark::Shutdown();
    return 0;
}
