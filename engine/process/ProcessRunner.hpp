// Runs one child process under the engine's discipline: argv only (never a shell), standard
// input from /dev/null, every other descriptor closed in the child, the child killed when we
// die, output read as it arrives into bounded buffers, an optional time-out, and cancellation
// that escalates from SIGTERM to SIGKILL and may arrive from any thread at any moment, also
// before the launch.
//
//   auto runner = std::make_shared<ProcessRunner>();
//   // elsewhere, any thread: runner->cancel(ProcessRunner::kUserCancelGrace);
//   ProcessResult result = runner->run(tools.ffprobe, args, /*captureStdout=*/true);
//   if (result.wasCancelled) ...  // check wasCancelled and timedOut before exitCode
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "engine/process/ProcessResult.hpp"

namespace tessarin::engine {

// The child could not be started (missing or non-executable program, no pipes, no thread...).
// code() carries the errno. The only exception the run functions throw.
class LaunchError : public std::system_error {
public:
    using std::system_error::system_error;
};

// One instance per child, never reused: running twice stops the process (programmer error).
//
// Children never outlive this process: each gets SIGKILL as its parent-death signal. The
// kernel ties that signal to the thread that started the child, which is the thread calling
// run*(); since run*() blocks it until the child is reaped, a short-lived worker thread may
// call run*() and end afterwards without harm. Never hand a child over to another thread.
//
// Threads: run*() blocks the calling (background) thread for the child's whole life; the
// callbacks run on one reader thread of that run, which is joined before run*() returns, so
// callbacks may capture the caller's locals by reference. A callback must return and must not
// throw; if one throws, that stream is no longer delivered and the result reports
// outputIncomplete. cancel(), cancellationOutcome() and isCancelled() are safe from any thread
// at any time. The destructor is safe whenever no run*() is executing on the object: no work
// outlives a run.
class ProcessRunner {
public:
    using TextCallback = std::function<void(std::string_view)>;
    using Environment = std::map<std::string, std::string>;

    static constexpr std::size_t kStdoutCapacity = 4'194'304;
    static constexpr std::size_t kStderrCapacity = 262'144;
    static constexpr std::size_t kMaximumLineBytes = 65'536;
    static constexpr std::size_t kStderrTailLines = 30;
    static constexpr double kUserCancelGrace = 5.0;
    static constexpr double kTimeoutGrace = 1.0;
    // Draining the pipes after the child ended: the hard limit, and the wait after which a
    // drain with no delivery at all is given up.
    static constexpr double kDrainDeadline = 60.0;
    static constexpr double kDrainQuietWait = 5.0;

    // Counts deliveries of one run so the drain can tell a stalled consumer (inFlight > 0) or
    // moving output (count changes) from pipes held open by a descendant. Own lock.
    class DeliveryCounter {
    public:
        void begin();
        void end();
        struct Snapshot {
            std::int64_t count = 0;
            std::int64_t inFlight = 0;
        };
        [[nodiscard]] Snapshot snapshot() const;

    private:
        mutable std::mutex mutex_;
        std::int64_t count_ = 0;
        std::int64_t inFlight_ = 0;
    };

    ProcessRunner();
    ~ProcessRunner();
    ProcessRunner(const ProcessRunner&) = delete;
    ProcessRunner& operator=(const ProcessRunner&) = delete;

    // Runs `executable` with `arguments` (argv[0] is the executable path). Standard output is
    // captured into a kStdoutCapacity tail when `captureStdout`, and offered chunk by chunk to
    // `onOutput` as text (invalid UTF-8 repaired). With `mergeStderr` standard error shares
    // standard output's pipe (and stderrTail stays empty). A `timeout` in seconds above 0
    // limits the child's life; 0, negative or absent means no limit. The child inherits this
    // process's environment. Throws LaunchError only.
    ProcessResult run(const std::filesystem::path& executable,
                      const std::vector<std::string>& arguments, bool captureStdout = false,
                      bool mergeStderr = false, std::optional<double> timeout = std::nullopt,
                      TextCallback onOutput = {});

    // Standard output is cut into lines of at most kMaximumLineBytes (longer ones are dropped
    // whole) and each is passed to `onLine` without its line break; at end of output an
    // unterminated rest is passed as a last line, then `onStdoutEnd` runs. Neither runs if the
    // pipe is abandoned (outputIncomplete) or the child never launched. `environment`, when
    // given, is the child's whole environment. Output is not captured. Throws LaunchError only.
    ProcessResult runLines(const std::filesystem::path& executable,
                           const std::vector<std::string>& arguments, std::optional<double> timeout,
                           std::optional<Environment> environment, TextCallback onLine,
                           std::function<void()> onStdoutEnd = {});

    struct RawOptions {
        std::optional<double> timeout;
        std::optional<Environment> environment;
        bool mergeStderr = false;
        // Raw byte chunks as read. Without a stdoutHandler standard output is read and
        // dropped. Standard error always also goes to the runner's kStderrCapacity tail (the
        // result's stderrTail), with or without a stderrHandler.
        std::function<void(std::string_view)> stdoutHandler;
        std::function<void(std::string_view)> stderrHandler;
        // Run once at end of file of that pipe (never for an abandoned pipe). With mergeStderr
        // there is no second pipe and stderrEnd never runs.
        std::function<void()> stdoutEnd;
        std::function<void()> stderrEnd;
    };

    // A stdoutHandler that gathers standard output into `into` up to `limit` bytes; what would
    // pass the limit is dropped, and so is everything after it, and `overflowed` is set.
    [[nodiscard]] static std::function<void(std::string_view)> collectInto(std::string& into,
                                                                           bool& overflowed,
                                                                           std::size_t limit);

    // The primitive under run() and runLines(). Throws LaunchError only.
    ProcessResult runRaw(const std::filesystem::path& executable,
                         const std::vector<std::string>& arguments, RawOptions options);

    // Asks the child to stop: SIGTERM to it and to its direct children now, SIGKILL to both if
    // it still runs after `grace` seconds. Before the launch it prevents the launch. Any
    // thread, any time, any number of times; never blocks for long and never throws.
    void cancel(double grace);

    [[nodiscard]] std::optional<CancellationOutcome> cancellationOutcome() const;
    [[nodiscard]] bool isCancelled() const;

private:
    struct State;
    // Everything a run or a cancel touches lives here; the runner only holds it.
    const std::shared_ptr<State> state_;
};

}  // namespace tessarin::engine
