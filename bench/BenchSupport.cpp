#include "bench/BenchSupport.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "engine/process/ProcessRunner.hpp"

namespace tessarin::bench {

namespace fs = std::filesystem;

std::optional<engine::Tools> locateTools() {
    std::optional<engine::Tools> tools = engine::Tools::fromEnvironment();
    if (!tools) {
        tools = engine::Tools::inBundle(engine::Tools::bundledHelperDirectory());
    }
    if (!tools) {
        std::fprintf(stderr, "no tools: set CONVERTER_TOOLS_DIR\n");
    }
    return tools;
}

std::optional<fs::path> makeFolder(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        return std::nullopt;
    }
    return fs::path(pattern);
}

bool runQuietly(const fs::path& executable, const std::vector<std::string>& arguments) {
    engine::ProcessRunner runner;
    const engine::ProcessResult result = runner.run(executable, arguments);
    if (result.exitCode != 0 || result.wasCancelled) {
        std::fprintf(stderr, "%s failed (%d): %s\n", executable.c_str(), result.exitCode,
                     result.stderrTail.c_str());
        return false;
    }
    return true;
}

std::vector<std::string> testClipArguments(const fs::path& output, const std::string& size,
                                           int seconds, const std::vector<std::string>& extra) {
    const std::string length = std::to_string(seconds);
    std::vector<std::string> arguments = {
        "-y",       "-nostdin",
        "-v",       "error",
        "-f",       "lavfi",
        "-i",       "testsrc2=size=" + size + ":rate=25:duration=" + length,
        "-f",       "lavfi",
        "-i",       "sine=frequency=440:sample_rate=48000:duration=" + length,
        "-c:v",     "libx264",
        "-preset",  "ultrafast",
        "-pix_fmt", "yuv420p"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    arguments.insert(arguments.end(), {"-c:a", "aac", "-b:a", "128k", output.string()});
    return arguments;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace tessarin::bench
