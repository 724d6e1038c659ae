// An area to record written as "X,Y,WIDTH,HEIGHT" in screen pixels (the command line's --area):
// four decimal integers, nothing else, each from 0 to kMaximumCoordinate, width and height at
// least 1. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "engine/recording/capture/RecordingTarget.hpp"

namespace tessarin::engine {

inline constexpr int64_t kMaximumAreaCoordinate = 100'000;

[[nodiscard]] std::optional<RecordingRect> parseRecordingArea(std::string_view text);
// The same form back: "X,Y,WIDTH,HEIGHT".
[[nodiscard]] std::string recordingAreaText(const RecordingRect& area);

}  // namespace tessarin::engine
