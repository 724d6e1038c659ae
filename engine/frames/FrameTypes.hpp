// The vocabulary of frame export that the showinfo parser, the frame selector, the manifest and
// the job share. Plain values: copy them freely between threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace tessarin::engine {

// One frame as ffmpeg's showinfo filter logged it. Times are computed from the integer
// timestamps and the time base, never from the rounded decimals of the log.
struct ShowinfoFrame {
    int64_t n = 0;        // zero-based number in the log
    int64_t pts = 0;      // presentation time in time-base units
    double time = 0;      // seconds; negative before the start of the range
    double duration = 0;  // seconds, never negative
    int64_t width = 0;
    int64_t height = 0;

    bool operator==(const ShowinfoFrame&) const = default;
};

// The tuning of frame selection; the job always uses these values, and the whole record goes
// into the manifest.
struct FrameAnalysisSettings {
    int64_t gridLongEdge = 320;
    int64_t pruneLongEdge = 160;
    int64_t cellDelta = 12;
    double minFraction = 0.0003;
    double quietFraction = 0.0002;
    double settleSeconds = 0.3;
    double spacingSeconds = 0.25;
    double activitySeconds = 2.0;
    double cutFraction = 0.25;
    double cutHoldSeconds = 0.5;
    double pruneGapFactor = 2.0;

    bool operator==(const FrameAnalysisSettings&) const = default;
};

enum class FrameSelectionMode { changes, interval };

// Why a frame was kept. Raw values: "first", "change", "transient", "activity", "unsettled",
// "last", "interval".
enum class FrameReason { first, change, transient, activity, unsettled, last, interval };

// Raw values: "hdr-not-tone-mapped", "decoded-short", "budget-pruned",
// "permissions-not-enforced", "contact-sheet-skipped".
enum class FrameWarning {
    hdrNotToneMapped,
    decodedShort,
    budgetPruned,
    permissionsNotEnforced,
    contactSheetSkipped
};

[[nodiscard]] std::string_view rawValue(FrameReason reason);
[[nodiscard]] std::string_view rawValue(FrameWarning warning);
[[nodiscard]] std::string_view rawValue(FrameSelectionMode mode);
// The case of a raw value, or nothing for an unknown one.
[[nodiscard]] std::optional<FrameReason> frameReasonFromRaw(std::string_view raw);
[[nodiscard]] std::optional<FrameWarning> frameWarningFromRaw(std::string_view raw);
[[nodiscard]] std::optional<FrameSelectionMode> frameSelectionModeFromRaw(std::string_view raw);

// What the selector chose.
struct FrameSelectionResult {
    struct Selected {
        ShowinfoFrame frame;
        FrameReason reason = FrameReason::first;
        std::optional<int64_t> changedCells;
        double holdsUntil = 0;
        bool followingSpanPruned = false;

        bool operator==(const Selected&) const = default;
    };

    std::vector<Selected> frames;
    int64_t candidates = 0;  // before pruning
    int64_t prunedByBudget = 0;
    double decodedUntil = 0;  // seconds
    std::vector<FrameWarning> warnings;

    bool operator==(const FrameSelectionResult&) const = default;
};

}  // namespace tessarin::engine
