// What one run of the transcription pipeline gathers as it goes; shared by its stages only.
#pragma once

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/model/TimeText.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionPipeline.hpp"

namespace tessarin::engine {

// The trim's start in seconds (0 when absent or unreadable), and its end when given.
struct TrimWindow {
    double start = 0;
    std::optional<double> end;

    [[nodiscard]] static TrimWindow of(const Trim& trim) {
        TrimWindow window;
        if (trim.start) {
            window.start = std::max(0.0, parseTimeSeconds(*trim.start).value_or(0.0));
        }
        if (trim.end) {
            window.end = parseTimeSeconds(*trim.end);
        }
        return window;
    }
};

// What one run gathers as it goes.
struct TranscriptionPipeline::Run {
    TranscriptionInput& input;
    const TranscriptionRequest& request;
    TranscriptionControl& control;
    const std::function<void(double)>& progress;
    std::filesystem::path scratch;
    double trimStart = 0;
    std::vector<std::string> texts;
    std::vector<TranscriptWord> words;
    bool timedWords = false;
    std::optional<double> throughSeconds;  // in the source, after the last chunk that succeeded

    void checkCancelled() const {
        if (control.isCancelled()) {
            throw TranscriptionError(TranscriptionError::Code::cancelled);
        }
    }
    void report(double fraction) const {
        if (progress) {
            progress(std::clamp(fraction, 0.0, 1.0));
        }
    }
};

}  // namespace tessarin::engine
