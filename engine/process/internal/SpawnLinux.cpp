// Built without sanitizers: the child half runs on a borrowed stack in our address space while
// the spawning thread is suspended, where no instrumentation may touch a sanitizer's state.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "engine/process/internal/Spawn.hpp"

// glibc's own name for clone. ThreadSanitizer interposes `clone` and treats the child as a
// fork, updating its bookkeeping from the child; with shared memory that corrupts ours.
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);

namespace tessarin::engine::internal {

namespace {

// The child's frames are a handful of system calls; a page of guard would only cost time.
constexpr std::size_t kChildStackBytes = 64 * 1024;
// Only for kernels without close_range (before 5.9): the descriptors closed one by one.
constexpr rlim_t kMaximumClosedOneByOne = 65'536;

// The kernel's own sigaction and signal set, for the raw system calls (glibc's differ).
struct KernelSigaction {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    std::uint64_t mask;
};
constexpr unsigned long kKernelSigsetBytes = sizeof(std::uint64_t);
constexpr int kHighestSignal = 64;

struct ChildArguments {
    const SpawnRequest* request;
    pid_t parent;
    int highestDescriptor;
    int error;  // written by the child when it ends without executing the program
};

[[noreturn]] void childExit(ChildArguments* arguments, int error) {
    arguments->error = error;
    for (;;) {
        ::syscall(SYS_exit, 127);
    }
}

// The child side. Shares our memory with the spawning thread suspended, so: raw system calls
// only (no libc wrapper that a sanitizer intercepts or that takes a lock), no allocation, and
// errno only read straight after the call that set it.
int childMain(void* opaque) {
    auto* arguments = static_cast<ChildArguments*>(opaque);
    const SpawnRequest& request = *arguments->request;

    // No handler of ours may run here, and the program starts with every default.
    const KernelSigaction defaults{SIG_DFL, 0, nullptr, 0};
    for (int signal = 1; signal <= kHighestSignal; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP) {
            ::syscall(SYS_rt_sigaction, signal, &defaults, nullptr, kKernelSigsetBytes);
        }
    }
    if (::syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) != 0) {
        childExit(arguments, errno);
    }
    // The parent may have died before the signal was armed; then nothing would ever send it.
    if (::syscall(SYS_getppid) != arguments->parent) {
        childExit(arguments, ESRCH);
    }

    const long input = ::syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY);
    if (input < 0) {
        childExit(arguments, errno);
    }
    if (input != STDIN_FILENO) {
        if (::syscall(SYS_dup3, input, STDIN_FILENO, 0) < 0) {
            childExit(arguments, errno);
        }
        ::syscall(SYS_close, input);
    }
    if (::syscall(SYS_dup3, request.stdoutFd, STDOUT_FILENO, 0) < 0 ||
        ::syscall(SYS_dup3, request.stderrFd, STDERR_FILENO, 0) < 0) {
        childExit(arguments, errno);
    }
    if (::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0) != 0) {
        for (int fd = STDERR_FILENO + 1; fd <= arguments->highestDescriptor; ++fd) {
            ::syscall(SYS_close, fd);
        }
    }

    const std::uint64_t nothing = 0;
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &nothing, nullptr, kKernelSigsetBytes);
    ::syscall(SYS_execve, request.path, request.argv, request.envp);
    childExit(arguments, errno);
}

int highestDescriptor() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return static_cast<int>(kMaximumClosedOneByOne);
    }
    return static_cast<int>(std::min(limit.rlim_cur, kMaximumClosedOneByOne));
}

// Blocks every signal, the C library's internal ones too, so that none reaches a handler of
// ours in the child; returns the mask to restore.
std::uint64_t blockAllSignals() {
    const std::uint64_t all = ~std::uint64_t{0};
    std::uint64_t previous = 0;
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &previous, kKernelSigsetBytes);
    return previous;
}

void restoreSignals(std::uint64_t mask) {
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, nullptr, kKernelSigsetBytes);
}

}  // namespace

int spawnChild(const SpawnRequest& request, SpawnedChild& child) noexcept {
    void* stack = ::mmap(nullptr, kChildStackBytes, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED) {
        return errno;
    }
    ChildArguments arguments{&request, ::getpid(), highestDescriptor(), 0};
    int pidfd = -1;
    const std::uint64_t mask = blockAllSignals();
    // CLONE_VFORK: we resume once the child has executed the program or ended, so the stack
    // and `arguments` are free again when clone returns.
    const pid_t pid = ::__clone(childMain, static_cast<char*>(stack) + kChildStackBytes,
                                CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD, &arguments, &pidfd);
    const int cloneError = errno;
    restoreSignals(mask);
    ::munmap(stack, kChildStackBytes);
    if (pid < 0) {
        return cloneError;
    }
    if (arguments.error != 0) {
        ::close(pidfd);
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        return arguments.error;
    }
    child = SpawnedChild{pid, pidfd};
    return 0;
}

}  // namespace tessarin::engine::internal
