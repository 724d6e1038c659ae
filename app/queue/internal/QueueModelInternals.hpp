// What the files of QueueModel share: the records of a folder scan and of the running job, the
// queue's two logs, and the texts that more than one of them shows. Not for use outside
// app/queue. Main thread only, like QueueModel.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/queue/QueueModel.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::app {

struct QueueModel::Scan {
    uint64_t generation = 0;
    // The batch awaiting confirmation when the scan began.
    std::optional<engine::Uuid> pendingAtStart;
    std::shared_ptr<CancellationFlag> cancel = std::make_shared<CancellationFlag>();
};

struct QueueModel::RunningJob {
    engine::Uuid itemID;
    std::shared_ptr<QueueJob> job;
    std::shared_ptr<ProgressRelay> relay;
};

namespace queue_internal {

inline constexpr const char* kChooseAction = "Choose an action above, then click Convert.";
inline constexpr const char* kClipsNeedPreset =
    "Files with clips need a video or GIF preset. Choose one above and click Convert.";
inline constexpr const char* kFastCutNeedsTrim =
    "Fix the batch trim or set this file's own trim before Fast cut.";

// Jobs, the queue's rows and quitting.
[[nodiscard]] const engine::Logger& queueLog();
// Files coming in: limits, duplicates, confirmation, folder scans.
[[nodiscard]] const engine::Logger& intakeLog();

// A row's trim text, "start–end" with an open side named.
[[nodiscard]] std::string trimLabelOf(const engine::Trim& trim);

// Row `original` as one waiting row per clip, in clip order, each running `kinds[i]` under
// `descriptor` and labelled "Clip i of n · range" with `ranges[i]`. The first row keeps the
// original's id, so that whoever holds it (an open editor, a review) still finds the file.
[[nodiscard]] std::vector<QueueItem> clipRows(const QueueItem& original,
                                              const std::vector<JobKind>& kinds,
                                              const std::vector<engine::Trim>& ranges,
                                              const std::optional<ActionDescriptor>& descriptor);

// The review entry of staged row `item`: its clips and their mode when it has clips, else `trim`.
[[nodiscard]] FastCutReviewRequest::Entry reviewEntry(const QueueItem& item,
                                                      const engine::Trim& trim);

}  // namespace queue_internal

}  // namespace tessarin::app
