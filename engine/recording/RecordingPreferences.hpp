// The user's recording choices, stored as JSON under "screenRecording.preferences.v1", and where
// recordings go by default: "Tessarin Recordings" in the user's videos folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessarin::engine {

enum class RecordingToolbarLayout { expanded, compact };

struct RecordingPreferences {
    static constexpr std::string_view kSettingsKey = "screenRecording.preferences.v1";
    static constexpr int64_t kDefaultCountdown = 3;
    static constexpr int64_t kMaximumCountdown = 10;
    static constexpr int64_t kDefaultMaximumDimension = 3840;
    static constexpr int64_t kSmallestMaximumDimension = 480;
    static constexpr int64_t kLargestMaximumDimension = 7680;

    RecordingToolbarLayout layout = RecordingToolbarLayout::expanded;
    bool systemAudio = true;
    std::optional<std::string> microphoneID;  // absent: microphone off
    bool showsCursor = true;
    bool showsClicks = false;
    int64_t countdown = kDefaultCountdown;
    int64_t framesPerSecond = 30;
    int64_t maximumDimension = kDefaultMaximumDimension;
    std::string destinationPath;  // empty: the default folder

    bool operator==(const RecordingPreferences&) const = default;
};

// Reads stored preferences and repairs them: a missing or wrong field takes its default and its
// key is added to `repaired` (when given). Anything that is not an object gives the defaults.
// Never throws.
[[nodiscard]] RecordingPreferences recordingPreferencesFromJson(
    const nlohmann::json& value, std::vector<std::string>* repaired = nullptr);
[[nodiscard]] nlohmann::json toJson(const RecordingPreferences& preferences);

// The user's videos folder: what `xdg-user-dir VIDEOS` prints, when that is an absolute path
// other than the home folder itself (which is what it prints when no videos folder is set);
// otherwise ~/Videos. Runs the program under the process runner. Throws std::runtime_error when
// there is no home folder.
[[nodiscard]] std::filesystem::path userVideosFolder();

// "Tessarin Recordings" in the user's videos folder.
[[nodiscard]] std::filesystem::path defaultRecordingDestination();

// The folder recordings go to: `destinationPath`, or the default when it is empty.
[[nodiscard]] std::filesystem::path recordingDestination(const RecordingPreferences& preferences);

// Makes the default folder on first use (and any missing parents, mode 0755 under the umask).
// Throws std::filesystem::filesystem_error.
void ensureDefaultRecordingDestination();

}  // namespace tessarin::engine
