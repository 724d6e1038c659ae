// Runs one conversion job in a process of its own, so that a test can kill the process in the
// middle of the work. Usage: tessarin_job_crash_tool SOURCE OUTPUT_FOLDER PRESET_ID TOOLS_FOLDER
// Exit status 0 when the output was published, 1 when the job failed, 2 on bad arguments.
#include <cstdio>
#include <string_view>

#include "engine/job/ConversionJob.hpp"

int main(int argc, char** argv) {
    using namespace tessarin::engine;
    if (argc != 5) {
        std::fputs("usage: tessarin_job_crash_tool SOURCE OUTPUT_FOLDER PRESET_ID TOOLS\n", stderr);
        return 2;
    }
    const Preset* preset = Preset::builtin(argv[3]);
    const std::optional<Tools> tools = Tools::inBundle(argv[4]);
    if (preset == nullptr || !tools) {
        std::fputs("unknown preset or incomplete tools folder\n", stderr);
        return 2;
    }
    ConversionJob job(argv[1], MediaTask::convert(*preset), *tools, MediaInputPolicy::unrestricted,
                      EncoderCapabilityPolicy{SoftwareHEVCSource::privateBundled},
                      std::filesystem::path(argv[2]));
    try {
        const std::filesystem::path published = job.run();
        std::printf("%s\n", published.c_str());
        return 0;
    } catch (const JobFailure& failure) {
        std::fprintf(stderr, "%s: %s\n", failure.step.c_str(), failure.stderrTail.c_str());
        return 1;
    }
}
