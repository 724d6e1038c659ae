#include "engine/frames/internal/AnalysisStream.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine::frames_internal {

namespace {

constexpr double kProgressShare = 0.5;
constexpr double kProgressStep = 0.002;
constexpr const char* kNoPairingProgress =
    "ffmpeg's frames and frame log made no pairing progress. Nothing was saved.";
constexpr const char* kNoFrameLines =
    "ffmpeg's frame log could not be read (no frame lines). Nothing was saved.";

}  // namespace

std::string parserFailureSentence(const ShowinfoParser::Failure& failure) {
    if (failure.kind() == ShowinfoParser::Failure::Kind::reconfigured) {
        return "This video changes size partway through, so frames can't be taken from it. "
               "Nothing was saved.";
    }
    return fmt::format("ffmpeg's frame log could not be read ({}). Nothing was saved.",
                       ShowinfoParser::Failure::caseName(failure.kind()));
}

std::string selectorFailureSentence(const FrameSelector::Failure& failure) {
    if (failure.kind() == FrameSelector::Failure::Kind::resourceLimit) {
        return "This video needs more memory to analyse its changes. Nothing was saved. Try a "
               "shorter trim range, or use evenly spaced frames from the command-line tool with "
               "--mode interval.";
    }
    return "ffmpeg's frames and frame log did not match. Nothing was saved.";
}

AnalysisStream::AnalysisStream(FrameSelector selector, double window,
                               std::function<void(double)> onProgress,
                               std::function<void(std::string_view)> lineHook,
                               std::function<void()> abort)
    : selector_(std::move(selector)),
      lines_(ProcessRunner::kMaximumLineBytes),
      window_(window),
      onProgress_(std::move(onProgress)),
      lineHook_(std::move(lineHook)),
      abort_(std::move(abort)) {}

void AnalysisStream::fail(std::string message) {
    if (!failureMessage_) {
        failureMessage_ = std::move(message);
    }
    stopped_ = true;
    abortPending_ = true;
}

void AnalysisStream::locked(const std::function<void()>& body) {
    std::function<void()> abort;
    {
        const std::lock_guard lock(mutex_);
        body();
        if (abortPending_) {
            abortPending_ = false;
            abort = abort_;
        }
    }
    if (abort) {
        abort();
    }
}

void AnalysisStream::cutGrids() {
    std::size_t used = 0;
    while (partial_.size() - used >= gridBytes_) {
        const auto* first = reinterpret_cast<const std::uint8_t*>(partial_.data() + used);
        grids_.emplace_back(first, first + gridBytes_);
        used += gridBytes_;
    }
    partial_.erase(0, used);
}

void AnalysisStream::standardOutput(std::string_view bytes) {
    locked([&] {
        if (stopped_) {
            return;
        }
        if (gridBytes_ == 0) {
            prelude_.append(bytes);
            if (prelude_.size() >= kMaximumPreludeBytes) {
                fail(kNoFrameLines);
            }
            return;
        }
        partial_.append(bytes);
        cutGrids();
        pair();
        if (!stopped_ && grids_.size() > kMaximumUnpairedGrids) {
            fail(kNoPairingProgress);
        }
    });
}

void AnalysisStream::standardError(std::string_view bytes) {
    locked([&] {
        for (const std::string& text : lines_.feed(bytes)) {
            line(text);
        }
    });
}

void AnalysisStream::standardErrorEnd() {
    locked([&] {
        if (std::optional<std::string> rest = lines_.flush()) {
            line(*rest);
        }
    });
}

void AnalysisStream::line(std::string_view text) {
    if (stopped_) {
        return;
    }
    if (lineHook_) {
        lineHook_(text);
    }
    try {
        const std::optional<ShowinfoFrame> frame = parser_.consume(text);
        if (!frame) {
            return;
        }
        records_.push_back(*frame);
        if (gridBytes_ == 0) {
            // What arrived before the size was known are the first pictures.
            gridBytes_ = static_cast<std::size_t>(frame->width * frame->height);
            partial_ = std::move(prelude_);
            prelude_.clear();
            cutGrids();
        }
        pair();
    } catch (const ShowinfoParser::Failure& failure) {
        fail(parserFailureSentence(failure));
    }
}

void AnalysisStream::pair() {
    while (!stopped_ && !records_.empty() && !grids_.empty()) {
        const ShowinfoFrame frame = records_.front();
        records_.pop_front();
        std::vector<std::uint8_t> grid = std::move(grids_.front());
        grids_.pop_front();
        try {
            selector_.consume(std::move(grid), frame);
        } catch (const FrameSelector::Failure& failure) {
            fail(selectorFailureSentence(failure));
            return;
        }
        ++processed_;
        if (onProgress_ && window_ > 0) {
            const double value = std::clamp(frame.time / window_, 0.0, 1.0) * kProgressShare;
            if (value - reported_ >= kProgressStep) {
                reported_ = value;
                onProgress_(value);
            }
        }
    }
}

void AnalysisStream::stop() {
    stopped_ = true;
}

std::optional<std::string> AnalysisStream::failureMessage() const {
    const std::lock_guard lock(mutex_);
    return failureMessage_;
}

int64_t AnalysisStream::processed() const {
    const std::lock_guard lock(mutex_);
    return processed_;
}

bool AnalysisStream::hasLeftovers() const {
    const std::lock_guard lock(mutex_);
    return !records_.empty() || !grids_.empty() || !partial_.empty() || !prelude_.empty() ||
           (!parser_.tag() && processed_ > 0);
}

FrameSelectionResult AnalysisStream::finish(double window, std::optional<int64_t> expectedFrames,
                                            bool trimmed) const {
    const std::lock_guard lock(mutex_);
    return selector_.finish(window, expectedFrames, trimmed);
}

}  // namespace tessarin::engine::frames_internal
