#include <iostream>

#include "cli/Commands.hpp"
#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/PresetCatalog.hpp"
#include "cli/PresetGate.hpp"
#include "cli/ToolLookup.hpp"
#include "engine/job/ConversionJob.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;

bool outputFolderIsUsable(const std::optional<fs::path>& folder) {
    if (folder && !fs::is_directory(*folder)) {
        std::cerr << "tessarin: the output folder does not exist or is not a folder.\n";
        return false;
    }
    return true;
}

// Runs the jobs one at a time. Stops at the first cancellation.
int runJobs(const std::vector<PlannedJob>& jobs, const engine::Tools& tools, const PresetGate& gate,
            const std::optional<fs::path>& outputDirectory, bool json, Interruption& interruption) {
    EventSink sink(json);
    bool anyFailed = false;
    for (const PlannedJob& planned : jobs) {
        if (interruption.interrupted()) {
            break;
        }
        sink.start(planned.source, planned.label);
        auto job = std::make_shared<engine::ConversionJob>(
            fs::absolute(planned.source), planned.task, tools,
            engine::MediaInputPolicy::unrestricted, gate.policyFor(planned.task), outputDirectory,
            gate.hardwareFor(planned.task));
        interruption.watch(job);
        try {
            engine::ConversionJob::Callbacks callbacks;
            callbacks.onWarning = [&](const std::string& text) { sink.warning(text); };
            callbacks.onProgress = [&](std::optional<double> fraction) { sink.progress(fraction); };
            sink.done(job->run(callbacks));
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

// The checks every command makes before its first job, then the jobs. `preset`, when given, must
// be able to run here.
int runPlanned(const std::vector<PlannedJob>& jobs, const engine::Preset* preset,
               const std::optional<fs::path>& outputDirectory, bool json,
               Interruption& interruption) {
    if (!outputFolderIsUsable(outputDirectory)) {
        return kExitUsage;
    }
    const std::optional<engine::Tools> tools = locateTools();
    if (!tools) {
        return kExitToolsMissing;
    }
    const PresetGate gate(*tools);
    if (preset != nullptr) {
        if (const auto reason = gate.disabledReason(*preset)) {
            std::cerr << "tessarin: the preset \"" << preset->id << "\" can't run here: " << *reason
                      << "\n";
            return kExitFailure;
        }
    }
    return runJobs(jobs, *tools, gate, outputDirectory, json, interruption);
}

}  // namespace

int runConvert(const ConvertRequest& request) {
    Interruption interruption;  // first, so every later thread has the signals blocked

    // Custom presets and edits of built-ins come from the settings the application shares.
    const std::optional<PresetCatalog> catalog = PresetCatalog::open();
    if (!catalog) {
        return kExitFailure;
    }
    const CatalogEntry* entry = catalog->find(request.presetId);
    const engine::Preset* preset = entry ? &entry->preset : nullptr;
    if (preset == nullptr) {
        std::cerr << "tessarin: unknown preset \"" << request.presetId
                  << "\"; `tessarin presets` lists them.\n";
        return kExitUsage;
    }
    std::vector<PlannedJob> jobs;
    try {
        jobs = planConversions(*preset, request.files, request.ranges);
    } catch (const UsageError& error) {
        std::cerr << "tessarin: " << error.what() << "\n";
        return kExitUsage;
    }
    return runPlanned(jobs, preset, request.outputDirectory, request.json, interruption);
}

int runExtractAudio(const ExtractAudioRequest& request) {
    Interruption interruption;
    std::vector<PlannedJob> jobs;
    try {
        jobs = planAudioExtractions(request.codec, request.files, request.trim);
    } catch (const UsageError& error) {
        std::cerr << "tessarin: " << error.what() << "\n";
        return kExitUsage;
    }
    return runPlanned(jobs, nullptr, request.outputDirectory, request.json, interruption);
}

}  // namespace tessarin::cli
