#include <array>
#include <iostream>
#include <memory>
#include <utility>

#include "cli/Commands.hpp"
#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/JobRunner.hpp"
#include "engine/frames/FrameExtractionJob.hpp"
#include "engine/frames/FrameManifest.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;
using engine::FrameExtractionOptions;
using engine::FrameWarning;

// What each warning means to a person; --json gives the raw value beside it.
constexpr std::array<std::pair<FrameWarning, const char*>, 5> kWarningSentences = {{
    {FrameWarning::hdrNotToneMapped,
     "The video is HDR and its frames were not tone-mapped, so their colours may look washed "
     "out."},
    {FrameWarning::decodedShort,
     "The video could not be decoded to its end; the frames stop where decoding stopped."},
    {FrameWarning::budgetPruned,
     "The picture changed more often than the frame budget allows; the least telling changes "
     "were left out."},
    {FrameWarning::permissionsNotEnforced,
     "The destination can't keep the frames private to you; they have its usual permissions."},
    {FrameWarning::contactSheetSkipped,
     "The contact sheet could not be drawn; the frames and frames.json are complete."},
}};

std::string sentenceFor(FrameWarning warning) {
    for (const auto& [row, sentence] : kWarningSentences) {
        if (row == warning) {
            return sentence;
        }
    }
    return std::string(engine::rawValue(warning));
}

// The export every file gets, checked as the job would check it. Throws UsageError.
FrameExtractionOptions frameOptions(const FramesRequest& request) {
    FrameExtractionOptions options;
    const auto mode = engine::frameSelectionModeFromRaw(request.mode);
    if (!mode) {
        throw UsageError("--mode takes changes or interval.");
    }
    const auto format = engine::frameImageFormatFromRaw(request.format);
    if (!format) {
        throw UsageError("--format takes jpeg or png.");
    }
    options.mode = *mode;
    options.format = *format;
    options.maxFrames = request.maxFrames;
    options.maxSize = request.maxSize;
    options.contactSheet = request.contactSheet;
    if (request.trim) {
        options.trim = parseTrim(*request.trim);
    }
    try {
        options.validate();
    } catch (const FrameExtractionOptions::Invalid& invalid) {
        throw UsageError(invalid.what());
    }
    return options;
}

// What the exports of one command share. The references must outlive every export.
struct FramesContext {
    const engine::Tools& tools;
    std::optional<fs::path> outputDirectory;
    Interruption& interruption;
};

// Runs one export that a signal cancels. Throws engine::JobFailure only.
Published exportFrames(const fs::path& source, const FrameExtractionOptions& options,
                       const FramesContext& context, const WorkCallbacks& callbacks) {
    auto job = std::make_shared<engine::FrameExtractionJob>(fs::absolute(source), options,
                                                            context.outputDirectory, context.tools);
    context.interruption.watch(job);
    engine::FrameExtractionJob::Callbacks reports;
    reports.onProgress = [&](double fraction) { callbacks.onProgress(fraction); };
    reports.onWarning = [&](FrameWarning warning) {
        callbacks.onCodedWarning(std::string(engine::rawValue(warning)), sentenceFor(warning));
    };
    const engine::FrameExtractionResult result = job->run(reports);
    // Cannot throw: frames.json already holds every time the index repeats.
    return {result.directory, engine::FrameIndex(result.manifest, result.directory).encoded()};
}

std::vector<WorkItem> frameItems(const std::vector<fs::path>& files,
                                 const FrameExtractionOptions& options,
                                 const FramesContext& context) {
    std::vector<WorkItem> items;
    items.reserve(files.size());
    for (const fs::path& file : files) {
        items.push_back({file, "frames", [file, options, context](const WorkCallbacks& callbacks) {
                             return exportFrames(file, options, context, callbacks);
                         }});
    }
    return items;
}

}  // namespace

int runFrames(const FramesRequest& request) {
    Interruption interruption;  // first, so every later thread has the signals blocked

    FrameExtractionOptions options;
    try {
        options = frameOptions(request);
    } catch (const UsageError& error) {
        std::cerr << "tessarin: " << error.what() << "\n";
        return kExitUsage;
    }
    const Preflight checked = preflight(request.outputDirectory);
    if (!checked.tools) {
        return checked.status;
    }
    EventSink sink(request.json);
    return runWork(
        frameItems(request.files, options, {*checked.tools, request.outputDirectory, interruption}),
        sink, interruption);
}

}  // namespace tessarin::cli
