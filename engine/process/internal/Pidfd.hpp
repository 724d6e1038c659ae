// Thin wrappers over the pidfd system calls: glibc 2.36 declares them in <sys/pidfd.h> without
// C linkage, so C++ code cannot link against that header.
#pragma once

#include <signal.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace tessarin::engine::internal {

// A descriptor that refers to process `pid` for as long as it is open, or -1 with errno set.
inline int openPidfd(pid_t pid) noexcept {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U));
}

// Sends `signal` to the process behind `pidfd`; never reaches a process that reused its id.
inline int sendSignal(int pidfd, int signal) noexcept {
    return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0U));
}

}  // namespace tessarin::engine::internal
