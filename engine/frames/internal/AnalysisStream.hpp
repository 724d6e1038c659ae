// Pairs the two outputs of the analysis pass: raw gray frames on ffmpeg's standard output and
// their showinfo log lines on standard error, one for one, into the frame selector. Private to
// the frame extraction job.
//
// Both pipes are read by the one reader thread of the run, which takes turns between them, so
// the log can't fall far behind the pictures unless ffmpeg stops logging; the queue of
// unpaired pictures is bounded, and a log that stalls behind it ends the pass. stop() may come
// from any thread, also from inside the line hook. Every other member takes the stream's lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/frames/FrameSelector.hpp"
#include "engine/frames/ShowinfoParser.hpp"
#include "engine/process/LineSplitter.hpp"

namespace tessarin::engine::frames_internal {

class AnalysisStream {
public:
    // How far the pictures may run ahead of their log lines.
    static constexpr std::size_t kMaximumUnpairedGrids = 255;
    // Bytes held while no log line has told the picture size yet.
    static constexpr std::size_t kMaximumPreludeBytes = 16'777'216;

    // `abort` stops the ffmpeg run; it is called at most once, with the lock released.
    AnalysisStream(FrameSelector selector, double window, std::function<void(double)> onProgress,
                   std::function<void(std::string_view)> lineHook, std::function<void()> abort);

    void standardOutput(std::string_view bytes);
    void standardError(std::string_view bytes);
    // The end of standard error: an unterminated last line still counts.
    void standardErrorEnd();
    // Stops taking input; what arrives later is dropped.
    void stop();

    // After the run: the failure's sentence, if any; the frames paired; whether anything is left
    // unpaired (or the log's tag never appeared while pictures did).
    [[nodiscard]] std::optional<std::string> failureMessage() const;
    [[nodiscard]] int64_t processed() const;
    [[nodiscard]] bool hasLeftovers() const;
    // The selection; throws FrameSelector::Failure.
    [[nodiscard]] FrameSelectionResult finish(double window, std::optional<int64_t> expectedFrames,
                                              bool trimmed) const;

private:
    // Runs `body` under the lock, then the abort it asked for, outside the lock.
    void locked(const std::function<void()>& body);
    void line(std::string_view text);
    void cutGrids();
    void pair();
    void fail(std::string message);

    mutable std::mutex mutex_;
    ShowinfoParser parser_{int64_t{320}};
    FrameSelector selector_;
    LineSplitter lines_;
    std::deque<ShowinfoFrame> records_;
    std::deque<std::vector<std::uint8_t>> grids_;
    std::string partial_;
    std::string prelude_;
    std::size_t gridBytes_ = 0;
    // Also set by stop() without the lock: a cancel may come from inside a line hook.
    std::atomic<bool> stopped_ = false;
    int64_t processed_ = 0;
    double reported_ = -1.0;
    std::optional<std::string> failureMessage_;
    double window_;
    std::function<void(double)> onProgress_;
    std::function<void(std::string_view)> lineHook_;
    std::function<void()> abort_;
    bool abortPending_ = false;  // set under the lock, run once the lock is released
};

// The sentences of the analysis's failures.
[[nodiscard]] std::string parserFailureSentence(const ShowinfoParser::Failure& failure);
[[nodiscard]] std::string selectorFailureSentence(const FrameSelector::Failure& failure);

}  // namespace tessarin::engine::frames_internal
