#include <iostream>
#include <memory>

#include "cli/ClipListOption.hpp"
#include "cli/Commands.hpp"
#include "cli/Confirmation.hpp"
#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/JobRunner.hpp"
#include "cli/PresetGate.hpp"
#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/FastCut.hpp"
#include "engine/clips/KeyframeProbe.hpp"
#include "engine/job/JoinedFastCut.hpp"
#include "engine/probe/MediaProbe.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;
using engine::ClipSelection;
using engine::FastCut;

constexpr const char* kNeedsConfirmation =
    "tessarin: nothing was exported; review the plans above and run again with --yes to export "
    "them.\n";
constexpr const char* kDeclined = "tessarin: nothing was exported.\n";

// The command line's ranges, checked once for every file.
struct CutRanges {
    std::optional<engine::Trim> trim;
    std::vector<ClipSelection> segments;
    bool joined = false;
    bool removing = false;  // joined: what is left once the segments are taken out
};

CutRanges parseRanges(const RangeOptions& options, std::size_t fileCount) {
    checkRangeOptions(options, fileCount);
    if (options.join && *options.join != "keep" && *options.join != "remove") {
        throw UsageError("--join takes keep or remove.");
    }
    if (!options.trim && options.segments.empty() && !options.clipList) {
        throw UsageError("A cut needs --trim, --segment or --clip-list.");
    }
    CutRanges ranges;
    if (options.trim) {
        ranges.trim = parseTrim(*options.trim);
    }
    ranges.segments = parseSegments(options);
    ranges.joined = options.join.has_value();
    ranges.removing = options.join == "remove";
    return ranges;
}

// The cuts of one file, planned and shown for review: one output each, or one joined output.
struct FileCuts {
    fs::path source;
    std::vector<PlannedJob> cuts;
    bool joined = false;
};

// Plans cuts of one file at a time and shows each plan. Every tool run can be interrupted.
class Planner {
public:
    Planner(const engine::Tools& tools, Interruption& interruption, EventSink& sink)
        : tools_(tools), interruption_(interruption), sink_(sink) {}

    // Throws what probing and planning throw: MediaProbeError, FastCut::Failure,
    // KeyframeProbe::Failure, ClipSelection::Invalid.
    FileCuts planFile(const fs::path& source, const CutRanges& ranges) {
        source_ = fs::absolute(source);
        info_ = probe();
        FileCuts file{source, {}, ranges.joined};
        if (ranges.trim) {
            file.cuts.push_back(cut(source, engine::MediaTask::fastCut(*ranges.trim), "cut", {}));
        } else if (!ranges.joined) {
            for (std::size_t index = 0; index < ranges.segments.size(); ++index) {
                const std::string part = "clip " + std::to_string(index + 1);
                file.cuts.push_back(cut(source,
                                        engine::taskForClip(engine::MediaTask::fastCut({}),
                                                            ranges.segments[index], index),
                                        "cut " + part, part));
            }
        } else {
            file.cuts = joinedPieces(source, ranges.segments, ranges.removing);
        }
        return file;
    }

private:
    engine::MediaInfo probe() {
        auto runner = std::make_shared<engine::ProcessRunner>();
        interruption_.watch(runner);
        // Chapters too, so that the plan can count the ones a cut leaves out.
        return engine::MediaProbe::probe(source_, tools_, engine::MediaInputPolicy::unrestricted,
                                         *runner, engine::MediaProbe::kTimeoutSeconds,
                                         /*includeChapters=*/true);
    }

    FastCut::Plan plan(const engine::Trim& trim) {
        return FastCut::plan(
            source_, trim, info_, tools_,
            [this](std::shared_ptr<engine::ProcessRunner> runner) { interruption_.watch(runner); });
    }

    PlannedJob cut(const fs::path& source, const engine::MediaTask& task, const std::string& label,
                   const std::string& part) {
        const FastCut::Plan planned = plan(std::get<engine::MediaTask::FastCut>(task.kind).trim);
        sink_.plan(source, part, planned);
        return {source, task, label, planned};
    }

    // The ranges a convert join keeps (the segments, or what is left without them), each
    // planned (see JoinedFastCut::plan).
    std::vector<PlannedJob> joinedPieces(const fs::path& source,
                                         const std::vector<ClipSelection>& segments,
                                         bool removing) {
        const std::vector<engine::JoinedFastCut::Piece> pieces = engine::JoinedFastCut::plan(
            source_, segments, removing, info_, tools_,
            [this](std::shared_ptr<engine::ProcessRunner> runner) { interruption_.watch(runner); });
        std::vector<PlannedJob> cuts;
        for (std::size_t index = 0; index < pieces.size(); ++index) {
            const std::string part = "part " + std::to_string(index + 1);
            sink_.plan(source, part, pieces[index].plan);
            cuts.push_back({source, engine::MediaTask::fastCut(pieces[index].trim), "cut " + part,
                            pieces[index].plan});
        }
        return cuts;
    }

    const engine::Tools& tools_;
    Interruption& interruption_;
    EventSink& sink_;
    fs::path source_;
    engine::MediaInfo info_;
};

std::size_t outputCount(const std::vector<FileCuts>& files) {
    std::size_t count = 0;
    for (const FileCuts& file : files) {
        count += file.joined ? 1 : file.cuts.size();
    }
    return count;
}

std::vector<WorkItem> workItems(const std::vector<FileCuts>& files, const JobContext& context) {
    std::vector<WorkItem> items;
    for (const FileCuts& file : files) {
        if (file.joined) {
            std::vector<engine::JoinedFastCut::Piece> pieces;
            for (const PlannedJob& cut : file.cuts) {
                pieces.push_back(
                    {std::get<engine::MediaTask::FastCut>(cut.task.kind).trim, *cut.fastCutPlan});
            }
            items.push_back(
                {file.source, "cut join", [file, pieces, context](const WorkCallbacks& callbacks) {
                     auto join = std::make_shared<engine::JoinedFastCut>(
                         fs::absolute(file.source), pieces, context.tools, context.outputDirectory);
                     context.interruption.watch(join);
                     return Published{join->run(callbacks)};
                 }});
        } else {
            for (WorkItem& item : jobItems(file.cuts, context)) {
                items.push_back(std::move(item));
            }
        }
    }
    return items;
}

// Nothing when the export may go ahead, otherwise the exit status.
std::optional<int> confirmation(std::size_t count, bool yes, const Interruption& interruption) {
    if (yes) {
        return std::nullopt;
    }
    if (!canAsk()) {
        std::cerr << kNeedsConfirmation;
        return kExitNeedsConfirmation;
    }
    const std::string question =
        "Export " + std::to_string(count) + (count == 1 ? " cut? [y/N] " : " cuts? [y/N] ");
    switch (ask(question, interruption)) {
        case Answer::yes:
            return std::nullopt;
        case Answer::interrupted:
            return kExitCancelled;
        case Answer::no:
            break;
    }
    std::cerr << kDeclined;
    return kExitNeedsConfirmation;
}

}  // namespace

int runCut(const CutRequest& request) {
    Interruption interruption;  // first, so every later thread has the signals blocked

    CutRanges ranges;
    RangeOptions options = request.ranges;
    try {
        checkRangeOptions(options, request.files.size());
        if (const std::optional<int> refused = readClipList(options, request.files, request.json)) {
            return *refused;
        }
        ranges = parseRanges(options, request.files.size());
    } catch (const UsageError& error) {
        std::cerr << "tessarin: " << error.what() << "\n";
        return kExitUsage;
    }
    const Preflight checked = preflight(request.outputDirectory);
    if (!checked.tools) {
        return checked.status;
    }
    const engine::Tools& tools = *checked.tools;

    EventSink sink(request.json);
    Planner planner(tools, interruption, sink);
    std::vector<FileCuts> planned;
    bool anyRefused = false;
    for (const fs::path& file : request.files) {
        std::string refusal;
        try {
            planned.push_back(planner.planFile(file, ranges));
            continue;
        } catch (const engine::MediaProbeError& error) {
            refusal = error.what();
        } catch (const FastCut::Failure& failure) {
            refusal = failure.what();
        } catch (const engine::KeyframeProbe::Failure& failure) {
            refusal = failure.what();
        } catch (const ClipSelection::Invalid& invalid) {
            refusal = invalid.what();
        }
        // A tool run stopped by Ctrl-C fails too; that is a cancel, not the file's fault.
        if (interruption.interrupted()) {
            sink.interrupted(file);
            return kExitCancelled;
        }
        sink.refused(file, "cut", refusal);
        anyRefused = true;
    }
    if (planned.empty()) {
        return kExitFailure;
    }
    if (const std::optional<int> status =
            confirmation(outputCount(planned), request.yes, interruption)) {
        return *status;
    }

    const PresetGate gate(tools);  // fast cuts need no encoder, so it never probes
    const int status =
        runWork(workItems(planned, {tools, gate, request.outputDirectory, interruption}), sink,
                interruption);
    return status == kExitSuccess && anyRefused ? kExitFailure : status;
}

}  // namespace tessarin::cli
