// Ends file-manager helper processes left over from a replaced install: processes of this user
// whose name begins "tessarin-action" and whose executable (/proc/<pid>/exe) was started from the
// current helper's path but is no longer the file there (an update replaced or deleted it). Such
// a helper could only be refused by the window ("replaced"), so it would wait out its time-out
// for nothing. Helpers of other copies, at other paths, are theirs and are left alone.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <vector>

namespace tessarin::engine {

// Sends SIGTERM to each such process and returns how many were signalled. Logs "ended {n}
// file-manager action process(es) still running code from before an update" when n > 0. Never
// throws; unreadable /proc entries are skipped.
// `among`, when given, limits the scan to those process ids (tests use it so that they never touch
// helpers of other programs running beside them).
int endStaleActionProcesses(const std::filesystem::path& currentHelper,
                            const std::optional<std::vector<pid_t>>& among = std::nullopt);

}  // namespace tessarin::engine
