#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/process/ProcessRunner.hpp"
#include "tests/support/FakeTools.hpp"

extern char** environ;

namespace tessarin::engine {
namespace {

using test::KillOnExit;
using test::TemporaryFolder;
using test::writeScript;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Collects lines from the reader thread; `waitFor` lets another thread block until a line
// has arrived.
class LineLog {
public:
    ProcessRunner::TextCallback callback() {
        return [this](std::string_view line) {
            std::lock_guard lock(mutex_);
            lines_.emplace_back(line);
            arrived_.notify_all();
        };
    }
    bool waitFor(const std::string& line) {
        std::unique_lock lock(mutex_);
        return arrived_.wait_for(lock, std::chrono::seconds(20), [&] {
            return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
        });
    }
    std::vector<std::string> lines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::string> lines_;
};

TEST(ProcessRunner, CancelBeforeRunStartsNothing) {
    TemporaryFolder folder;
    const auto marker = folder / "launched";
    const auto script = writeScript(folder.path(), "tool", "touch '" + marker.string() + "'");
    ProcessRunner runner;
    runner.cancel(ProcessRunner::kUserCancelGrace);
    const ProcessResult result = runner.run(script, {}, /*captureStdout=*/true);

    ProcessResult neverLaunched;
    neverLaunched.wasCancelled = true;
    EXPECT_EQ(result, neverLaunched);
    EXPECT_EQ(runner.cancellationOutcome(), (CancellationOutcome{Escalation::notLaunched, 0}));
    EXPECT_EQ(describeCancellation(runner.cancellationOutcome(), result.stderrTail),
              "cancelled (before launch)");
    EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST(ProcessRunner, ReportsExitStatusOutputAndErrorTail) {
    TemporaryFolder folder;
    const auto script = writeScript(folder.path(), "tool",
                                    "printf 'out\\n'\n"
                                    "i=1; while [ $i -le 40 ]; do echo \"err $i\" >&2; "
                                    "i=$((i+1)); done\n"
                                    "exit 3");
    ProcessRunner runner;
    std::string offered;
    const ProcessResult result = runner.run(script, {}, /*captureStdout=*/true, false, std::nullopt,
                                            [&](std::string_view text) { offered += text; });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.stdoutData, "out\n");
    EXPECT_EQ(offered, "out\n");
    EXPECT_FALSE(result.wasCancelled);
    EXPECT_FALSE(result.outputIncomplete);
    // 40 lines and the empty one after the last break: the tail starts at line 12.
    EXPECT_THAT(result.stderrTail, ::testing::StartsWith("err 12\n"));
    EXPECT_THAT(result.stderrTail, ::testing::EndsWith("\nerr 40"));
    EXPECT_EQ(runner.cancellationOutcome(), std::nullopt);
}

TEST(ProcessRunner, MergedStandardErrorSharesTheOutputPipe) {
    TemporaryFolder folder;
    const auto script = writeScript(folder.path(), "tool", "echo out; echo err >&2");
    ProcessRunner merged;
    const ProcessResult both = merged.run(script, {}, true, /*mergeStderr=*/true);
    EXPECT_EQ(both.stdoutData, "out\nerr\n");
    EXPECT_EQ(both.stderrTail, "");

    ProcessRunner separate;
    const ProcessResult apart = separate.run(script, {}, true, false);
    EXPECT_EQ(apart.stdoutData, "out\n");
    EXPECT_EQ(apart.stderrTail, "err");
}

TEST(ProcessRunner, ChildGetsNullInputAndNoInheritedDescriptors) {
    // A descriptor this process leaves inheritable must still not reach the child.
    const int leaked = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(leaked, 0);
    ProcessRunner listing;
    const ProcessResult fds = listing.run("/bin/ls", {"-1", "/proc/self/fd"}, true);
    ::close(leaked);
    // 0, 1, 2 and the directory ls itself has open.
    EXPECT_EQ(fds.stdoutData, "0\n1\n2\n3\n");

    ProcessRunner input;
    const ProcessResult stdinTarget = input.run("/bin/readlink", {"/proc/self/fd/0"}, true);
    EXPECT_EQ(stdinTarget.stdoutData, "/dev/null\n");
}

TEST(ProcessRunner, WorksWhileThisProcessHasStandardInputClosed) {
    // The next pipe then lands on descriptor 0, which the child's stdin wiring must not hit.
    const int saved = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(saved, 0);
    ::close(STDIN_FILENO);
    ProcessRunner runner;
    const ProcessResult result =
        runner.run("/bin/sh", {"-c", "readlink /proc/self/fd/0; echo err >&2"}, true);
    ::dup2(saved, STDIN_FILENO);
    ::close(saved);
    EXPECT_EQ(result.stdoutData, "/dev/null\n");
    EXPECT_EQ(result.stderrTail, "err");
}

TEST(ProcessRunner, ChildStartsWithDefaultSignalsWhateverThisThreadSet) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction previousPipe {};
    ASSERT_EQ(::sigaction(SIGPIPE, &ignore, &previousPipe), 0);
    sigset_t blocked;
    sigset_t previousMask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask), 0);
    ProcessRunner runner;
    const ProcessResult result =
        runner.run("/bin/grep", {"-E", "^Sig(Blk|Ign)", "/proc/self/status"}, true);
    ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    ::sigaction(SIGPIPE, &previousPipe, nullptr);
    EXPECT_EQ(result.stdoutData, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST(ProcessRunner, GivenEnvironmentReplacesTheInheritedOne) {
    ProcessRunner runner;
    LineLog log;
    const ProcessResult result = runner.runLines(
        "/usr/bin/env", {}, std::nullopt,
        ProcessRunner::Environment{{"TESSARIN_A", "1"}, {"TESSARIN_B", "two words"}},
        log.callback());
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(log.lines(), ElementsAre("TESSARIN_A=1", "TESSARIN_B=two words"));
}

TEST(ProcessRunner, LaunchFailureThrowsLaunchError) {
    TemporaryFolder folder;
    ProcessRunner missing;
    try {
        (void)missing.run(folder / "absent", {});
        ADD_FAILURE() << "no LaunchError";
    } catch (const LaunchError& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
    }
    test::writeFile(folder / "plain", "#!/bin/sh\n", 0644);
    ProcessRunner notExecutable;
    EXPECT_THROW((void)notExecutable.run(folder / "plain", {}), LaunchError);
    // Cancelling after a failed launch finds no child.
    notExecutable.cancel(1);
    EXPECT_EQ(notExecutable.cancellationOutcome(),
              (CancellationOutcome{Escalation::notLaunched, 0}));
}

TEST(ProcessRunner, CaptureHoldsExactlyTheCapacity) {
    const std::size_t capacity = ProcessRunner::kStdoutCapacity;
    ProcessRunner exact;
    const ProcessResult full =
        exact.run("/usr/bin/head", {"-c", std::to_string(capacity), "/dev/zero"}, true);
    ASSERT_TRUE(full.stdoutData.has_value());
    EXPECT_EQ(full.stdoutData->size(), capacity);
    EXPECT_FALSE(full.stdoutOverflowed);

    ProcessRunner over;
    const ProcessResult overflowed = over.run(
        "/bin/sh", {"-c", "head -c " + std::to_string(capacity) + " /dev/zero; printf x"}, true);
    ASSERT_TRUE(overflowed.stdoutData.has_value());
    EXPECT_EQ(overflowed.stdoutData->size(), capacity);
    EXPECT_TRUE(overflowed.stdoutOverflowed);
    EXPECT_EQ(overflowed.stdoutData->back(), 'x');
    EXPECT_EQ(overflowed.stdoutData->front(), '\0');
}

TEST(ProcessRunner, RunLinesBoundsLineLengthAcrossSmallWrites) {
    TemporaryFolder folder;
    const std::size_t limit = ProcessRunner::kMaximumLineBytes;
    const std::string atLimit(limit, 'a');
    const std::string content = atLimit + "\n" + std::string(limit + 1, 'b') + "\nafter\n" +
                                std::string(3 * limit, 'c') + "\nend";
    test::writeFile(folder / "lines", content);
    for (const char* blockSize : {"bs=65536", "bs=100"}) {
        ProcessRunner runner;
        LineLog log;
        std::vector<std::string> atEnd;
        const ProcessResult result = runner.runLines(
            "/bin/dd", {"if=" + (folder / "lines").string(), blockSize, "status=none"},
            std::nullopt, std::nullopt, log.callback(), [&] { atEnd = log.lines(); });
        EXPECT_EQ(result.exitCode, 0);
        const std::vector<std::string> lines = log.lines();
        ASSERT_EQ(lines.size(), 3U) << blockSize;
        EXPECT_EQ(lines[0], atLimit);
        EXPECT_EQ(lines[1], "after");
        EXPECT_EQ(lines[2], "end");
        EXPECT_EQ(atEnd, lines) << "onStdoutEnd runs after the last line";
    }
}

TEST(ProcessRunner, TimeOutOfZeroOrLessDoesNotTimeOut) {
    TemporaryFolder folder;
    const auto script = writeScript(folder.path(), "tool", "sleep 0.2; echo done");
    for (const double timeout : {0.0, -1.0}) {
        ProcessRunner runner;
        const ProcessResult result = runner.run(script, {}, true, false, timeout);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.stdoutData, "done\n");
        EXPECT_FALSE(result.timedOut);
        EXPECT_FALSE(result.wasCancelled);
    }
}

TEST(ProcessRunner, TimeOutCancelsTheChild) {
    const auto start = Clock::now();
    ProcessRunner runner;
    const ProcessResult result = runner.run("/bin/sleep", {"30"}, false, false, 0.3);
    EXPECT_LT(secondsSince(start), 20.0);
    EXPECT_TRUE(result.timedOut);
    EXPECT_TRUE(result.wasCancelled);
    EXPECT_EQ(result.exitCode, SIGTERM);
    EXPECT_EQ(runner.cancellationOutcome(),
              (CancellationOutcome{Escalation::terminatedGracefully, 0}));
}

TEST(ProcessRunner, CancelFromAnotherThreadDuringTheRun) {
    TemporaryFolder folder;
    const auto script =
        writeScript(folder.path(), "tool", "echo oops >&2; echo ready; exec sleep 30");
    auto runner = std::make_shared<ProcessRunner>();
    LineLog log;
    std::thread canceller([&] {
        if (log.waitFor("ready")) {
            runner->cancel(ProcessRunner::kUserCancelGrace);
        }
    });
    const auto start = Clock::now();
    const ProcessResult result =
        runner->runLines(script, {}, std::nullopt, std::nullopt, log.callback());
    canceller.join();
    EXPECT_LT(secondsSince(start), 20.0);
    EXPECT_TRUE(result.wasCancelled);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, SIGTERM);
    EXPECT_TRUE(runner->isCancelled());
    EXPECT_EQ(runner->cancellationOutcome(),
              (CancellationOutcome{Escalation::terminatedGracefully, 0}));
    EXPECT_EQ(describeCancellation(runner->cancellationOutcome(), result.stderrTail),
              "cancelled (SIGTERM)\noops");
}

TEST(ProcessRunner, ChildIgnoringSigtermIsKilledAfterTheGrace) {
    TemporaryFolder folder;
    // An ignored signal stays ignored across exec, so sleep ignores SIGTERM too.
    const auto script =
        writeScript(folder.path(), "tool", "trap '' TERM; echo ready; exec sleep 30");
    ProcessRunner runner;
    LineLog log;
    const auto start = Clock::now();
    const ProcessResult result =
        runner.runLines(script, {}, std::nullopt, std::nullopt, [&](std::string_view line) {
            log.callback()(line);
            if (line == "ready") {
                runner.cancel(0.3);
            }
        });
    EXPECT_LT(secondsSince(start), 20.0);
    EXPECT_TRUE(result.wasCancelled);
    EXPECT_EQ(result.exitCode, SIGKILL);
    EXPECT_EQ(runner.cancellationOutcome(), (CancellationOutcome{Escalation::requiredSigkill, 0}));
    EXPECT_EQ(describeCancellation(runner.cancellationOutcome(), ""),
              "cancelled (required SIGKILL)");
}

TEST(ProcessRunner, CancelSignalsTheChildsOwnChildren) {
    TemporaryFolder folder;
    const auto pids = folder / "pids";
    const auto script =
        writeScript(folder.path(), "tool",
                    "trap '' TERM\n"
                    "sleep 30 & echo $! > '" +
                        pids.string() +
                        ".1'\n"
                        "(trap - TERM; exec sleep 30) & echo $! > '" +
                        pids.string() +
                        ".2'\n"
                        "echo ready\n"
                        // Still there, and ignoring SIGTERM, once the children are gone.
                        "wait; exec sleep 30");
    ProcessRunner runner;
    KillOnExit first;
    KillOnExit second;
    const ProcessResult result =
        runner.runLines(script, {}, std::nullopt, std::nullopt, [&](std::string_view line) {
            if (line == "ready") {
                runner.cancel(0.5);
            }
        });
    const auto firstPid = test::readPid(folder / "pids.1");
    const auto secondPid = test::readPid(folder / "pids.2");
    ASSERT_TRUE(firstPid && secondPid);
    first.reset(firstPid);
    second.reset(secondPid);
    EXPECT_TRUE(result.wasCancelled);
    EXPECT_EQ(result.exitCode, SIGKILL);
    EXPECT_EQ(runner.cancellationOutcome(), (CancellationOutcome{Escalation::requiredSigkill, 2}));
    // The second child took SIGTERM; the first ignores it and was killed along with its parent.
    EXPECT_TRUE(test::waitUntilGone(*secondPid));
    EXPECT_TRUE(test::waitUntilGone(*firstPid));
}

TEST(ProcessRunner, CancelAfterTheChildFinishedFindsNoChild) {
    ProcessRunner runner;
    const ProcessResult result = runner.run("/bin/true", {});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_FALSE(result.wasCancelled);
    runner.cancel(ProcessRunner::kUserCancelGrace);
    runner.cancel(ProcessRunner::kUserCancelGrace);
    EXPECT_TRUE(runner.isCancelled());
    EXPECT_EQ(runner.cancellationOutcome(), (CancellationOutcome{Escalation::notLaunched, 0}));
    EXPECT_EQ(describeCancellation(runner.cancellationOutcome(), ""), "cancelled (before launch)");
}

TEST(ProcessRunner, DaemonHoldingTheOutputYieldsIncompleteOutputInBoundedTime) {
    TemporaryFolder folder;
    const auto pidFile = folder / "daemon";
    const auto script = writeScript(folder.path(), "tool",
                                    "sleep 60 & echo $! > '" + pidFile.string() +
                                        "'\n"
                                        "echo first");
    ProcessRunner runner;
    LineLog log;
    bool endSeen = false;
    KillOnExit daemon;
    const auto start = Clock::now();
    const ProcessResult result = runner.runLines(script, {}, std::nullopt, std::nullopt,
                                                 log.callback(), [&] { endSeen = true; });
    daemon.reset(test::readPid(pidFile));
    // Usually one quiet 5-second wait; a delivery during it earns one more.
    EXPECT_LT(secondsSince(start), 20.0);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.outputIncomplete);
    EXPECT_FALSE(result.wasCancelled);
    EXPECT_THAT(log.lines(), ElementsAre("first"));
    EXPECT_FALSE(endSeen) << "an abandoned pipe has no end";
}

TEST(ProcessRunner, ThrowingConsumerMarksOutputIncomplete) {
    ProcessRunner runner;
    int calls = 0;
    const ProcessResult result = runner.runLines("/bin/sh", {"-c", "echo a; echo b; echo c"},
                                                 std::nullopt, std::nullopt, [&](std::string_view) {
                                                     ++calls;
                                                     throw std::runtime_error("consumer bug");
                                                 });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(result.outputIncomplete);
}

TEST(ProcessRunner, RawHandlersSeeBothStreamsAndTheirEnds) {
    ProcessRunner runner;
    std::string out;
    std::string err;
    int ends = 0;
    ProcessRunner::RawOptions options;
    options.stdoutHandler = [&](std::string_view bytes) { out += bytes; };
    options.stderrHandler = [&](std::string_view bytes) { err += bytes; };
    options.stdoutEnd = [&] { ++ends; };
    options.stderrEnd = [&] { ++ends; };
    const ProcessResult result =
        runner.runRaw("/bin/sh", {"-c", "printf 'o'; printf 'e' >&2"}, std::move(options));
    EXPECT_EQ(out, "o");
    EXPECT_EQ(err, "e");
    EXPECT_EQ(ends, 2);
    EXPECT_EQ(result.stderrTail, "e");
    EXPECT_EQ(result.stdoutData, std::nullopt);
}

// Cancels race the launch, the run and the end from another thread; whatever the timing,
// the result and the outcome must agree and the run must end promptly.
TEST(ProcessRunner, CancelRacingTheRunGivesConsistentResults) {
    for (int round = 0; round < 24; ++round) {
        auto runner = std::make_shared<ProcessRunner>();
        std::promise<void> go;
        std::shared_future<void> ready = go.get_future().share();
        std::thread canceller([runner, ready, round] {
            ready.wait();
            std::this_thread::sleep_for(std::chrono::microseconds(round * 400));
            runner->cancel(ProcessRunner::kUserCancelGrace);
        });
        go.set_value();
        const ProcessResult result =
            runner->run("/bin/sh", {"-c", "exec sleep 30"}, true, false, std::nullopt);
        canceller.join();
        const auto outcome = runner->cancellationOutcome();
        ASSERT_TRUE(outcome.has_value());
        if (result.exitCode == -1) {
            EXPECT_EQ(outcome->escalation, Escalation::notLaunched);
            EXPECT_TRUE(result.wasCancelled);
            EXPECT_EQ(result.stdoutData, std::nullopt);
        } else {
            EXPECT_EQ(outcome->escalation, Escalation::terminatedGracefully);
            EXPECT_TRUE(result.wasCancelled);
            EXPECT_EQ(result.exitCode, SIGTERM);
        }
    }
}

// The runner's child is killed when the process that ran it dies, even by SIGKILL: a long
// ffmpeg held by a helper process is gone within a second of that process.
TEST(ProcessRunnerDeath, ChildDiesWithTheProcessThatRanIt) {
    const std::string hold = std::string(TESSARIN_BIN_DIR) + "/tessarin_runner_hold_tool";
    const std::string ffmpeg = std::string(TESSARIN_HELPER_DIR) + "/ffmpeg";
    // Silent, so that no broken pipe can end it in the death signal's stead.
    std::vector<std::string> arguments = {hold,
                                          ffmpeg,
                                          "-nostdin",
                                          "-nostats",
                                          "-loglevel",
                                          "quiet",
                                          "-re",
                                          "-f",
                                          "lavfi",
                                          "-i",
                                          "testsrc=size=64x64:rate=10",
                                          "-t",
                                          "60",
                                          "-f",
                                          "null",
                                          "-"};
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t holder = -1;
    ASSERT_EQ(::posix_spawn(&holder, hold.c_str(), nullptr, nullptr, argv.data(), environ), 0);
    KillOnExit holderCleanup(holder);
    std::vector<pid_t> children;
    const auto start = Clock::now();
    while (children.empty() && secondsSince(start) < 20) {
        children = test::childProcesses(holder);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_THAT(children, ::testing::SizeIs(1));
    KillOnExit childCleanup(children.front());
    // Once it runs ffmpeg the child has passed the point where the death signal is armed.
    while (test::processName(children.front()) != "ffmpeg" && secondsSince(start) < 20) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(test::processName(children.front()), "ffmpeg");

    ASSERT_EQ(::kill(holder, SIGKILL), 0);
    ASSERT_EQ(::waitpid(holder, nullptr, 0), holder);
    EXPECT_TRUE(test::waitUntilGone(children.front(), std::chrono::seconds(1)));
}

// The death signal follows the thread that started the child. The runner starts it from the
// thread blocked in run(), so threads that made the runner or ran other children may end
// while it runs.
TEST(ProcessRunnerDeath, ChildOutlivesOtherThreadsThatEnd) {
    std::shared_ptr<ProcessRunner> runner;
    std::thread([&] { runner = std::make_shared<ProcessRunner>(); }).join();
    ProcessResult result;
    std::thread worker([&] { result = runner->run("/bin/sh", {"-c", "sleep 1; exit 7"}); });
    for (int i = 0; i < 4; ++i) {
        std::thread([] { (void)ProcessRunner().run("/bin/true", {}); }).join();
    }
    worker.join();
    EXPECT_EQ(result.exitCode, 7);
    EXPECT_FALSE(result.wasCancelled);
}

}  // namespace
}  // namespace tessarin::engine
