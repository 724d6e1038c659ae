#include "cli/CutJoin.hpp"

#include <fmt/format.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <system_error>

#include "engine/probe/MediaProbe.hpp"
#include "engine/publish/Destination.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/Publish.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;
using engine::JobFailure;

constexpr double kPiecesShare = 0.9;
// The concat demuxer starts each piece where the previous one's longest stream ended, and a
// piece's audio may run up to one AAC frame past its video: each seam may add that much.
constexpr double kSeamToleranceSeconds = 0.1;

constexpr const char* kNotAsPlanned =
    "The joined cuts did not come out as planned, so they were not published.";

// The private folder of one join, removed with everything in it on every way out.
class WorkFolder {
public:
    WorkFolder() : path_(engine::temporaryRoot() / engine::newWorkFolderName()) {
        engine::makePrivateFolder(path_);
    }
    ~WorkFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    [[nodiscard]] const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

double plannedSeconds(const PlannedJob& piece) {
    return piece.fastCutPlan->end - piece.fastCutPlan->start;
}

double plannedSeconds(const std::vector<PlannedJob>& pieces) {
    double total = 0;
    for (const PlannedJob& piece : pieces) {
        total += plannedSeconds(piece);
    }
    return total;
}

bool keepsAudio(const engine::FastCut::Plan& plan) {
    for (const engine::MediaTrack& track : plan.retainedTracks) {
        if (track.kind == "audio") {
            return true;
        }
    }
    return false;
}

// The pieces under plain names, listed for the concat demuxer: names of letters, digits and
// hyphens relative to the list pass its safe mode, whatever the source was called.
fs::path writePieceList(const fs::path& folder, const std::vector<fs::path>& pieces) {
    const fs::path list = folder / "pieces.txt";
    std::ofstream out(list);
    for (std::size_t index = 0; index < pieces.size(); ++index) {
        const std::string name = fmt::format("piece-{:03}.mp4", index + 1);
        fs::rename(pieces[index], folder / name);
        out << "file '" << name << "'\n";
    }
    out.close();
    if (!out) {
        throw JobFailure::sentence("join", "The list of cuts to join could not be written.");
    }
    return list;
}

void concatenate(const fs::path& list, const fs::path& joined, const JobContext& context) {
    const std::vector<std::string> arguments = {
        "-nostdin", "-hide_banner", "-v",          "error", "-f",
        "concat",   "-i",           list.string(), "-map",  "0",
        "-c",       "copy",         "-f",          "mp4",   joined.string()};
    auto runner = std::make_shared<engine::ProcessRunner>();
    context.interruption.watch(runner);
    engine::ProcessResult result;
    try {
        result = runner->run(context.tools.ffmpeg, arguments);
    } catch (const engine::LaunchError& error) {
        throw JobFailure("join", -1, std::string("ffmpeg could not be started: ") + error.what());
    }
    if (result.wasCancelled) {
        throw JobFailure::cancelled("join");
    }
    if (result.exitCode != 0) {
        throw JobFailure(
            "join", result.exitCode,
            result.stderrTail.empty() ? "ffmpeg could not join the cuts." : result.stderrTail);
    }
}

// Probes the joined file back: the kept streams, and the planned length within the seams'
// slack.
void verify(const fs::path& joined, const std::vector<PlannedJob>& pieces,
            const JobContext& context) {
    auto runner = std::make_shared<engine::ProcessRunner>();
    context.interruption.watch(runner);
    engine::MediaInfo info;
    try {
        info = engine::MediaProbe::probe(joined, context.tools,
                                         engine::MediaInputPolicy::unrestricted, *runner);
    } catch (const engine::MediaProbeError& error) {
        if (error.kind == engine::MediaProbeError::Kind::cancelled) {
            throw JobFailure::cancelled("verify");
        }
        throw JobFailure::sentence("verify", kNotAsPlanned);
    }
    const double planned = plannedSeconds(pieces);
    const double slack = kSeamToleranceSeconds * static_cast<double>(pieces.size());
    const bool audio = keepsAudio(*pieces.front().fastCutPlan);
    if (info.videoCodec != "h264" || info.hasAudio != audio ||
        (audio && info.audioCodec != "aac") || !info.durationSeconds ||
        std::abs(*info.durationSeconds - planned) > slack) {
        throw JobFailure::sentence("verify", kNotAsPlanned);
    }
}

fs::path joinInWorkFolder(const fs::path& source, const std::vector<PlannedJob>& pieces,
                          const JobContext& context,
                          const engine::ConversionJob::Callbacks& callbacks) {
    // A destination that can't take the result fails before anything is cut.
    engine::checkDestination(engine::outputFolder(source, context.outputDirectory), true);

    const WorkFolder work;
    JobContext inWork = context;
    inWork.outputDirectory = work.path();

    const double total = plannedSeconds(pieces);
    const auto report = [&](double fraction) {
        if (callbacks.onProgress) {
            callbacks.onProgress(fraction);
        }
    };
    std::vector<fs::path> cut;
    double done = 0;
    for (const PlannedJob& piece : pieces) {
        const double share = total > 0 ? plannedSeconds(piece) / total : 0;
        engine::ConversionJob::Callbacks scaled = callbacks;
        scaled.onProgress = [&](std::optional<double> fraction) {
            if (fraction) {
                report(kPiecesShare * (done + share * *fraction));
            }
        };
        cut.push_back(runJob(piece, inWork, scaled));
        done += share;
    }

    const fs::path joined = work.path() / "joined.mp4";
    concatenate(writePieceList(work.path(), cut), joined, context);
    verify(joined, pieces, context);
    const auto cancelled = [&context] { return context.interruption.interrupted(); };
    if (cancelled()) {
        throw JobFailure::cancelled("publish");
    }
    const fs::path published = engine::publishUnderFreeName(
        joined, source, engine::outputNaming(engine::MediaTask::fastCut({})),
        context.outputDirectory, cancelled);
    report(1.0);
    return published;
}

}  // namespace

fs::path joinCuts(const fs::path& source, const std::vector<PlannedJob>& pieces,
                  const JobContext& context, const engine::ConversionJob::Callbacks& callbacks) {
    try {
        return joinInWorkFolder(fs::absolute(source), pieces, context, callbacks);
    } catch (const JobFailure&) {
        throw;
    } catch (const std::exception& error) {
        // The work folder, the list and the renames: file-system calls of our own.
        throw JobFailure::sentence("join",
                                   std::string("The cuts could not be joined: ") + error.what());
    }
}

}  // namespace tessarin::cli
