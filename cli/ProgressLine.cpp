#include "cli/ProgressLine.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tessarin::cli {

ProgressLine::ProgressLine(std::string label)
    : label_(std::move(label)),
      enabled_(isatty(STDERR_FILENO) == 1),
      started_(std::chrono::steady_clock::now()) {}

void ProgressLine::update(std::optional<double> fraction) {
    if (!enabled_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - lastDraw_ < std::chrono::milliseconds(100) && fraction < 1.0) {
        return;
    }
    lastDraw_ = now;
    drawn_ = true;
    constexpr int kWidth = 30;
    if (!fraction) {
        std::fprintf(stderr, "\r\033[K%s  [%s] starting", label_.c_str(),
                     std::string(kWidth, '.').c_str());
        return;
    }
    const double clamped = std::clamp(*fraction, 0.0, 1.0);
    const int filled = static_cast<int>(std::floor(clamped * kWidth));
    const double elapsed = std::chrono::duration<double>(now - started_).count();
    std::string eta = "--:--";
    if (clamped > 0.01) {
        const auto left = static_cast<long long>(elapsed * (1 - clamped) / clamped);
        eta = fmt::format("{}:{:02}", left / 60, left % 60);
    }
    const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, '.');
    std::fprintf(stderr, "\r\033[K%s  [%s] %3d%%  ETA %s", label_.c_str(), bar.c_str(),
                 static_cast<int>(clamped * 100), eta.c_str());
}

void ProgressLine::finish() {
    if (enabled_ && drawn_) {
        std::fprintf(stderr, "\r\033[K");
        drawn_ = false;
    }
}

}  // namespace tessarin::cli
