// Where converted files go, as the user set it. Stored under the settings key "outputMode" by its
// raw string.
#pragma once

#include <string_view>

namespace tessarin::app {

enum class OutputMode { sameFolder, customFolder, askEachTime };

inline constexpr OutputMode kDefaultOutputMode = OutputMode::sameFolder;

// "sameFolder", "customFolder" or "askEachTime".
[[nodiscard]] std::string_view rawValue(OutputMode mode);
// The mode of a stored raw string; anything unknown (or nothing stored) reads as sameFolder, so
// that a value written by a newer version never sends files somewhere unexpected.
[[nodiscard]] OutputMode outputModeFromRaw(std::string_view raw);

}  // namespace tessarin::app
