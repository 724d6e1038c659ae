// `tessarin cut --segment ... --join keep`: several planned fast cuts of one source in one file,
// still without re-encoding. Each range is copied by its own job into a private work folder in
// the temporary directory; ffmpeg's concat demuxer copies the pieces one after another into one
// MP4, which is probed back and published as NAME-cut.mp4 under a free name. The work folder is
// removed on every way out (after a crash, the sweep of stale work folders takes it).
#pragma once

#include <filesystem>
#include <vector>

#include "cli/JobPlan.hpp"
#include "cli/JobRunner.hpp"
#include "engine/job/ConversionJob.hpp"

namespace tessarin::cli {

// Joins `pieces`, fastCut jobs of `source` carrying their plans, in the order given. Progress:
// the pieces share the first 90 % by length, the join the rest. Blocks; callbacks run on the
// calling thread. Throws engine::JobFailure only (wasCancelled after a signal).
[[nodiscard]] std::filesystem::path joinCuts(const std::filesystem::path& source,
                                             const std::vector<PlannedJob>& pieces,
                                             const JobContext& context,
                                             const engine::ConversionJob::Callbacks& callbacks);

}  // namespace tessarin::cli
