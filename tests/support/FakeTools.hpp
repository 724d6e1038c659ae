// Small shell scripts that stand in for tools in process tests, and the temporary folders
// that hold them. Test-only; not thread-safe beyond what the functions say.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Files.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::test {

using TemporaryFolder = TempDir;

// Writes "#!/bin/sh" and `body` to `folder/name`, mode 0755; returns the path.
std::filesystem::path writeScript(const std::filesystem::path& folder, std::string_view name,
                                  std::string_view body);

// Waits for `path` to exist and hold a full line (a writer finished it); false at `limit`.
[[nodiscard]] bool waitForLine(const std::filesystem::path& path,
                               std::chrono::milliseconds limit = std::chrono::seconds(20));

// The first line of `path` as a process id.
[[nodiscard]] std::optional<pid_t> readPid(const std::filesystem::path& path);

// True while `pid` exists and is not a zombie.
[[nodiscard]] bool isRunning(pid_t pid);

// Waits until `pid` is gone or a zombie; false at `limit`.
[[nodiscard]] bool waitUntilGone(pid_t pid,
                                 std::chrono::milliseconds limit = std::chrono::seconds(20));

// The direct children of `parent` (empty when it is gone), and a process's short name.
[[nodiscard]] std::vector<pid_t> childProcesses(pid_t parent);
[[nodiscard]] std::string processName(pid_t pid);

// Kills `pid` with SIGKILL when it goes out of scope, if it is still running; for daemons a
// test starts on purpose.
class KillOnExit {
public:
    explicit KillOnExit(std::optional<pid_t> pid = std::nullopt) : pid_(pid) {}
    ~KillOnExit();
    KillOnExit(const KillOnExit&) = delete;
    KillOnExit& operator=(const KillOnExit&) = delete;
    void reset(std::optional<pid_t> pid) { pid_ = pid; }

private:
    std::optional<pid_t> pid_;
};

}  // namespace tessarin::test
