// What jobs report back: the failure every job step throws, the phase, and the streams a
// finished encode must contain.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace tessarin::engine {

// Thrown by every job step. `step` is one short word saying what failed; `stderrTail` is the
// user-facing text (a sentence of the job's own or the tail of a tool's standard error).
// When `wasCancelled` is set nothing is shown to the user.
class JobFailure : public std::exception {
public:
    JobFailure(std::string step, std::optional<int32_t> exitCode, std::string stderrTail,
               bool wasCancelled = false)
        : step(std::move(step)),
          exitCode(exitCode),
          stderrTail(std::move(stderrTail)),
          wasCancelled(wasCancelled) {}

    // A failure of our own with a sentence and no tool involved.
    [[nodiscard]] static JobFailure sentence(std::string step, std::string text) {
        return JobFailure(std::move(step), std::nullopt, std::move(text), false);
    }
    [[nodiscard]] static JobFailure cancelled(std::string step) {
        return JobFailure(std::move(step), std::nullopt, "", true);
    }

    [[nodiscard]] const char* what() const noexcept override { return stderrTail.c_str(); }

    bool operator==(const JobFailure& other) const {
        return step == other.step && exitCode == other.exitCode && stderrTail == other.stderrTail &&
               wasCancelled == other.wasCancelled;
    }

    std::string step;
    std::optional<int32_t> exitCode;
    std::string stderrTail;
    bool wasCancelled = false;
};

enum class JobPhase { encoding, copyingToDestination, checkingCut };

enum class ExpectedOutputStream { video, audio };

}  // namespace tessarin::engine
