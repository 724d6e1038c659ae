// Direct children of a process, for signalling a tool's helpers along with the tool. Only one
// level of descendants is considered.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

namespace tessarin::engine::internal {

constexpr std::size_t kMaximumListedChildren = 64;

// Up to kMaximumListedChildren direct children of `parent`, ids above 0 only. Reads
// /proc/<parent>/task/*/children, or scans /proc/*/stat for the parent id where that file is
// unavailable. Empty when nothing could be read. Never throws.
[[nodiscard]] std::vector<pid_t> listChildProcesses(pid_t parent) noexcept;

// The parent id of `pid` from /proc/<pid>/stat, or -1 when it cannot be read.
[[nodiscard]] pid_t parentOf(pid_t pid) noexcept;

// Sends `signal` to each of `children` that is still a child of `parent` at the moment of
// sending: each is pinned with a pidfd first, so a recycled id is never signalled.
void signalChildren(pid_t parent, const std::vector<pid_t>& children, int signal) noexcept;

}  // namespace tessarin::engine::internal
