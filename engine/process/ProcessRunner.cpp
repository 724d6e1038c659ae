#include "engine/process/ProcessRunner.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "engine/process/BoundedTailBuffer.hpp"
#include "engine/process/LineSplitter.hpp"
#include "engine/process/internal/ChildProcesses.hpp"
#include "engine/process/internal/Pidfd.hpp"
#include "engine/process/internal/Spawn.hpp"

extern char** environ;

namespace tessarin::engine {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kReadChunkBytes = 65'536;
// Longer than any grace or time-out anyone means; keeps the chrono arithmetic from overflowing.
constexpr double kLongestDelaySeconds = 1e8;

Clock::duration secondsToDuration(double seconds) {
    if (!(seconds > 0)) {  // also NaN
        return Clock::duration::zero();
    }
    seconds = std::min(seconds, kLongestDelaySeconds);
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Milliseconds for poll() until `deadline`, rounded up so a wake-up is never early.
int pollTimeout(std::optional<Clock::time_point> deadline) {
    if (!deadline) {
        return -1;
    }
    const auto remaining = *deadline - Clock::now();
    if (remaining <= Clock::duration::zero()) {
        return 0;
    }
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(remaining).count();
    return static_cast<int>(std::min<long long>(ms, INT_MAX));
}

void closeIfOpen(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

void signalEventFd(int fd) {
    if (fd < 0) {
        return;
    }
    const std::uint64_t one = 1;
    while (::write(fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void drainEventFd(int fd) {
    std::uint64_t value = 0;
    while (::read(fd, &value, sizeof value) < 0 && errno == EINTR) {
    }
}

// Moves a descriptor above standard error, so that wiring the child's 0, 1 and 2 can never
// overwrite a pipe end (possible when this process runs with standard descriptors closed).
bool raiseAboveStandardDescriptors(int& fd) {
    if (fd > STDERR_FILENO) {
        return true;
    }
    const int raised = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (raised < 0) {
        return false;
    }
    ::close(fd);
    fd = raised;
    return true;
}

[[noreturn]] void programmerError(const char* message) {
    std::fprintf(stderr, "tessarin: %s\n", message);
    std::abort();
}

LaunchError launchError(int error, const std::filesystem::path& executable) {
    return LaunchError(error, std::system_category(),
                       "could not launch " + executable.filename().string());
}

// The pipes still being read in one run; the run's drain waits for this to reach zero.
class DrainGroup {
public:
    explicit DrainGroup(int members) : remaining_(members) {}

    void leave() {
        std::lock_guard lock(mutex_);
        --remaining_;
        if (remaining_ == 0) {
            finished_.notify_all();
        }
    }

    // True when every member has left by `deadline`.
    [[nodiscard]] bool waitUntil(Clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        return finished_.wait_until(lock, deadline, [&] { return remaining_ == 0; });
    }

    [[nodiscard]] bool isFinished() {
        std::lock_guard lock(mutex_);
        return remaining_ == 0;
    }

private:
    std::mutex mutex_;
    std::condition_variable finished_;
    int remaining_;
};

// One pipe of a run as the reader thread sees it.
struct Stream {
    int fd = -1;
    std::function<void(std::string_view)> handler;
    std::function<void()> end;
    bool handlerFailed = false;  // a callback threw; the pipe is still drained, not delivered
};

// Reads every open stream until end of file, or until `stopFd` is signalled, which abandons
// them without end callbacks. Runs on the run's own reader thread; everything it touches
// lives in the run's frame, which joins this thread before it unwinds.
void readStreams(std::array<Stream, 2>& streams, int stopFd, DrainGroup& group,
                 ProcessRunner::DeliveryCounter& counter) noexcept {
    std::array<char, kReadChunkBytes> buffer;
    std::array<pollfd, 3> fds{};
    fds[0] = {stopFd, POLLIN, 0};
    for (std::size_t i = 0; i < streams.size(); ++i) {
        fds[i + 1] = {streams[i].fd, POLLIN, 0};
    }
    int open = 0;
    for (const Stream& stream : streams) {
        open += stream.fd >= 0 ? 1 : 0;
    }
    while (open > 0) {
        const int ready = ::poll(fds.data(), fds.size(), -1);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;  // cannot happen with valid descriptors; the drain reports incomplete
        }
        if (fds[0].revents != 0) {
            return;
        }
        for (std::size_t i = 0; i < streams.size(); ++i) {
            pollfd& entry = fds[i + 1];
            if (entry.fd < 0 || entry.revents == 0) {
                continue;
            }
            Stream& stream = streams[i];
            const ssize_t n = ::read(entry.fd, buffer.data(), buffer.size());
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
                continue;
            }
            if (n <= 0) {
                entry.fd = -1;
                --open;
                if (stream.end && !stream.handlerFailed) {
                    try {
                        stream.end();
                    } catch (...) {
                        stream.handlerFailed = true;
                    }
                }
                group.leave();
                continue;
            }
            counter.begin();
            if (stream.handler && !stream.handlerFailed) {
                try {
                    stream.handler(std::string_view(buffer.data(), static_cast<std::size_t>(n)));
                } catch (...) {
                    stream.handlerFailed = true;
                }
            }
            counter.end();
        }
    }
}

}  // namespace

struct ProcessRunner::State {
    std::mutex mutex;
    bool cancelled = false;
    bool started = false;
    bool timedOut = false;
    // The child has ended (set before it is reaped, so a cancel holding the lock can never
    // signal a recycled id).
    bool exited = false;
    int affectedChildCount = 0;
    std::optional<CancellationOutcome> outcome;
    pid_t pid = -1;
    int pidfd = -1;   // open from launch until the state goes, so it is never a recycled number
    int wakeFd = -1;  // eventfd: a cancel tells the waiting run about a new SIGKILL deadline
    std::optional<Clock::time_point> killDeadline;

    ~State() {
        closeIfOpen(pidfd);
        closeIfOpen(wakeFd);
    }
};

namespace {

// cancel() proper. Holds the state's lock while it signals: the run reaps the child only
// after setting `exited` under the same lock, so the ids signalled here are still ours.
void cancelState(auto& state, double grace) {
    std::lock_guard lock(state.mutex);
    state.cancelled = true;
    if (state.started && !state.exited && state.pidfd >= 0) {
        const std::vector<pid_t> children = internal::listChildProcesses(state.pid);
        state.affectedChildCount = static_cast<int>(children.size());
        (void)internal::sendSignal(state.pidfd, SIGTERM);
        internal::signalChildren(state.pid, children, SIGTERM);
        const Clock::time_point deadline = Clock::now() + secondsToDuration(grace);
        if (!state.killDeadline || deadline < *state.killDeadline) {
            state.killDeadline = deadline;
        }
        signalEventFd(state.wakeFd);
    } else if (!state.outcome) {
        state.outcome = CancellationOutcome{Escalation::notLaunched, 0};
    }
}

bool hasExited(int pidfd) {
    pollfd entry{pidfd, POLLIN, 0};
    return ::poll(&entry, 1, 0) > 0;
}

}  // namespace

void ProcessRunner::DeliveryCounter::begin() {
    std::lock_guard lock(mutex_);
    ++count_;
    ++inFlight_;
}

void ProcessRunner::DeliveryCounter::end() {
    std::lock_guard lock(mutex_);
    ++count_;
    --inFlight_;
}

ProcessRunner::DeliveryCounter::Snapshot ProcessRunner::DeliveryCounter::snapshot() const {
    std::lock_guard lock(mutex_);
    return {count_, inFlight_};
}

ProcessRunner::ProcessRunner() : state_(std::make_shared<State>()) {}

ProcessRunner::~ProcessRunner() = default;

void ProcessRunner::cancel(double grace) {
    const std::shared_ptr<State> state = state_;
    cancelState(*state, grace);
}

std::optional<CancellationOutcome> ProcessRunner::cancellationOutcome() const {
    std::lock_guard lock(state_->mutex);
    return state_->outcome;
}

bool ProcessRunner::isCancelled() const {
    std::lock_guard lock(state_->mutex);
    return state_->cancelled;
}

ProcessResult ProcessRunner::run(const std::filesystem::path& executable,
                                 const std::vector<std::string>& arguments, bool captureStdout,
                                 bool mergeStderr, std::optional<double> timeout,
                                 TextCallback onOutput) {
    std::optional<BoundedTailBuffer> captured;
    if (captureStdout) {
        captured.emplace(kStdoutCapacity);
    }
    RawOptions options;
    options.timeout = timeout;
    options.mergeStderr = mergeStderr;
    if (captured || onOutput) {
        options.stdoutHandler = [&](std::string_view bytes) {
            if (captured) {
                captured->append(bytes);
            }
            if (onOutput) {
                onOutput(repairUtf8(bytes));
            }
        };
    }
    ProcessResult result = runRaw(executable, arguments, std::move(options));
    bool launched = false;
    {
        std::lock_guard lock(state_->mutex);
        launched = state_->pid > 0;
    }
    if (captured && launched) {
        result.stdoutData = captured->data();
        result.stdoutOverflowed = captured->truncated();
    }
    return result;
}

ProcessResult ProcessRunner::runLines(const std::filesystem::path& executable,
                                      const std::vector<std::string>& arguments,
                                      std::optional<double> timeout,
                                      std::optional<Environment> environment, TextCallback onLine,
                                      std::function<void()> onStdoutEnd) {
    LineSplitter splitter(kMaximumLineBytes);
    RawOptions options;
    options.timeout = timeout;
    options.environment = std::move(environment);
    options.stdoutHandler = [&](std::string_view bytes) {
        for (const std::string& line : splitter.feed(bytes)) {
            if (onLine) {
                onLine(line);
            }
        }
    };
    options.stdoutEnd = [&] {
        if (std::optional<std::string> rest = splitter.flush(); rest && onLine) {
            onLine(*rest);
        }
        if (onStdoutEnd) {
            onStdoutEnd();
        }
    };
    return runRaw(executable, arguments, std::move(options));
}

std::function<void(std::string_view)> ProcessRunner::collectInto(std::string& into,
                                                                bool& overflowed,
                                                                std::size_t limit) {
    return [&into, &overflowed, limit](std::string_view bytes) {
        if (overflowed || into.size() + bytes.size() > limit) {
            overflowed = true;
            return;
        }
        into.append(bytes);
    };
}

ProcessResult ProcessRunner::runRaw(const std::filesystem::path& executable,
                                    const std::vector<std::string>& arguments, RawOptions options) {
    // A local owner, so nothing below depends on `this` beyond this line.
    const std::shared_ptr<State> state = state_;

    // Everything that can fail is acquired before the launch, so a failure here is a launch
    // failure and no child is left behind.
    std::vector<std::string> environmentStrings;
    std::vector<char*> argv;
    std::vector<char*> envp;
    const std::string executablePath = executable.string();
    argv.reserve(arguments.size() + 2);
    argv.push_back(const_cast<char*>(executablePath.c_str()));
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    if (options.environment) {
        environmentStrings.reserve(options.environment->size());
        for (const auto& [name, value] : *options.environment) {
            environmentStrings.push_back(name + "=" + value);
        }
        for (std::string& entry : environmentStrings) {
            envp.push_back(entry.data());
        }
        envp.push_back(nullptr);
    }

    struct Descriptors {
        std::array<int, 2> out{-1, -1};
        std::array<int, 2> err{-1, -1};
        int stop = -1;
        ~Descriptors() {
            for (int* fd : {&out[0], &out[1], &err[0], &err[1], &stop}) {
                closeIfOpen(*fd);
            }
        }
    } fds;
    if (::pipe2(fds.out.data(), O_CLOEXEC) != 0 ||
        (!options.mergeStderr && ::pipe2(fds.err.data(), O_CLOEXEC) != 0)) {
        throw launchError(errno, executable);
    }
    for (int* fd : {&fds.out[0], &fds.out[1], &fds.err[0], &fds.err[1]}) {
        if (*fd >= 0 && !raiseAboveStandardDescriptors(*fd)) {
            throw launchError(errno, executable);
        }
    }
    fds.stop = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fds.stop < 0) {
        throw launchError(errno, executable);
    }
    {
        std::lock_guard lock(state->mutex);
        if (state->wakeFd < 0) {
            state->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
            if (state->wakeFd < 0) {
                throw launchError(errno, executable);
            }
        }
    }

    internal::SpawnRequest request;
    request.path = executablePath.c_str();
    request.argv = argv.data();
    request.envp = options.environment ? envp.data() : environ;
    request.stdoutFd = fds.out[1];
    request.stderrFd = options.mergeStderr ? fds.out[1] : fds.err[1];

    std::array<Stream, 2> streams;
    streams[0] = {fds.out[0], std::move(options.stdoutHandler), std::move(options.stdoutEnd)};
    BoundedTailBuffer errorTail(kStderrCapacity);
    if (!options.mergeStderr) {
        streams[1].fd = fds.err[0];
        streams[1].handler = [&errorTail,
                              &handler = options.stderrHandler](std::string_view bytes) {
            errorTail.append(bytes);
            if (handler) {
                handler(bytes);
            }
        };
        streams[1].end = std::move(options.stderrEnd);
    }
    DrainGroup group(options.mergeStderr ? 1 : 2);
    DeliveryCounter counter;

    // The reader starts before the launch so that starting it cannot fail with a child
    // already running. Whatever happens below, it is stopped and joined before this frame
    // unwinds.
    std::thread reader;
    try {
        reader = std::thread(readStreams, std::ref(streams), fds.stop, std::ref(group),
                             std::ref(counter));
    } catch (const std::system_error& error) {
        throw launchError(error.code().value(), executable);
    }
    struct ReaderStop {
        std::thread& reader;
        int stopFd;
        bool stopped = false;
        void stop() {
            if (!stopped) {
                stopped = true;
                signalEventFd(stopFd);
                reader.join();
            }
        }
        ~ReaderStop() { stop(); }
    } readerStop{reader, fds.stop};

    pid_t pid = -1;
    int pidfd = -1;
    {
        std::lock_guard lock(state->mutex);
        if (state->started) {
            programmerError("a ProcessRunner was run twice");
        }
        state->started = true;
        if (state->cancelled) {
            if (!state->outcome) {
                state->outcome = CancellationOutcome{Escalation::notLaunched, 0};
            }
            readerStop.stop();
            ProcessResult neverLaunched;
            neverLaunched.wasCancelled = true;
            return neverLaunched;
        }
        // Launching under the lock closes the race with cancel(): a cancel that arrives now
        // waits, then sees the child and signals it.
        internal::SpawnedChild child;
        if (const int error = internal::spawnChild(request, child); error != 0) {
            readerStop.stop();
            throw launchError(error, executable);
        }
        pid = child.pid;
        pidfd = child.pidfd;
        state->pid = pid;
        state->pidfd = pidfd;
    }
    closeIfOpen(fds.out[1]);
    closeIfOpen(fds.err[1]);

    // Wait for the child, firing the time-out and the SIGKILL checks of cancel() on the way.
    std::optional<Clock::time_point> timeoutDeadline;
    if (options.timeout && *options.timeout > 0) {
        timeoutDeadline = Clock::now() + secondsToDuration(*options.timeout);
    }
    int wakeFd = -1;
    {
        std::lock_guard lock(state->mutex);
        wakeFd = state->wakeFd;
    }
    for (;;) {
        std::optional<Clock::time_point> killDeadline;
        {
            std::lock_guard lock(state->mutex);
            killDeadline = state->killDeadline;
        }
        std::optional<Clock::time_point> next = timeoutDeadline;
        if (killDeadline && (!next || *killDeadline < *next)) {
            next = killDeadline;
        }
        std::array<pollfd, 2> waitFds{{{pidfd, POLLIN, 0}, {wakeFd, POLLIN, 0}}};
        const int ready = ::poll(waitFds.data(), waitFds.size(), pollTimeout(next));
        if (ready < 0 && errno != EINTR) {
            break;  // not expected with valid descriptors; waitpid below still reaps
        }
        if (ready > 0 && waitFds[0].revents != 0) {
            break;
        }
        if (ready > 0 && waitFds[1].revents != 0) {
            drainEventFd(wakeFd);
        }
        const Clock::time_point now = Clock::now();
        if (timeoutDeadline && now >= *timeoutDeadline) {
            timeoutDeadline.reset();
            bool fire = false;
            {
                std::lock_guard lock(state->mutex);
                if (!state->cancelled && state->started && !state->exited) {
                    state->timedOut = true;
                    fire = true;
                }
            }
            if (fire) {
                cancelState(*state, kTimeoutGrace);
            }
        }
        std::lock_guard lock(state->mutex);
        if (state->killDeadline && now >= *state->killDeadline) {
            state->killDeadline.reset();
            if (!hasExited(pidfd)) {
                state->outcome =
                    CancellationOutcome{Escalation::requiredSigkill, state->affectedChildCount};
                const std::vector<pid_t> children = internal::listChildProcesses(pid);
                internal::signalChildren(pid, children, SIGKILL);
                (void)internal::sendSignal(pidfd, SIGKILL);
            }
        }
    }
    {
        std::lock_guard lock(state->mutex);
        state->exited = true;
    }
    int status = 0;
    pid_t reaped = -1;
    do {
        reaped = ::waitpid(pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);

    // Drain: a descendant may hold the pipes open after the child died, so the wait for end of
    // file is bounded, and cut short when nothing moves and no delivery is in progress.
    const Clock::time_point hardDeadline = Clock::now() + secondsToDuration(kDrainDeadline);
    std::int64_t lastCount = counter.snapshot().count;
    bool complete = false;
    for (Clock::time_point now = Clock::now(); now < hardDeadline; now = Clock::now()) {
        const Clock::time_point waitEnd =
            std::min(now + secondsToDuration(kDrainQuietWait), hardDeadline);
        if (group.waitUntil(waitEnd)) {
            complete = true;
            break;
        }
        const DeliveryCounter::Snapshot snapshot = counter.snapshot();
        if (snapshot.count == lastCount && snapshot.inFlight < 1) {
            break;
        }
        lastCount = snapshot.count;
    }
    readerStop.stop();
    complete = complete || group.isFinished();

    ProcessResult result;
    {
        std::lock_guard lock(state->mutex);
        result.timedOut = state->timedOut;
        result.wasCancelled = state->cancelled;
        if (state->cancelled && !state->outcome) {
            state->outcome =
                CancellationOutcome{Escalation::terminatedGracefully, state->affectedChildCount};
        }
    }
    if (reaped == pid) {
        if (WIFEXITED(status)) {
            result.exitCode = WEXITSTATUS(status);
        } else if (WIFSIGNALED(status)) {
            result.exitCode = WTERMSIG(status);
        }
    }
    result.stderrTail = errorTail.tail(kStderrTailLines);
    result.outputIncomplete = !complete || streams[0].handlerFailed || streams[1].handlerFailed;
    return result;
}

}  // namespace tessarin::engine
