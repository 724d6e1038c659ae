// A short stretch of a source's audio drawn as a PNG picture, 1200 by 120 pixels in white on a
// transparent ground, so that the editor can show where speech begins and ends. One bounded
// ffmpeg run; a window past the end of the audio is drawn as silence.
//
//   ProcessRunner runner;  // another thread may cancel it
//   std::string png = WaveformPreview::render(source, tools, 12.0, 10.0, runner);
//
// Blocking; for a background thread. Nothing is retained between calls.
#pragma once

#include <cstddef>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

class WaveformPreview {
public:
    // Why no picture came back; what() is the sentence shown in its place.
    class Failure : public std::exception {
    public:
        enum class Kind { range, cancelled, unavailable };

        explicit Failure(Kind kind) noexcept : kind_(kind) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;

        bool operator==(const Failure& other) const noexcept { return kind_ == other.kind_; }

    private:
        Kind kind_;
    };

    static constexpr int kWidth = 1200;
    static constexpr int kHeight = 120;
    static constexpr double kMaximumLength = 30;
    static constexpr double kTimeoutSeconds = 20;
    // A 1200x120 two-colour picture compresses to a few kilobytes; far more is not a waveform.
    static constexpr std::size_t kOutputLimit = 1'048'576;

    // ffmpeg's arguments for the window of `length` seconds from `start`. Throws Failure(range)
    // unless start is finite and not negative and length finite, above 0 and at most 30.
    [[nodiscard]] static std::vector<std::string> arguments(const std::filesystem::path& source,
                                                            double start, double length);

    // Runs ffmpeg on `runner` (fresh; any thread may cancel it) and returns the PNG's bytes.
    // Throws Failure only: range before anything runs, cancelled, or unavailable for a time-out,
    // a failed run, a source without audio, or output that isn't one bounded PNG.
    [[nodiscard]] static std::string render(const std::filesystem::path& source, const Tools& tools,
                                            double start, double length, ProcessRunner& runner);
};

}  // namespace tessarin::engine
