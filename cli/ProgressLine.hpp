// The progress bar of one file on a terminal: percentage and time left, redrawn in place.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace tessarin::cli {

class ProgressLine {
public:
    // Draws only when standard error is a terminal.
    explicit ProgressLine(std::string label);

    // `fraction` in [0, 1], or nothing while it isn't known yet.
    void update(std::optional<double> fraction);
    // Clears the line so that the next output starts on a clean line.
    void finish();

private:
    std::string label_;
    bool enabled_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point started_;
    std::chrono::steady_clock::time_point lastDraw_;
};

}  // namespace tessarin::cli
