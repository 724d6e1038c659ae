// Proposes the spoken parts of a video as keep clips by scanning its audio for silent stretches
// with ffmpeg's silencedetect. The scan is strict: a damaged stream stops ffmpeg, and anything
// less than a whole, clean scan gives no suggestions at all.
//
//   ProcessRunner runner;  // another thread may cancel it
//   std::vector<ClipSelection> keep = SilenceSuggestions::analyze(
//       source, tools, SilenceSettings{}, info.durationSeconds, info.hasAudio, runner);
//
// Blocking; for a background thread. Nothing is retained between calls.
#pragma once

#include <cstddef>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clips/ClipSelection.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

// The tuning of one scan. The defaults are the editor's starting values.
struct SilenceSettings {
    double noiseDB = -35;         // what counts as silence, in dB
    double minimumSilence = 0.5;  // seconds of silence before it counts
    double padding = 0.15;        // seconds of silence kept on each side of speech
    double minimumClip = 0.5;     // shorter keep clips are dropped

    // Every value finite and within the ranges of the `settings` sentence.
    [[nodiscard]] bool isValid() const;

    bool operator==(const SilenceSettings&) const = default;
};

class SilenceSuggestions {
public:
    // Why no suggestions came back; what() is the sentence shown to the user.
    class Failure : public std::exception {
    public:
        enum class Kind { settings, source, incomplete, changed, cancelled };

        explicit Failure(Kind kind) noexcept : kind_(kind) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;

        bool operator==(const Failure& other) const noexcept { return kind_ == other.kind_; }

    private:
        Kind kind_;
    };

    static constexpr double kMaximumLength = 21'600;  // six hours
    static constexpr std::size_t kOutputLimit = 4'194'304;

    // The run's time limit for a video `length` seconds long: audio decodes far faster than
    // real time, so a scan slower than a tenth of the length plus two minutes has stalled.
    [[nodiscard]] static double timeoutFor(double length);

    // ffmpeg's arguments for a scan of `source`, `length` seconds long: metadata lines on
    // standard output, progress on standard error.
    [[nodiscard]] static std::vector<std::string> arguments(const std::filesystem::path& source,
                                                            const SilenceSettings& settings,
                                                            double length);

    // The keep clips that the scan's output gives: `metadata` is standard output, `progress`
    // standard error. Pure; any thread. Throws Failure(incomplete) for a scan that didn't end,
    // didn't reach the end, or whose silences don't nest; never returns part of a list. What it
    // returns lies within 0 and `length`, in order, none shorter than settings.minimumClip, at
    // most ClipSelection::kClipLimit, named "Suggested 1", "Suggested 2"...
    [[nodiscard]] static std::vector<ClipSelection> interpret(std::string_view metadata,
                                                              std::string_view progress,
                                                              const SilenceSettings& settings,
                                                              double length);

    // Checks the settings and the source, scans on `runner` (fresh; any thread may cancel it)
    // and reads the result. `duration` is the video's length and `hasAudio` whether it has an
    // audio track, as the probe reported. `onProgress`, when given, receives the fraction of the
    // length scanned so far, on the runner's reader thread. Throws Failure only.
    [[nodiscard]] static std::vector<ClipSelection> analyze(
        const std::filesystem::path& source, const Tools& tools, const SilenceSettings& settings,
        std::optional<double> duration, bool hasAudio, ProcessRunner& runner,
        const std::function<void(double)>& onProgress = {});
};

}  // namespace tessarin::engine
