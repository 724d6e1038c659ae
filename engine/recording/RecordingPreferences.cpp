#include "engine/recording/RecordingPreferences.hpp"

#include <cstdlib>
#include <stdexcept>

#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr const char* kXdgUserDir = "/usr/bin/xdg-user-dir";
constexpr double kXdgUserDirTimeout = 5;

fs::path homeFolder() {
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/') {
        throw std::runtime_error("no home folder");
    }
    return home;
}

template <typename Value, typename Check>
void readField(const json& object, const char* key, Value& field, Check accepts,
               std::vector<std::string>* repaired) {
    const auto found = object.find(key);
    if (found != object.end()) {
        try {
            Value value = found->get<Value>();
            if (accepts(value)) {
                field = std::move(value);
                return;
            }
        } catch (const json::exception&) {
        }
    }
    if (repaired != nullptr) {
        repaired->emplace_back(key);
    }
}

template <typename Value>
bool any(const Value&) {
    return true;
}

}  // namespace

RecordingPreferences recordingPreferencesFromJson(const json& value,
                                                  std::vector<std::string>* repaired) {
    RecordingPreferences preferences;
    if (!value.is_object()) {
        if (repaired != nullptr) {
            repaired->emplace_back("preferences");
        }
        return preferences;
    }
    std::string layout = "expanded";
    readField(value, "layout", layout,
              [](const std::string& text) { return text == "expanded" || text == "compact"; },
              repaired);
    preferences.layout =
        layout == "compact" ? RecordingToolbarLayout::compact : RecordingToolbarLayout::expanded;
    readField(value, "systemAudio", preferences.systemAudio, any<bool>, repaired);
    if (const auto microphone = value.find("microphoneID");
        microphone != value.end() && !microphone->is_null()) {
        if (microphone->is_string() && !microphone->get<std::string>().empty()) {
            preferences.microphoneID = microphone->get<std::string>();
        } else if (repaired != nullptr) {
            repaired->emplace_back("microphoneID");
        }
    }
    readField(value, "showsCursor", preferences.showsCursor, any<bool>, repaired);
    readField(value, "showsClicks", preferences.showsClicks, any<bool>, repaired);
    const auto integerIn = [&value](const char* key) {
        const auto found = value.find(key);
        return found != value.end() && found->is_number_integer();
    };
    if (integerIn("countdown")) {
        readField(value, "countdown", preferences.countdown,
                  [](int64_t n) { return n >= 0 && n <= RecordingPreferences::kMaximumCountdown; },
                  repaired);
    } else if (repaired != nullptr) {
        repaired->emplace_back("countdown");
    }
    if (integerIn("framesPerSecond")) {
        readField(value, "framesPerSecond", preferences.framesPerSecond,
                  [](int64_t n) { return n == 30 || n == 60; }, repaired);
    } else if (repaired != nullptr) {
        repaired->emplace_back("framesPerSecond");
    }
    if (integerIn("maximumDimension")) {
        readField(value, "maximumDimension", preferences.maximumDimension,
                  [](int64_t n) {
                      return n >= RecordingPreferences::kSmallestMaximumDimension &&
                             n <= RecordingPreferences::kLargestMaximumDimension;
                  },
                  repaired);
    } else if (repaired != nullptr) {
        repaired->emplace_back("maximumDimension");
    }
    readField(value, "destinationPath", preferences.destinationPath,
              [](const std::string& path) { return path.empty() || path.front() == '/'; },
              repaired);
    return preferences;
}

json toJson(const RecordingPreferences& preferences) {
    json value = {
        {"layout", preferences.layout == RecordingToolbarLayout::compact ? "compact" : "expanded"},
        {"systemAudio", preferences.systemAudio},
        {"showsCursor", preferences.showsCursor},
        {"showsClicks", preferences.showsClicks},
        {"countdown", preferences.countdown},
        {"framesPerSecond", preferences.framesPerSecond},
        {"maximumDimension", preferences.maximumDimension},
        {"destinationPath", preferences.destinationPath},
    };
    if (preferences.microphoneID) {
        value["microphoneID"] = *preferences.microphoneID;
    }
    return value;
}

fs::path userVideosFolder() {
    const fs::path home = homeFolder();
    std::string printed;
    try {
        ProcessRunner runner;
        const ProcessResult result =
            runner.run(kXdgUserDir, {"VIDEOS"}, /*captureStdout=*/true, false, kXdgUserDirTimeout);
        if (result.exitCode == 0 && !result.wasCancelled && result.stdoutData) {
            printed = *result.stdoutData;
        }
    } catch (const LaunchError&) {
        // Without xdg-user-dirs the conventional folder stands.
    }
    while (!printed.empty() && (printed.back() == '\n' || printed.back() == '\r')) {
        printed.pop_back();
    }
    if (!printed.empty() && printed.front() == '/') {
        const fs::path folder = fs::path(printed).lexically_normal();
        if (folder != home.lexically_normal() && folder != (home / "").lexically_normal()) {
            return folder;
        }
    }
    return home / "Videos";
}

fs::path defaultRecordingDestination() {
    return userVideosFolder() / "Tessarin Recordings";
}

fs::path recordingDestination(const RecordingPreferences& preferences) {
    if (preferences.destinationPath.empty()) {
        return defaultRecordingDestination();
    }
    return preferences.destinationPath;
}

void ensureDefaultRecordingDestination() {
    fs::create_directories(defaultRecordingDestination());
}

}  // namespace tessarin::engine
