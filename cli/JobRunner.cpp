#include "cli/JobRunner.hpp"

#include <iostream>
#include <memory>

#include "cli/ExitStatus.hpp"
#include "cli/ToolLookup.hpp"

namespace tessarin::cli {

namespace fs = std::filesystem;

Preflight preflight(const std::optional<fs::path>& outputDirectory) {
    if (outputDirectory && !fs::is_directory(*outputDirectory)) {
        std::cerr << "tessarin: the output folder does not exist or is not a folder.\n";
        return {std::nullopt, kExitUsage};
    }
    std::optional<engine::Tools> tools = locateTools();
    if (!tools) {
        return {std::nullopt, kExitToolsMissing};
    }
    return {std::move(tools), kExitSuccess};
}

fs::path runJob(const PlannedJob& planned, const JobContext& context,
                const engine::ConversionJob::Callbacks& callbacks) {
    auto job = std::make_shared<engine::ConversionJob>(
        fs::absolute(planned.source), planned.task, context.tools,
        engine::MediaInputPolicy::unrestricted, context.gate.policyFor(planned.task),
        context.outputDirectory, context.gate.hardwareFor(planned.task));
    job->expectedFastCutPlan = planned.fastCutPlan;
    context.interruption.watch(job);
    return job->run(callbacks);
}

std::vector<WorkItem> jobItems(const std::vector<PlannedJob>& jobs, const JobContext& context) {
    std::vector<WorkItem> items;
    items.reserve(jobs.size());
    for (const PlannedJob& planned : jobs) {
        items.push_back(
            {planned.source, planned.label, [planned, context](const WorkCallbacks& callbacks) {
                 return Published{runJob(planned, context, callbacks)};
             }});
    }
    return items;
}

int runWork(const std::vector<WorkItem>& items, EventSink& sink, const Interruption& interruption) {
    bool anyFailed = false;
    for (const WorkItem& item : items) {
        if (interruption.interrupted()) {
            break;
        }
        sink.start(item.source, item.label);
        try {
            WorkCallbacks callbacks;
            callbacks.onWarning = [&](const std::string& text) { sink.warning(text); };
            callbacks.onCodedWarning = [&](const std::string& code, const std::string& sentence) {
                sink.warning(code, sentence);
            };
            callbacks.onProgress = [&](std::optional<double> fraction) { sink.progress(fraction); };
            const Published published = item.run(callbacks);
            sink.done(published.path, published.index);
        } catch (const engine::JobFailure& failure) {
            if (failure.wasCancelled) {
                sink.cancelled();
                break;
            }
            anyFailed = true;
            sink.failed(failure.step, failure.stderrTail, failure.exitCode);
        }
    }
    if (interruption.interrupted()) {
        return kExitCancelled;
    }
    return anyFailed ? kExitFailure : kExitSuccess;
}

}  // namespace tessarin::cli
