#include "engine/job/JoinedFastCut.hpp"

#include <fmt/format.h>

#include <cmath>
#include <fstream>
#include <system_error>
#include <utility>

#include "engine/publish/Destination.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/Publish.hpp"

namespace tessarin::engine {

namespace {

namespace fs = std::filesystem;

constexpr double kPiecesShare = 0.9;
// The concat demuxer starts each piece where the previous one's longest stream ended, and a
// piece's audio may run up to one AAC frame past its video: each seam may add that much.
constexpr double kSeamToleranceSeconds = 0.1;

constexpr const char* kNotAsPlanned =
    "The joined cuts did not come out as planned, so they were not published.";

// The private folder of one join, removed with everything in it on every way out.
class WorkFolder {
public:
    WorkFolder() : path_(temporaryRoot() / newWorkFolderName()) { makePrivateFolder(path_); }
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

double plannedSeconds(const JoinedFastCut::Piece& piece) {
    return piece.plan.end - piece.plan.start;
}

double plannedSeconds(const std::vector<JoinedFastCut::Piece>& pieces) {
    double total = 0;
    for (const JoinedFastCut::Piece& piece : pieces) {
        total += plannedSeconds(piece);
    }
    return total;
}

bool keepsAudio(const FastCut::Plan& plan) {
    for (const MediaTrack& track : plan.retainedTracks) {
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

}  // namespace

std::vector<JoinedFastCut::Piece> JoinedFastCut::plan(
    const fs::path& source, std::span<const ClipSelection> clips, bool removing,
    const MediaInfo& info, const Tools& tools,
    const std::function<void(std::shared_ptr<ProcessRunner>)>& runnerInstalled) {
    std::vector<Piece> pieces;
    for (const Trim& range : ClipSelection::join(clips, info.durationSeconds, removing)) {
        FastCut::Plan planned = FastCut::plan(source, range, info, tools, runnerInstalled);
        if (!pieces.empty() && planned.start <= pieces.back().plan.end) {
            const Trim merged{pieces.back().trim.start, range.end};
            pieces.back() = {merged, FastCut::plan(source, merged, info, tools, runnerInstalled)};
        } else {
            pieces.push_back({range, std::move(planned)});
        }
    }
    return pieces;
}

JoinedFastCut::JoinedFastCut(fs::path source, std::vector<Piece> pieces, Tools tools,
                             std::optional<fs::path> outputDirectory)
    : source_(fs::absolute(source)),
      pieces_(std::move(pieces)),
      tools_(std::move(tools)),
      outputDirectory_(std::move(outputDirectory)) {}

void JoinedFastCut::cancel(double grace) {
    std::shared_ptr<ConversionJob> job;
    std::shared_ptr<ProcessRunner> runner;
    {
        const std::lock_guard lock(mutex_);
        if (!cancelled_) {
            cancelled_ = true;
            grace_ = grace;
        }
        job = job_;
        runner = runner_;
    }
    if (job) {
        job->cancel(grace);
    }
    if (runner) {
        runner->cancel(grace);
    }
}

bool JoinedFastCut::isCancelled() const {
    const std::lock_guard lock(mutex_);
    return cancelled_;
}

bool JoinedFastCut::install(std::shared_ptr<ConversionJob> job,
                            std::shared_ptr<ProcessRunner> runner) {
    const std::lock_guard lock(mutex_);
    job_ = std::move(job);
    runner_ = std::move(runner);
    return !cancelled_;
}

fs::path JoinedFastCut::run(const ConversionJob::Callbacks& callbacks) {
    if (pieces_.empty()) {
        throw JobFailure::sentence("join", "There are no cuts to join.");
    }
    try {
        fs::path published = runInWorkFolder(callbacks);
        (void)install(nullptr, nullptr);
        return published;
    } catch (const JobFailure&) {
        (void)install(nullptr, nullptr);
        throw;
    } catch (const std::exception& error) {
        (void)install(nullptr, nullptr);
        // The work folder, the list and the renames: file-system calls of our own.
        throw JobFailure::sentence("join",
                                   std::string("The cuts could not be joined: ") + error.what());
    }
}

fs::path JoinedFastCut::cutPiece(const Piece& piece, const fs::path& folder,
                                 const ConversionJob::Callbacks& callbacks) {
    auto job = std::make_shared<ConversionJob>(source_, MediaTask::fastCut(piece.trim), tools_,
                                               MediaInputPolicy::unrestricted,
                                               EncoderCapabilityPolicy{}, folder);
    job->expectedFastCutPlan = piece.plan;
    if (!install(job, nullptr)) {
        throw JobFailure::cancelled("cut");
    }
    return job->run(callbacks);
}

fs::path JoinedFastCut::runInWorkFolder(const ConversionJob::Callbacks& callbacks) {
    // A destination that can't take the result fails before anything is cut.
    checkDestination(outputFolder(source_, outputDirectory_), true);

    const WorkFolder work;
    const double total = plannedSeconds(pieces_);
    const auto report = [&](double fraction) {
        if (callbacks.onProgress) {
            callbacks.onProgress(fraction);
        }
    };
    std::vector<fs::path> cut;
    double done = 0;
    for (const Piece& piece : pieces_) {
        const double share = total > 0 ? plannedSeconds(piece) / total : 0;
        ConversionJob::Callbacks scaled = callbacks;
        scaled.onProgress = [&](std::optional<double> fraction) {
            if (fraction) {
                report(kPiecesShare * (done + share * *fraction));
            }
        };
        cut.push_back(cutPiece(piece, work.path(), scaled));
        done += share;
    }

    const fs::path joined = work.path() / "joined.mp4";
    concatenate(writePieceList(work.path(), cut), joined);
    verify(joined);
    const auto cancelled = [this] { return isCancelled(); };
    if (cancelled()) {
        throw JobFailure::cancelled("publish");
    }
    const fs::path published = publishUnderFreeName(
        joined, source_, outputNaming(MediaTask::fastCut({})), outputDirectory_, cancelled);
    report(1.0);
    return published;
}

void JoinedFastCut::concatenate(const fs::path& list, const fs::path& joined) {
    const std::vector<std::string> arguments = {
        "-nostdin", "-hide_banner", "-v",          "error", "-f",
        "concat",   "-i",           list.string(), "-map",  "0",
        "-c",       "copy",         "-f",          "mp4",   joined.string()};
    auto runner = std::make_shared<ProcessRunner>();
    if (!install(nullptr, runner)) {
        throw JobFailure::cancelled("join");
    }
    ProcessResult result;
    try {
        result = runner->run(tools_.ffmpeg, arguments);
    } catch (const LaunchError& error) {
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

// Probes the joined file back: the kept streams, and the planned length within the seams' slack.
void JoinedFastCut::verify(const fs::path& joined) {
    auto runner = std::make_shared<ProcessRunner>();
    if (!install(nullptr, runner)) {
        throw JobFailure::cancelled("verify");
    }
    MediaInfo info;
    try {
        info = MediaProbe::probe(joined, tools_, MediaInputPolicy::unrestricted, *runner);
    } catch (const MediaProbeError& error) {
        if (error.kind == MediaProbeError::Kind::cancelled) {
            throw JobFailure::cancelled("verify");
        }
        throw JobFailure::sentence("verify", kNotAsPlanned);
    }
    const double planned = plannedSeconds(pieces_);
    const double slack = kSeamToleranceSeconds * static_cast<double>(pieces_.size());
    const bool audio = keepsAudio(pieces_.front().plan);
    if (info.videoCodec != "h264" || info.hasAudio != audio ||
        (audio && info.audioCodec != "aac") || !info.durationSeconds ||
        std::abs(*info.durationSeconds - planned) > slack) {
        throw JobFailure::sentence("verify", kNotAsPlanned);
    }
}

}  // namespace tessarin::engine
