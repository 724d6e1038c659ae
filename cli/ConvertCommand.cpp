#include <iostream>

#include "cli/ClipListOption.hpp"
#include "cli/Commands.hpp"
#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/JobRunner.hpp"
#include "cli/PresetCatalog.hpp"
#include "cli/PresetGate.hpp"
#include "engine/job/ConversionJob.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;

// The checks every command makes before its first job, then the jobs. `preset`, when given, must
// be able to run here.
int runPlanned(const std::vector<PlannedJob>& jobs, const engine::Preset* preset,
               const std::optional<fs::path>& outputDirectory, bool json,
               Interruption& interruption) {
    const Preflight checked = preflight(outputDirectory);
    if (!checked.tools) {
        return checked.status;
    }
    const engine::Tools& tools = *checked.tools;
    const PresetGate gate(tools);
    if (preset != nullptr) {
        if (const auto reason = gate.disabledReason(*preset)) {
            std::cerr << "tessarin: the preset \"" << preset->id << "\" can't run here: " << *reason
                      << "\n";
            return kExitFailure;
        }
    }
    EventSink sink(json);
    return runWork(jobItems(jobs, {tools, gate, outputDirectory, interruption}), sink,
                   interruption);
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
    RangeOptions ranges = request.ranges;
    try {
        checkRangeOptions(ranges, request.files.size());
        if (const std::optional<int> refused = readClipList(ranges, request.files, request.json)) {
            return *refused;
        }
        jobs = planConversions(*preset, request.files, ranges);
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
