// The plain-text support report that the user copies by hand (the window's "Copy Support
// Report", `tessarin report`): version and install, file-manager actions, the helper tools with
// their digests, a run-path check, migration flags and settings, transcription state, attached
// Thunderbolt/USB4 accessories, recent errors and a recent log excerpt. Nothing is sent.
//
// No path, file name, key or account name survives: every section prints words and counts only,
// and the whole text passes redactReport() at the end (private values read "<private>").
//
// Blocking (child processes with time limits, file reads); call from a background thread. Each
// section catches its own failures and prints a line in its place; a report is always produced.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "engine/settings/SettingsStore.hpp"

namespace tessarin::engine {

struct SupportReportInputs {
    std::string version;                   // "0.1.0"
    std::filesystem::path program;         // the running executable
    std::filesystem::path helperFolder;    // libexec/tessarin
    std::filesystem::path dataHome;        // where the file-manager actions live
    SettingsStore* settings = nullptr;  // only read
    std::optional<std::filesystem::path> logFile;  // tessarin.log (and tessarin.log.1 beside it)
    std::chrono::system_clock::time_point now = std::chrono::system_clock::now();
    // The window's words for notifications and displays; absent from the command line.
    std::optional<std::string> notifications;
    std::optional<std::string> displays;
    bool recordingInProgress = false;
};

// "development", "system" (/usr), "shared" (/usr/local, /opt) or "user".
[[nodiscard]] std::string installLocationOf(const std::filesystem::path& program);

[[nodiscard]] std::string buildSupportReport(const SupportReportInputs& inputs);

// The lines of `logText` newer than `since` (by their leading UTC time), at most `keep`: the
// newest, after "{n} earlier line(s) elided". Exposed for tests.
[[nodiscard]] std::string recentLogExcerpt(const std::string& logText,
                                           std::chrono::system_clock::time_point since,
                                           std::size_t keep);

}  // namespace tessarin::engine
