// Small gray grids with changes, cuts, pop-ups, motion and stills, as FrameSelector takes them
// in either mode. It fails only as Failure: gridMismatch exactly at a grid that doesn't match its
// record, resourceLimit only under a small memory limit. A selection keeps to its budget, gives
// only the mode's reasons, holds frames that were fed (a frame before the range standing for its
// start) in rising time order within the range, each holding from its time to no later than the
// decoded end, counts its pruning, and is the same however often and wherever finish() was asked.
//
// The input is a twelve-byte header (mode, grid size, frame count, frames before the range,
// budget, range, memory limit, expected count) followed by the pictures: either raw grids one
// after the other, or a list of edits, each held or repeated for some frames.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "engine/frames/FrameSelector.hpp"
#include "engine/frames/FrameTypes.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::FrameAnalysisSettings;
using tessarin::engine::FrameReason;
using tessarin::engine::FrameSelectionMode;
using tessarin::engine::FrameSelectionResult;
using tessarin::engine::FrameSelector;
using tessarin::engine::FrameWarning;
using tessarin::engine::ShowinfoFrame;
using tessarin::fuzz::require;
using Kind = FrameSelector::Failure::Kind;

constexpr std::size_t kHeaderBytes = 12;
constexpr double kRate = 25;

struct Plan {
    FrameSelectionMode mode = FrameSelectionMode::changes;
    bool smallMemory = false;
    int64_t memoryLimit = FrameSelector::kDefaultMemoryLimitBytes;
    int64_t width = 1;
    int64_t height = 1;
    int64_t maxFrames = 2;
    double window = 0;
    std::optional<int64_t> expectedFrames;
    bool trimmed = false;
    std::optional<std::size_t> corruptAt;  // the frame whose grid is one cell off
    std::size_t finishAt = 0;              // where the second run also asks for a selection
    std::vector<ShowinfoFrame> records;
    std::vector<std::vector<std::uint8_t>> grids;
};

// The bytes of the pictures, read one at a time; zeros once they run out.
class Stream {
public:
    explicit Stream(std::string_view bytes) : bytes_(bytes) {}

    [[nodiscard]] bool done() const { return at_ >= bytes_.size(); }
    std::uint8_t next() { return done() ? 0 : static_cast<std::uint8_t>(bytes_[at_++]); }

private:
    std::string_view bytes_;
    std::size_t at_ = 0;
};

class Painter {
public:
    Painter(int64_t width, int64_t height, std::uint8_t background)
        : width_(width),
          height_(height),
          grid_(static_cast<std::size_t>(width * height), background) {}

    // The next picture of the raw form: the next width × height bytes, or the last picture
    // again once the bytes run out.
    const std::vector<std::uint8_t>& raw(Stream& stream) {
        if (!stream.done()) {
            for (std::uint8_t& cell : grid_) {
                cell = stream.next();
            }
        }
        return grid_;
    }

    // The next picture of the edit form. An edit byte holds an action (low three bits), a count
    // of following frames (next four) and whether those frames repeat the action or hold still.
    const std::vector<std::uint8_t>& edited(Stream& stream) {
        if (transientUndo_) {
            grid_ = std::move(*transientUndo_);
            transientUndo_.reset();
        }
        if (remaining_ > 0) {
            --remaining_;
            if (repeating_) {
                apply(action_, stream);
            }
            return grid_;
        }
        if (stream.done()) {
            return grid_;
        }
        const std::uint8_t edit = stream.next();
        action_ = edit & 0x07;
        remaining_ = (edit >> 3) & 0x0F;
        repeating_ = (edit & 0x80) != 0;
        apply(action_, stream);
        return grid_;
    }

private:
    std::uint8_t& cell(int64_t x, int64_t y) {
        return grid_[static_cast<std::size_t>(y * width_ + x)];
    }

    void rectangle(Stream& stream) {
        const int64_t x = stream.next() % width_;
        const int64_t y = stream.next() % height_;
        const int64_t w = 1 + stream.next() % width_;
        const int64_t h = 1 + stream.next() % height_;
        const std::uint8_t value = stream.next();
        for (int64_t row = y; row < std::min(y + h, height_); ++row) {
            for (int64_t column = x; column < std::min(x + w, width_); ++column) {
                cell(column, row) = value;
            }
        }
    }

    void apply(int action, Stream& stream) {
        switch (action) {
            case 0:  // nothing
                break;
            case 1: {  // a new scene: a flat picture
                std::fill(grid_.begin(), grid_.end(), stream.next());
                break;
            }
            case 2:  // a lasting change
                rectangle(stream);
                break;
            case 3:  // a pop-up for this frame alone
                transientUndo_ = grid_;
                rectangle(stream);
                break;
            case 4: {  // a few cells flicker
                const int count = 1 + stream.next() % 8;
                for (int k = 0; k < count; ++k) {
                    const std::size_t at = stream.next() % grid_.size();
                    grid_[at] = stream.next();
                }
                break;
            }
            case 5: {  // brightness shifts
                const auto delta = static_cast<std::int8_t>(stream.next());
                for (std::uint8_t& value : grid_) {
                    value = static_cast<std::uint8_t>(std::clamp(value + delta, 0, 255));
                }
                break;
            }
            case 6:  // the picture pans by a column
                for (int64_t row = 0; row < height_; ++row) {
                    const auto begin = grid_.begin() + row * width_;
                    std::rotate(begin, begin + 1, begin + width_);
                }
                break;
            default:  // a picture of its own
                for (std::uint8_t& value : grid_) {
                    value = stream.next();
                }
                break;
        }
    }

    int64_t width_;
    int64_t height_;
    std::vector<std::uint8_t> grid_;
    std::optional<std::vector<std::uint8_t>> transientUndo_;
    int action_ = 0;
    int remaining_ = 0;
    bool repeating_ = false;
};

Plan makePlan(const std::uint8_t* header, std::string_view pictures) {
    Plan plan;
    const std::uint8_t control = header[0];
    plan.mode = (control & 0x01) ? FrameSelectionMode::interval : FrameSelectionMode::changes;
    plan.smallMemory = (control & 0x02) != 0;
    if (plan.smallMemory) {
        plan.memoryLimit = int64_t{16384} * (1 + header[8] % 32);
    }
    const bool raw = (control & 0x04) != 0;
    plan.trimmed = (control & 0x08) != 0;
    plan.width = 1 + header[1] % 32;
    plan.height = 1 + header[2] % 18;
    const std::size_t count = 1 + (header[3] | (header[4] << 8)) % 300;
    const int64_t before = header[5] % 8;
    const int phase = (header[5] >> 3) % 8;  // eighths of a frame after the frame grid
    plan.maxFrames = 2 + header[6] % 39;
    if (control & 0x40) {
        plan.corruptAt = header[9] * count / 256;
    }
    plan.finishAt = header[9] * count / 256;
    switch ((control >> 4) & 0x03) {
        case 0:
            break;
        case 1:
            plan.expectedFrames = static_cast<int64_t>(count);
            break;
        case 2:
            plan.expectedFrames = static_cast<int64_t>(count) + header[10];
            break;
        default:
            plan.expectedFrames = header[10];
            break;
    }

    Stream stream(pictures);
    Painter painter(plan.width, plan.height, header[11]);
    double lastTime = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const double time =
            (static_cast<double>(static_cast<int64_t>(i) - before) + phase / 8.0) / kRate;
        plan.records.push_back({.n = static_cast<int64_t>(i),
                                .pts = static_cast<int64_t>(i),
                                .time = time,
                                .duration = 1 / kRate,
                                .width = plan.width,
                                .height = plan.height});
        plan.grids.push_back(raw ? painter.raw(stream) : painter.edited(stream));
        lastTime = time;
    }
    if (plan.corruptAt) {
        std::vector<std::uint8_t>& grid = plan.grids[*plan.corruptAt];
        grid.resize(grid.size() > 1 ? grid.size() - 1 : grid.size() + 1);
    }
    plan.window = std::max(lastTime, 0.0) + 1 / kRate + (header[7] % 41) * 0.25;
    return plan;
}

// The frame a selection starts with: the first inside the range, or the latest before it
// standing for the start when the first inside comes later than 0 (or never).
std::optional<int64_t> firstFrame(const Plan& plan, std::size_t fed) {
    std::optional<int64_t> latestBefore;
    for (std::size_t i = 0; i < fed; ++i) {
        const ShowinfoFrame& record = plan.records[i];
        if (record.time < 0) {
            latestBefore = record.n;
            continue;
        }
        return record.time > 0 && latestBefore ? latestBefore : record.n;
    }
    return latestBefore;
}

bool allowedReason(FrameSelectionMode mode, FrameReason reason) {
    if (mode == FrameSelectionMode::interval) {
        return reason == FrameReason::interval;
    }
    switch (reason) {
        case FrameReason::first:
        case FrameReason::change:
        case FrameReason::transient:
        case FrameReason::activity:
        case FrameReason::unsettled:
        case FrameReason::last:
            return true;
        case FrameReason::interval:
            return false;
    }
    return false;
}

// `fed` frames went in before finish().
void checkResult(const FrameSelectionResult& result, const Plan& plan, std::size_t fed) {
    const bool changes = plan.mode == FrameSelectionMode::changes;
    const std::size_t most = static_cast<std::size_t>(changes ? std::max<int64_t>(plan.maxFrames, 2)
                                                              : plan.maxFrames + 1);
    require(result.frames.size() <= most, "a selection keeps to its budget");
    require(
        result.prunedByBudget >= 0 &&
            result.prunedByBudget == result.candidates - static_cast<int64_t>(result.frames.size()),
        "prunedByBudget counts the candidates the budget gave up");
    const bool warnedPruned =
        std::count(result.warnings.begin(), result.warnings.end(), FrameWarning::budgetPruned) == 1;
    require(warnedPruned == (result.prunedByBudget > 0),
            "the budget warning says whether frames were pruned");
    require(std::isfinite(result.decodedUntil) && result.decodedUntil >= 0 &&
                result.decodedUntil <= plan.window,
            "the decoded end lies within the range");
    if (fed > 0 && (plan.trimmed || !plan.expectedFrames)) {
        require(result.decodedUntil == plan.window &&
                    std::find(result.warnings.begin(), result.warnings.end(),
                              FrameWarning::decodedShort) == result.warnings.end(),
                "without a count to check, the whole range counts as decoded");
    }

    const std::optional<int64_t> first = firstFrame(plan, fed);
    require(result.frames.empty() == !first, "a range with frames has a selection");
    if (first) {
        require(result.frames.front().frame.n == *first,
                "the selection starts with the range's first frame");
        require(!changes || result.frames.front().reason == FrameReason::first,
                "a selection of changes starts with a first frame");
    }

    std::optional<double> previous;
    for (const FrameSelectionResult::Selected& selected : result.frames) {
        const ShowinfoFrame& frame = selected.frame;
        require(allowedReason(plan.mode, selected.reason), "reasons are the mode's own");
        require(frame.n >= 0 && static_cast<std::size_t>(frame.n) < fed,
                "a selected frame was fed");
        ShowinfoFrame fedRecord = plan.records[static_cast<std::size_t>(frame.n)];
        if (fedRecord.time < 0) {
            fedRecord.time = 0;
        }
        require(frame == fedRecord, "a selected frame is as it was fed (or stands for 0)");
        require(frame.time >= 0 && frame.time <= plan.window, "frames lie within the range");
        require(!previous || frame.time > *previous, "frames rise strictly in time");
        previous = frame.time;
        require(
            selected.holdsUntil >= frame.time && selected.holdsUntil <= result.decodedUntil + 1e-6,
            "a frame holds from its time to no later than the decoded end");
        if (!changes) {
            require(!selected.changedCells && !selected.followingSpanPruned,
                    "interval frames carry no change counts and prune nothing");
        }
    }
}

struct Outcome {
    std::optional<FrameSelectionResult> result;
    std::optional<Kind> failure;
    std::size_t fed = 0;  // frames consumed without a failure
    std::optional<FrameSelectionResult> midway;

    bool operator==(const Outcome&) const = default;
};

void checkFailure(const FrameSelector::Failure& failure, const Plan& plan, std::size_t at) {
    if (failure.kind() == Kind::gridMismatch) {
        require(plan.corruptAt == at, "gridMismatch only at a grid that doesn't match");
    } else {
        require(failure.kind() == Kind::resourceLimit, "failures are of the listed kinds");
        require(plan.smallMemory && plan.mode == FrameSelectionMode::changes,
                "resourceLimit only under a small memory limit in changes mode");
    }
}

std::optional<FrameSelectionResult> finish(const FrameSelector& selector, const Plan& plan,
                                           std::size_t fed, Outcome& outcome) {
    try {
        FrameSelectionResult result =
            selector.finish(plan.window, plan.expectedFrames, plan.trimmed);
        checkResult(result, plan, fed);
        return result;
    } catch (const FrameSelector::Failure& failure) {
        checkFailure(failure, plan, fed);
        require(failure.kind() == Kind::resourceLimit, "finish fails only as resourceLimit");
        outcome.failure = failure.kind();
        return std::nullopt;
    }
}

Outcome run(const Plan& plan, bool finishMidway) {
    FrameSelector selector(
        FrameAnalysisSettings{}, plan.mode, plan.maxFrames, plan.memoryLimit,
        plan.mode == FrameSelectionMode::interval ? std::optional(plan.window) : std::nullopt);
    Outcome outcome;
    for (std::size_t i = 0; i < plan.records.size(); ++i) {
        if (finishMidway && i == plan.finishAt) {
            Outcome ignored;
            outcome.midway = finish(selector, plan, i, ignored);
        }
        try {
            selector.consume(plan.grids[i], plan.records[i]);
        } catch (const FrameSelector::Failure& failure) {
            checkFailure(failure, plan, i);
            outcome.failure = failure.kind();
            return outcome;
        } catch (...) {
            require(false, "consume throws FrameSelector::Failure only");
        }
        require(plan.corruptAt != i, "a grid that doesn't match its record is refused");
        require(plan.mode == FrameSelectionMode::interval ||
                    selector.accountedPeakBytes() <= plan.memoryLimit,
                "the memory account stays within the limit");
        outcome.fed = i + 1;
    }
    outcome.result = finish(selector, plan, outcome.fed, outcome);
    if (outcome.result) {
        Outcome again;
        require(finish(selector, plan, outcome.fed, again) == outcome.result,
                "finish leaves the selector as it was");
    }
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kHeaderBytes) {
        return 0;
    }
    const Plan plan = makePlan(
        data,
        std::string_view(reinterpret_cast<const char*>(data) + kHeaderBytes, size - kHeaderBytes));
    Outcome plain = run(plan, false);
    Outcome asked = run(plan, true);
    asked.midway.reset();
    require(plain == asked, "equal input gives equal output, whenever finish() was asked");
    return 0;
}
