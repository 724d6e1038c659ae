// Driving the built `tessarin` executable from tests: runs with captured streams, files put in
// place, and the facts and events read back.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "engine/probe/MediaInfo.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::cli {

// The `tessarin` program of this build.
[[nodiscard]] const std::filesystem::path& toolPath();

struct ToolRun {
    int exitCode;
    std::string out;
    std::string err;
};

// Runs the tool with this process's environment plus `extra`, standard input from /dev/null
// (so never a terminal), capturing both streams. The configuration folder is a private one
// unless `extra` names another.
[[nodiscard]] ToolRun runTool(const std::vector<std::string>& arguments,
                              const engine::ProcessRunner::Environment& extra = {});

// Descriptors a started tool gets as its standard streams; -1 leaves the test's own.
struct ToolStreams {
    int in = -1;
    int out = -1;
    int err = -1;
};

// Starts the tool with `arguments` and exactly `environment` ("KEY=value" entries) without
// waiting for it, and returns its process id; -1, failing the test, when it could not start.
// The caller reaps it.
[[nodiscard]] pid_t spawnTool(const std::vector<std::string>& arguments,
                              const std::vector<std::string>& environment,
                              const ToolStreams& streams);

// This process's environment as "KEY=value" entries.
[[nodiscard]] std::vector<std::string> currentEnvironment();

// Copies `file` into `folder` as `name` and returns the copy's path.
std::filesystem::path copyInto(const std::filesystem::path& folder,
                               const std::filesystem::path& file, const std::string& name);

// The names in `folder`, sorted.
[[nodiscard]] std::vector<std::string> namesIn(const std::filesystem::path& folder);

// The facts of `file` from the helper folder's ffprobe.
[[nodiscard]] engine::MediaInfo probe(const std::filesystem::path& file);

// The --json events of a run's standard output, one per line; a line that isn't JSON throws,
// failing the test.
[[nodiscard]] std::vector<nlohmann::json> jsonEvents(const std::string& out);

// A `tessarin --json` run on a copy of one source, alone in a folder of its own, with a private
// work folder as TMPDIR; its events are read as they come, so that a test can signal it mid-work.
class RunningTool {
public:
    // Copies `source` into the folder as `name` and starts the tool with `arguments`, --json and
    // the copy. The tool's environment is TMPDIR, PATH=/usr/bin:/bin, CONVERTER_TOOLS_DIR (the
    // helper folder) and `environment` ("KEY=value" entries), nothing else.
    RunningTool(const std::filesystem::path& source, const std::string& name,
                const std::vector<std::string>& arguments,
                const std::vector<std::string>& environment = {});
    ~RunningTool();  // kills and reaps the tool when a test left it running
    RunningTool(const RunningTool&) = delete;
    RunningTool& operator=(const RunningTool&) = delete;

    // Reads events until one reports progress above zero; false when the output ended first.
    [[nodiscard]] bool waitForProgress();
    // The last event before the output closed.
    [[nodiscard]] std::string lastEvent();
    // Signals the tool and reaps it; its wait status.
    int stop(int signal);

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] const std::filesystem::path& folder() const { return folder_.path(); }
    [[nodiscard]] const std::filesystem::path& workRoot() const { return workRoot_.path(); }

private:
    test::TempDir folder_;
    test::TempDir workRoot_;
    pid_t pid_ = -1;
    FILE* events_ = nullptr;
    char* line_ = nullptr;
    size_t capacity_ = 0;
};

}  // namespace tessarin::cli
