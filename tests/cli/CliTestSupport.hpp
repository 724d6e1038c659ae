// Driving the built `tessarin` executable from tests: runs with captured streams, files put in
// place, and the facts and events read back.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "engine/probe/MediaInfo.hpp"
#include "engine/process/ProcessRunner.hpp"

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

}  // namespace tessarin::cli
