// --clip-list on the commands that take ranges: the list is read against its one source before
// anything is planned, and a list the source refuses ends the command as a failed file.
#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "cli/JobPlan.hpp"

namespace tessarin::cli {

// Reads --clip-list, when given, into ranges.listedClips. Nothing when the command may go on;
// otherwise the exit status, the refusal already reported (a "failed" event with --json).
// Throws UsageError for a bad combination of options.
[[nodiscard]] std::optional<int> readClipList(RangeOptions& ranges,
                                              const std::vector<std::filesystem::path>& files,
                                              bool json);

}  // namespace tessarin::cli
