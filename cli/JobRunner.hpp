// The loop every converting command ends in: one unit of work at a time, each announced to the
// EventSink, stopped for good by Ctrl-C, ending in the command's exit status.
#pragma once

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/EventSink.hpp"
#include "cli/Interruption.hpp"
#include "cli/JobPlan.hpp"
#include "cli/PresetGate.hpp"
#include "engine/job/ConversionJob.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::cli {

// What the jobs of one command share. The references must outlive every job run with it.
struct JobContext {
    const engine::Tools& tools;
    const PresetGate& gate;
    std::optional<std::filesystem::path> outputDirectory;
    Interruption& interruption;
};

// What a unit of work reports while it runs: a conversion's callbacks, and warnings that carry a
// code for programs beside the sentence for people (a frame export's).
struct WorkCallbacks : engine::ConversionJob::Callbacks {
    std::function<void(const std::string& code, const std::string& sentence)> onCodedWarning;
};

// What a unit of work published.
struct Published {
    std::filesystem::path path;                          // the file, or a frame export's folder
    std::optional<nlohmann::json> index = std::nullopt;  // a frame export's FrameIndex JSON
};

// One output of a command: what the sink announces, and the run that publishes it.
struct WorkItem {
    std::filesystem::path source;
    std::string label;
    // Throws engine::JobFailure only.
    std::function<Published(const WorkCallbacks&)> run;
};

// What the checks before any work found: the tools, or the exit status to end with (its
// sentence already on stderr).
struct Preflight {
    std::optional<engine::Tools> tools;
    int status = 0;
};

// Checks that an --output-dir, when given, is a folder, then locates the tools.
[[nodiscard]] Preflight preflight(const std::optional<std::filesystem::path>& outputDirectory);

// Runs `planned` as a ConversionJob (with its fast-cut plan, when it has one) that a signal
// cancels, and returns the published path. Throws engine::JobFailure only.
[[nodiscard]] std::filesystem::path runJob(const PlannedJob& planned, const JobContext& context,
                                           const engine::ConversionJob::Callbacks& callbacks);

// The work items of planned jobs, each run by runJob with `context`.
[[nodiscard]] std::vector<WorkItem> jobItems(const std::vector<PlannedJob>& jobs,
                                             const JobContext& context);

// Runs the items one at a time; a failure doesn't stop the others, a cancellation does.
// Returns kExitSuccess, kExitFailure when an item failed, or kExitCancelled.
[[nodiscard]] int runWork(const std::vector<WorkItem>& items, EventSink& sink,
                          const Interruption& interruption);

}  // namespace tessarin::cli
