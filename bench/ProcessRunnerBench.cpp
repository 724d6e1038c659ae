// Line throughput of ProcessRunner::runLines against the floor set by `cat` writing the same
// file to /dev/null (a child prints 64 MiB in lines of 64 KiB), and the cost of a start: 1,000
// runs of /bin/true through the runner against posix_spawn and waitpid alone (target: at most
// 1.2). The ratios printed at the end are runner time over the plain one.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "engine/process/ProcessRunner.hpp"

extern char** environ;

namespace {

using tessarin::engine::ProcessRunner;

constexpr int kSpawns = 1000;

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

void spawnTrueThroughRunner() {
    for (int i = 0; i < kSpawns; ++i) {
        ProcessRunner runner;
        if (runner.run("/bin/true", {}).exitCode != 0) {
            std::abort();
        }
    }
}

void spawnTrueDirectly() {
    char* argv[] = {const_cast<char*>("/bin/true"), nullptr};
    for (int i = 0; i < kSpawns; ++i) {
        pid_t pid = -1;
        int status = 0;
        if (::posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0 ||
            ::waitpid(pid, &status, 0) != pid || status != 0) {
            std::abort();
        }
    }
}

void BM_SpawnTrueThroughRunner(benchmark::State& state) {
    for (auto _ : state) {
        spawnTrueThroughRunner();
    }
}

void BM_SpawnTrueWithPosixSpawn(benchmark::State& state) {
    for (auto _ : state) {
        spawnTrueDirectly();
    }
}

BENCHMARK(BM_RunLines)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_CatToDevNull)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_SpawnTrueThroughRunner)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(BM_SpawnTrueWithPosixSpawn)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

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
    double runnerSeconds = 0;
    double spawnSeconds = 0;
    for (int i = 0; i < kRounds; ++i) {
        runnerSeconds += secondsFor(spawnTrueThroughRunner);
        spawnSeconds += secondsFor(spawnTrueDirectly);
    }
    std::printf("%d x /bin/true: runner %.1f ms; posix_spawn %.1f ms; ratio %.2f\n", kSpawns,
                1000 * runnerSeconds / kRounds, 1000 * spawnSeconds / kRounds,
                runnerSeconds / spawnSeconds);
    std::filesystem::remove(sampleFile());
    benchmark::Shutdown();
    return 0;
}
