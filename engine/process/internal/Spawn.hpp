// Starting a child that cannot outlive us. posix_spawn can't ask for a death signal, so the
// child is cloned sharing our memory (as posix_spawn itself does) and, before it executes the
// program, asks the kernel for SIGKILL when its parent goes. Only raw system calls run between
// the clone and the exec.
//
// The death signal belongs to the *thread* that spawned, not to the process: the kernel sends
// it when that thread ends, even while the rest of the process lives on. ProcessRunner spawns
// from the thread blocked in run*() for the child's whole life, so that thread always outlives
// its child; anything else that spawns through this must keep the same rule.
#pragma once

#include <sys/types.h>

namespace tessarin::engine::internal {

struct SpawnRequest {
    const char* path = nullptr;
    char* const* argv = nullptr;
    char* const* envp = nullptr;
    // Become the child's standard output and error; both above 2 (they may be the same
    // descriptor). Standard input is /dev/null; every other descriptor is closed.
    int stdoutFd = -1;
    int stderrFd = -1;
};

struct SpawnedChild {
    pid_t pid = -1;
    int pidfd = -1;  // refers to the child until closed, so its id is never a recycled one
};

// Starts `request.path` with default signal dispositions, nothing blocked, and SIGKILL as its
// parent-death signal. A child whose parent is gone before the signal is armed ends at once.
// Returns 0 and fills `child`, or an errno value (the program could not be executed, no memory,
// too many processes), in which case no child is left running or unreaped. Any thread; never
// throws.
[[nodiscard]] int spawnChild(const SpawnRequest& request, SpawnedChild& child) noexcept;

}  // namespace tessarin::engine::internal
