// The two ffmpeg passes of a frame export: the analysis, whose gray pictures and log lines are
// paired into the selector, and the extraction, which writes exactly the chosen timestamps.
#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "engine/frames/FrameExtractionJob.hpp"
#include "engine/frames/internal/AnalysisStream.hpp"
#include "engine/frames/internal/FrameJobPlan.hpp"
#include "engine/process/LineSplitter.hpp"
#include "engine/progress/ProgressParser.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr double kAbortGrace = 1.0;

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The failure of an ffmpeg run that ended with a non-zero status.
JobFailure toolFailure(const char* step, const ProcessResult& result, const fs::path& link,
                       const fs::path& source) {
    if (lowercased(result.stderrTail).find("no decoder found for: hevc") != std::string::npos) {
        return JobFailure(step, result.exitCode,
                          "H.265 (HEVC) video can't be read by this edition's built-in tools. "
                          "Export an H.264 copy first, then extract frames from that copy.");
    }
    std::string text = frames_internal::withSourceName(result.stderrTail, link, source);
    if (text.empty()) {
        text = fmt::format("ffmpeg ended with status {} and printed no error.", result.exitCode);
    }
    return JobFailure(step, result.exitCode, std::move(text));
}

// What the extraction pass's reader thread collects: frame records from the log, progress from
// standard output. Its own lock.
class ExtractionStream {
public:
    ExtractionStream(int64_t maximumLongEdge, double window, std::function<void(double)> onProgress)
        : parser_(maximumLongEdge),
          lines_(ProcessRunner::kMaximumLineBytes),
          window_(window),
          onProgress_(std::move(onProgress)) {}

    void standardOutput(std::string_view bytes) {
        std::vector<double> fractions;
        {
            const std::lock_guard lock(mutex_);
            for (const ProgressSnapshot& snapshot : progress_.feed(bytes)) {
                if (const auto f = ProgressParser::fraction(snapshot, window_, 0.5, 0.95)) {
                    fractions.push_back(*f);
                }
            }
        }
        if (onProgress_) {
            for (const double f : fractions) {
                onProgress_(f);
            }
        }
    }
    void standardError(std::string_view bytes) {
        const std::lock_guard lock(mutex_);
        for (const std::string& line : lines_.feed(bytes)) {
            take(line);
        }
    }
    void standardErrorEnd() {
        const std::lock_guard lock(mutex_);
        if (std::optional<std::string> rest = lines_.flush()) {
            take(*rest);
        }
    }
    [[nodiscard]] std::optional<std::string> failureMessage() const {
        const std::lock_guard lock(mutex_);
        return failureMessage_;
    }
    [[nodiscard]] std::vector<ShowinfoFrame> collected() const {
        const std::lock_guard lock(mutex_);
        return collected_;
    }
    [[nodiscard]] std::optional<std::string> timeBase() const {
        const std::lock_guard lock(mutex_);
        return parser_.timeBase();
    }

private:
    void take(std::string_view line) {
        if (failureMessage_) {
            return;
        }
        try {
            if (std::optional<ShowinfoFrame> frame = parser_.consume(line)) {
                collected_.push_back(*frame);
            }
        } catch (const ShowinfoParser::Failure& failure) {
            failureMessage_ = frames_internal::parserFailureSentence(failure);
        }
    }

    mutable std::mutex mutex_;
    ShowinfoParser parser_;
    LineSplitter lines_;
    ProgressParser progress_;
    std::vector<ShowinfoFrame> collected_;
    std::optional<std::string> failureMessage_;
    double window_;
    std::function<void(double)> onProgress_;
};

}  // namespace

FrameSelectionResult FrameExtractionJob::analyse(const Plan& plan, const Callbacks& callbacks) {
    throwIfCancelled("analysis");
    const std::shared_ptr<ProcessRunner> runner = installRunner();
    std::optional<double> intervalWindow;
    if (options_.mode == FrameSelectionMode::interval) {
        intervalWindow = plan.window;
    }
    auto stream = std::make_shared<frames_internal::AnalysisStream>(
        FrameSelector(FrameAnalysisSettings{}, options_.mode, plan.maxFrames,
                      analysisMemoryLimitBytes, intervalWindow),
        plan.window, callbacks.onProgress, analysisLineHook,
        [runner] { runner->cancel(kAbortGrace); });
    {
        const std::lock_guard lock(mutex_);
        currentStream_ = stream;
        if (cancelled_) {
            stream->stop();
            runner->cancel(kCancelGrace);
        }
    }
    ProcessRunner::RawOptions raw;
    raw.stdoutHandler = [&](std::string_view bytes) { stream->standardOutput(bytes); };
    raw.stderrHandler = [&](std::string_view bytes) { stream->standardError(bytes); };
    raw.stderrEnd = [&] { stream->standardErrorEnd(); };
    ProcessResult result;
    try {
        result = runner->runRaw(
            tools_.ffmpeg, frameAnalysisArguments(plan.input, plan.start, plan.window, plan.av1),
            std::move(raw));
    } catch (const LaunchError& error) {
        clearRunner();
        throw JobFailure("analysis", -1,
                         fmt::format("Could not start ffmpeg ({}).", error.code().message()));
    }
    clearRunner();
    throwIfCancelled("analysis");

    if (const std::optional<std::string> message = stream->failureMessage()) {
        throw JobFailure::sentence("analysis", *message);
    }
    if (result.exitCode != 0) {
        throw toolFailure("analysis", result, plan.input, source_);
    }
    if (stream->processed() == 0) {
        throw JobFailure::sentence("analysis",
                                   "No frames could be decoded in this range of the video. Check "
                                   "the trim range against the video's length.");
    }
    if (stream->hasLeftovers() || result.outputIncomplete) {
        throw JobFailure::sentence(
            "analysis", "ffmpeg's frames and frame log did not match. Nothing was saved.");
    }
    try {
        const std::optional<int64_t> expected =
            plan.trimmed ? std::nullopt : plan.info.videoFrameCount;
        return stream->finish(plan.window, expected, plan.trimmed);
    } catch (const FrameSelector::Failure& failure) {
        throw JobFailure::sentence("analysis", frames_internal::selectorFailureSentence(failure));
    }
}

FrameExtractionJob::Extracted FrameExtractionJob::extract(const Plan& plan,
                                                          const FrameSelectionResult& selection,
                                                          const fs::path& outLink,
                                                          const Callbacks& callbacks) {
    throwIfCancelled("extraction");
    const std::shared_ptr<ProcessRunner> runner = installRunner();
    std::vector<int64_t> pts;
    pts.reserve(selection.frames.size());
    for (const FrameSelectionResult::Selected& selected : selection.frames) {
        pts.push_back(selected.frame.pts);
    }
    // A free edge of -2 may round the long edge up to the next even number.
    const int64_t longEdge = options_.maxSize + (options_.maxSize % 2);
    ExtractionStream stream(longEdge, plan.window, callbacks.onProgress);
    ProcessRunner::RawOptions raw;
    raw.stdoutHandler = [&](std::string_view bytes) { stream.standardOutput(bytes); };
    raw.stderrHandler = [&](std::string_view bytes) { stream.standardError(bytes); };
    raw.stderrEnd = [&] { stream.standardErrorEnd(); };
    ProcessResult result;
    try {
        result = runner->runRaw(
            tools_.ffmpeg,
            frameExtractionArguments(plan.input, outLink, plan.start, plan.window, pts,
                                     options_.maxSize, options_.format, plan.av1),
            std::move(raw));
    } catch (const LaunchError& error) {
        clearRunner();
        throw JobFailure("extraction", -1,
                         fmt::format("Could not start ffmpeg ({}).", error.code().message()));
    }
    clearRunner();
    throwIfCancelled("extraction");
    if (const std::optional<std::string> message = stream.failureMessage()) {
        throw JobFailure::sentence("extraction", *message);
    }
    if (result.exitCode != 0) {
        throw toolFailure("extraction", result, plan.input, source_);
    }
    Extracted extracted;
    extracted.frames = stream.collected();
    extracted.timeBase = stream.timeBase().value_or("");
    std::vector<int64_t> written;
    written.reserve(extracted.frames.size());
    for (const ShowinfoFrame& frame : extracted.frames) {
        written.push_back(frame.pts);
    }
    if (written != pts) {
        throw JobFailure::sentence(
            "extraction", fmt::format("ffmpeg wrote {} frames that do not match the {} selected. "
                                      "Nothing was saved.",
                                      written.size(), pts.size()));
    }
    return extracted;
}

}  // namespace tessarin::engine
