// What a finished (or never started) child run reports, and how a cancellation ended.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tessarin::engine {

// The result of one ProcessRunner run. Callers look at `wasCancelled` and `timedOut` before
// `exitCode`: a child killed by a signal reports the signal's number there.
struct ProcessResult {
    int32_t exitCode = -1;                  // exit status, signal number, or -1 if never launched
    std::optional<std::string> stdoutData;  // bytes, present only when capture was asked for
    std::string stderrTail;                 // the last 30 lines of standard error, trimmed
    bool wasCancelled = false;              // cancel() was called on the runner (time-outs too)
    bool timedOut = false;                  // the time-out fired while the child ran
    bool stdoutOverflowed = false;          // captured output lost bytes at the front
    bool outputIncomplete = false;          // the pipes could not be drained after the child ended

    bool operator==(const ProcessResult&) const = default;
};

enum class Escalation { notLaunched, terminatedGracefully, requiredSigkill };

struct CancellationOutcome {
    Escalation escalation = Escalation::notLaunched;
    int childPIDsAffected = 0;  // direct children of the tool that were signalled

    bool operator==(const CancellationOutcome&) const = default;
};

// Text for humans: "cancelled (before launch)", "cancelled (SIGTERM)",
// "cancelled (required SIGKILL)", or "cancelled" without an outcome; a non-empty
// `stderrTail` follows after a line break.
[[nodiscard]] std::string describeCancellation(const std::optional<CancellationOutcome>& outcome,
                                               std::string_view stderrTail);

}  // namespace tessarin::engine
