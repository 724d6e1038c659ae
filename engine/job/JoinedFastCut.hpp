// Several planned fast cuts of one source in one file, still without re-encoding. Each range is
// copied by its own ConversionJob into a private work folder in the temporary directory; ffmpeg's
// concat demuxer copies the pieces one after another into one MP4, which is probed back and
// published as NAME-cut.mp4 under a free name. The work folder is removed on every way out (after
// a crash, the sweep of stale work folders takes it).
//
//   std::vector<JoinedFastCut::Piece> pieces =
//       JoinedFastCut::plan(source, clips, /*removing=*/false, info, tools);
//   JoinedFastCut join(source, pieces, tools, std::nullopt);
//   std::filesystem::path published = join.run({.onProgress = showFraction});
//
// Threads: run() blocks its (background) thread for the whole join and every callback runs on
// that thread. cancel() is safe from any thread at any moment, also before run(), and never waits.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/FastCut.hpp"
#include "engine/job/ConversionJob.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

class JoinedFastCut {
public:
    struct Piece {
        Trim trim;  // the range asked for, in seconds text
        FastCut::Plan plan;
        bool operator==(const Piece&) const = default;
    };

    // The ranges `clips` keep (or, `removing`, what is left once they are taken out), sorted and
    // merged as ClipSelection::join gives them, each planned against `info` (with chapters).
    // Ranges whose plans meet once moved to keyframes are planned again as one, which gives the
    // same boundaries because moving outward keeps the order, so no piece is in the file twice.
    // Each ffprobe runner reaches `runnerInstalled` first. Throws what FastCut::plan throws and
    // ClipSelection::Invalid (a join that keeps nothing).
    [[nodiscard]] static std::vector<Piece> plan(
        const std::filesystem::path& source, std::span<const ClipSelection> clips, bool removing,
        const MediaInfo& info, const Tools& tools,
        const std::function<void(std::shared_ptr<ProcessRunner>)>& runnerInstalled = {});

    // `pieces` in output order, not empty. An absent `outputDirectory` means the source's folder.
    JoinedFastCut(std::filesystem::path source, std::vector<Piece> pieces, Tools tools,
                  std::optional<std::filesystem::path> outputDirectory);
    JoinedFastCut(const JoinedFastCut&) = delete;
    JoinedFastCut& operator=(const JoinedFastCut&) = delete;

    // Cuts each piece (each job checks its plan against the file again and decodes its cut),
    // joins them, checks the joined file and publishes it; returns the published path. Progress:
    // the pieces share the first 90 % by length, the join the rest. Throws JobFailure only
    // (`wasCancelled` after cancel()).
    [[nodiscard]] std::filesystem::path run(const ConversionJob::Callbacks& callbacks = {});
    // Marks the join cancelled for good and stops the job or tool now running.
    void cancel(double grace = ConversionJob::kUserCancelGrace);
    [[nodiscard]] bool isCancelled() const;

private:
    [[nodiscard]] std::filesystem::path runInWorkFolder(const ConversionJob::Callbacks& callbacks);
    [[nodiscard]] std::filesystem::path cutPiece(const Piece& piece,
                                                 const std::filesystem::path& folder,
                                                 const ConversionJob::Callbacks& callbacks);
    void concatenate(const std::filesystem::path& list, const std::filesystem::path& joined);
    void verify(const std::filesystem::path& joined);
    // Installs what cancel() stops; false when the join is already cancelled.
    bool install(std::shared_ptr<ConversionJob> job, std::shared_ptr<ProcessRunner> runner);

    const std::filesystem::path source_;
    const std::vector<Piece> pieces_;
    const Tools tools_;
    const std::optional<std::filesystem::path> outputDirectory_;

    mutable std::mutex mutex_;
    bool cancelled_ = false;                          // guarded by mutex_
    double grace_ = ConversionJob::kUserCancelGrace;  // guarded by mutex_
    std::shared_ptr<ConversionJob> job_;              // guarded by mutex_
    std::shared_ptr<ProcessRunner> runner_;           // guarded by mutex_
};

}  // namespace tessarin::engine
