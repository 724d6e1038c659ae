#include "engine/clips/SilenceSuggestions.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <system_error>

#include "engine/clips/FastCut.hpp"

namespace tessarin::engine {

namespace {

using Kind = SilenceSuggestions::Failure::Kind;

constexpr double kEndTolerance = 0.001;
constexpr int64_t kOrderToleranceMicroseconds = 1;
// Standard error carries progress blocks and error lines; the last block is all that counts.
constexpr std::size_t kProgressTailBytes = 65'536;

[[noreturn]] void fail(Kind kind) {
    throw SilenceSuggestions::Failure(kind);
}

bool within(double value, double low, double high) {
    return std::isfinite(value) && value >= low && value <= high;
}

std::optional<double> parseDouble(std::string_view text) {
    double value = 0;
    const char* last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value);
    if (error != std::errc() || end != last) {
        return std::nullopt;
    }
    return value;
}

int64_t microseconds(double seconds) {
    return std::llround(seconds * 1'000'000.0);
}

// Calls `line` for each line of `text`, without its line break or a trailing "\r".
template <typename Function>
void forEachLine(std::string_view text, Function line) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view current = text.substr(0, end);
        if (!current.empty() && current.back() == '\r') {
            current.remove_suffix(1);
        }
        line(current);
        if (end == std::string_view::npos) {
            break;
        }
        text.remove_prefix(end + 1);
    }
}

// The scan ended ("progress=end" last) and its last position reached the end of the video.
void checkProgress(std::string_view progress, double length) {
    std::optional<std::string_view> lastState;
    std::optional<std::string_view> lastTime;
    forEachLine(progress, [&](std::string_view line) {
        if (line.starts_with("progress=")) {
            lastState = line.substr(9);
        } else if (line.starts_with("out_time_us=")) {
            lastTime = line.substr(12);
        }
    });
    if (lastState != "end" || !lastTime) {
        fail(Kind::incomplete);
    }
    int64_t reached = 0;
    const char* last = lastTime->data() + lastTime->size();
    const auto [end, error] = std::from_chars(lastTime->data(), last, reached);
    if (error != std::errc() || end != last ||
        static_cast<double>(reached) / 1'000'000.0 < length - kEndTolerance) {
        fail(Kind::incomplete);
    }
}

struct Silence {
    double start = 0;
    double end = 0;
};

// The silences of the metadata lines, closed and in time order; one still open at the end
// closes at `length`. Throws Failure(incomplete) for values out of range, unpaired or out of
// order.
std::vector<Silence> silencesOf(std::string_view metadata, double length) {
    std::vector<Silence> silences;
    std::optional<double> open;
    const auto value = [length](std::string_view text) {
        const std::optional<double> parsed = parseDouble(text);
        if (!parsed || !within(*parsed, 0, length + kEndTolerance)) {
            fail(Kind::incomplete);
        }
        return std::min(*parsed, length);
    };
    forEachLine(metadata, [&](std::string_view line) {
        if (line.starts_with("lavfi.silence_start=")) {
            const double start = value(line.substr(20));
            // One pass over the audio reports silences in time order; anything else is not it.
            if (open ||
                (!silences.empty() && microseconds(start) < microseconds(silences.back().end) -
                                                                kOrderToleranceMicroseconds)) {
                fail(Kind::incomplete);
            }
            open = start;
        } else if (line.starts_with("lavfi.silence_end=")) {
            const double end = value(line.substr(18));
            if (!open || microseconds(end) < microseconds(*open) - kOrderToleranceMicroseconds) {
                fail(Kind::incomplete);
            }
            silences.push_back({*open, std::max(end, *open)});
            open.reset();
        }
    });
    if (open) {
        silences.push_back({*open, length});
    }
    return silences;
}

}  // namespace

bool SilenceSettings::isValid() const {
    return within(noiseDB, -80, -10) && within(minimumSilence, 0.1, 60) &&
           within(minimumClip, 0.1, 60) && within(padding, 0, 2);
}

const char* SilenceSuggestions::Failure::what() const noexcept {
    switch (kind_) {
        case Kind::settings:
            return "Use a noise threshold from -80 to -10 dB, minimum silence/clip lengths from "
                   "0.1 to 60 seconds, and padding from 0 to 2 seconds.";
        case Kind::source:
            return "Suggestions need a video with audio and a known length of at most six hours.";
        case Kind::incomplete:
            return "The silence scan was incomplete, timed out, or returned too much data. No "
                   "suggestions were accepted.";
        case Kind::changed:
            return "The source changed during analysis. Scan the current file again.";
        case Kind::cancelled:
            return "Silence analysis cancelled.";
    }
    return "Silence analysis failed.";
}

double SilenceSuggestions::timeoutFor(double length) {
    return 120.0 + length / 10.0;
}

std::vector<std::string> SilenceSuggestions::arguments(const std::filesystem::path& source,
                                                       const SilenceSettings& settings,
                                                       double length) {
    const std::string graph = fmt::format(
        "[0:a:0]aresample=async=1:first_pts=0,apad=whole_dur={0:.6f},atrim=duration={0:.6f},"
        "silencedetect=n={1:.6f}dB:d={2:.6f},ametadata=mode=print:file='pipe\\:1'[analysis]",
        length, settings.noiseDB, settings.minimumSilence);
    return {"-nostdin",
            "-v",
            "error",
            "-err_detect",
            "explode",
            "-xerror",
            "-i",
            source.string(),
            "-filter_complex",
            graph,
            "-map",
            "[analysis]",
            "-f",
            "null",
            "-",
            "-progress",
            "pipe:2"};
}

std::vector<ClipSelection> SilenceSuggestions::interpret(std::string_view metadata,
                                                         std::string_view progress,
                                                         const SilenceSettings& settings,
                                                         double length) {
    if (!settings.isValid() || !within(length, 0, kMaximumLength) || length <= 0) {
        fail(Kind::incomplete);
    }
    checkProgress(progress, length);

    const int64_t total = microseconds(length);
    const int64_t padding = microseconds(settings.padding);
    const int64_t shortest = microseconds(settings.minimumClip);
    std::vector<std::pair<int64_t, int64_t>> kept;
    int64_t next = 0;
    const auto keep = [&](int64_t end) {
        if (end - next >= shortest) {
            if (kept.size() == ClipSelection::kClipLimit) {
                fail(Kind::incomplete);
            }
            kept.emplace_back(next, end);
        }
    };
    for (const Silence& silence : silencesOf(metadata, length)) {
        const int64_t a = microseconds(silence.start);
        const int64_t b = microseconds(silence.end);
        const int64_t clipEnd = a == 0 ? 0 : std::min(a + padding, total);
        const int64_t nextStart = b >= total ? total : std::max<int64_t>(b - padding, 0);
        if (nextStart <= clipEnd) {
            continue;
        }
        keep(clipEnd);
        next = nextStart;
    }
    keep(total);

    std::vector<ClipSelection> clips;
    clips.reserve(kept.size());
    for (std::size_t index = 0; index < kept.size(); ++index) {
        clips.emplace_back(
            Trim{microsecondText(kept[index].first), microsecondText(kept[index].second)},
            "Suggested " + std::to_string(index + 1));
    }
    return clips;
}

std::vector<ClipSelection> SilenceSuggestions::analyze(
    const std::filesystem::path& source, const Tools& tools, const SilenceSettings& settings,
    std::optional<double> duration, bool hasAudio, ProcessRunner& runner,
    const std::function<void(double)>& onProgress) {
    if (!settings.isValid()) {
        fail(Kind::settings);
    }
    if (!hasAudio || !duration || !within(*duration, 0, kMaximumLength) || *duration <= 0) {
        fail(Kind::source);
    }
    const double length = *duration;
    std::error_code error;
    if (!std::filesystem::is_regular_file(source, error)) {
        fail(Kind::source);
    }
    const std::optional<FastCut::SourceStamp> before = FastCut::SourceStamp::of(source);
    if (!before) {
        fail(Kind::source);
    }

    std::string metadata;
    bool overflowed = false;
    std::string progress;
    std::string partialLine;  // of the progress not yet reported
    ProcessRunner::RawOptions options;
    options.timeout = timeoutFor(length);
    options.stdoutHandler = ProcessRunner::collectInto(metadata, overflowed, kOutputLimit);
    options.stderrHandler = [&](std::string_view bytes) {
        if (onProgress) {
            partialLine.append(bytes);
            std::size_t lineEnd = 0;
            while ((lineEnd = partialLine.find('\n')) != std::string::npos) {
                const std::string_view line = std::string_view(partialLine).substr(0, lineEnd);
                int64_t reached = 0;
                if (line.starts_with("out_time_us=") &&
                    std::from_chars(line.data() + 12, line.data() + line.size(), reached).ec ==
                        std::errc()) {
                    onProgress(std::clamp(static_cast<double>(reached) / 1e6 / length, 0.0, 1.0));
                }
                partialLine.erase(0, lineEnd + 1);
            }
            if (partialLine.size() > 4096) {
                partialLine.clear();
            }
        }
        progress.append(bytes);
        if (progress.size() > 2 * kProgressTailBytes) {
            // Keep whole lines only, so that a cut never forges a key.
            std::size_t cut = progress.size() - kProgressTailBytes;
            cut = progress.find('\n', cut);
            progress.erase(0, cut == std::string::npos ? progress.size() : cut + 1);
        }
    };
    ProcessResult result;
    try {
        result =
            runner.runRaw(tools.ffmpeg, arguments(source, settings, length), std::move(options));
    } catch (const LaunchError&) {
        fail(Kind::incomplete);
    }
    if (result.wasCancelled && !result.timedOut) {
        fail(Kind::cancelled);
    }
    if (FastCut::SourceStamp::of(source) != before) {
        fail(Kind::changed);
    }
    if (result.timedOut || result.exitCode != 0 || overflowed || result.outputIncomplete) {
        fail(Kind::incomplete);
    }
    return interpret(metadata, progress, settings, length);
}

}  // namespace tessarin::engine
