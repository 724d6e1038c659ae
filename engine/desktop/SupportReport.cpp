#include "engine/desktop/SupportReport.hpp"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <fstream>
#include <sstream>

#include "engine/desktop/ActionRegistrar.hpp"
#include "engine/desktop/ReportRedaction.hpp"
#include "engine/encoders/FileDigest.hpp"
#include "engine/intake/HelperActions.hpp"
#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr double kToolTimeout = 10.0;
constexpr std::size_t kLogLinesKept = 200;

std::optional<std::string> runForOutput(const fs::path& program,
                                        const std::vector<std::string>& arguments) {
    try {
        ProcessRunner runner;
        const ProcessResult result = runner.run(program, arguments, true, true, kToolTimeout);
        if (result.exitCode != 0 || result.timedOut || !result.stdoutData) {
            return std::nullopt;
        }
        return result.stdoutData;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

std::optional<std::string> digestOf(const fs::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    std::optional<std::string> digest;
    try {
        digest = sha256Hex(fd);
    } catch (const std::exception&) {
    }
    ::close(fd);
    return digest;
}

std::string heading(std::string_view title) {
    return fmt::format("{}\n----\n", title);
}

std::string actionsSection(const SupportReportInputs& inputs) {
    std::string text = heading("File-manager actions (the file each file manager reads is what counts)");
    if (inputs.settings == nullptr) {
        return text + "unavailable: no settings store\n\n";
    }
    // The registrar only reads here; it is never asked to change anything.
    const ActionRegistrar registrar(
        {inputs.dataHome, inputs.helperFolder / std::string(kActionHelperName)}, *inputs.settings);
    int mismatches = 0;
    for (const ActionStatus& row : registrar.status()) {
        for (const ActionFileStatus& file : row.files) {
            text += fmt::format("{} {}: {}", row.name, fileManagerKey(file.manager),
                                actionFileStateWord(file.state));
            switch (file.state) {
                case ActionFileState::elsewhere:
                    text += "  <-- ANOTHER COPY OWNS THIS ACTION";
                    break;
                case ActionFileState::edited:
                    text += "  <-- MISMATCH (elected but not active in the file manager)";
                    ++mismatches;
                    break;
                case ActionFileState::foreign:
                    text += "  <-- FOREIGN FILE (left untouched)";
                    break;
                default:
                    break;
            }
            text += "\n";
        }
    }
    if (mismatches > 0) {
        return text + fmt::format("{} election<->file-manager mismatch(es) — see the rows above.\n\n",
                                  mismatches);
    }
    return text + "\nNo election<->file-manager mismatches.\n\n";
}

std::string helpersSection(const SupportReportInputs& inputs) {
    std::string text = heading("Helpers (libexec/tessarin)");
    struct Tool {
        const char* name;
        const char* versionFlag;
    };
    for (const Tool tool : {Tool{"ffmpeg", "-version"}, Tool{"ffprobe", "-version"},
                            Tool{"gifsicle", "--version"}}) {
        const fs::path path = inputs.helperFolder / tool.name;
        const std::optional<std::string> version = runForOutput(path, {tool.versionFlag});
        if (!version) {
            text += fmt::format("{}: (unavailable)\n", tool.name);
            continue;
        }
        text += fmt::format("{}: {}\n  sha256={}\n", tool.name, firstLine(*version),
                            digestOf(path).value_or("(unreadable)"));
    }
    text += "  manifest: not bundled — compare manually against the distribution's packages "
            "(dpkg -s ffmpeg gifsicle)\n";
    const fs::path helper = inputs.helperFolder / std::string(kActionHelperName);
    const std::optional<std::string> digest = digestOf(helper);
    std::string expected;
    std::getline(std::ifstream(inputs.helperFolder / std::string(kActionHelperDigestName)),
                 expected);
    if (!digest) {
        text += "tessarin-action: (unavailable)\n";
    } else if (expected != *digest) {
        text += fmt::format("tessarin-action: sha256={}  MISMATCH — expected {}\n", *digest,
                            expected.empty() ? "(no digest file)" : expected);
    } else {
        text += fmt::format("tessarin-action: sha256={}  matches its digest file\n", *digest);
    }
    return text + "\n";
}

std::string runPathSection(const SupportReportInputs& inputs) {
    std::string text = heading("RUNPATH (build-tree leakage check)");
    const fs::path readelf = "/usr/bin/readelf";
    if (::access(readelf.c_str(), X_OK) != 0) {
        return text + "readelf unavailable (binutils not installed) — RUNPATH check skipped.\n\n";
    }
    std::error_code error;
    const fs::path ffmpeg = fs::canonical(inputs.helperFolder / "ffmpeg", error);
    for (const auto& [label, file] : {std::pair<std::string, fs::path>{"program", inputs.program},
                                      std::pair<std::string, fs::path>{"helpers/ffmpeg", ffmpeg}}) {
        text += label + ":\n";
        const std::optional<std::string> dynamic = runForOutput(readelf, {"-d", file.string()});
        if (!dynamic) {
            text += "  (unreadable)\n";
            continue;
        }
        int entries = 0;
        std::istringstream lines(*dynamic);
        for (std::string line; std::getline(lines, line);) {
            if (line.find("(RUNPATH)") == std::string::npos &&
                line.find("(RPATH)") == std::string::npos) {
                continue;
            }
            const auto open = line.find('[');
            const auto close = line.rfind(']');
            if (open == std::string::npos || close == std::string::npos || close < open) {
                continue;
            }
            std::istringstream paths(line.substr(open + 1, close - open - 1));
            for (std::string entry; std::getline(paths, entry, ':');) {
                ++entries;
                const bool system = entry.starts_with("/usr/") || entry.starts_with("/lib") ||
                                    entry.starts_with("$ORIGIN");
                text += system ? fmt::format("  {}\n", entry)
                               : "  <private>  <-- WARN: build-tree path\n";
            }
        }
        if (entries == 0) {
            text += "  No RUNPATH entries.\n";
        }
    }
    return text + "\n";
}

std::string onOff(const std::optional<bool>& value, std::string_view absent) {
    return value ? (*value ? "on" : "off") : std::string(absent);
}

std::string settingsSections(const SupportReportInputs& inputs) {
    const SettingsStore* settings = inputs.settings;
    auto flag = [&](std::string_view key) {
        return settings ? onOff(settings->boolValue(key), "not set") : "unknown";
    };
    auto word = [&](std::string_view key, std::string_view absent) {
        const std::optional<std::string> value = settings ? settings->stringValue(key) : std::nullopt;
        return value ? *value : std::string(absent);
    };
    std::string text = heading("Migration flags");
    text += fmt::format("didMigrateFromOrchardineDefaults: {}\n",
                        flag("didMigrateFromOrchardineDefaults"));
    text += fmt::format("didMigrateQuickActionGrantsFromOrchardine: {}\n\n",
                        flag("didMigrateQuickActionGrantsFromOrchardine"));
    text += heading("Settings");
    text += fmt::format("Diagnostics consent: {}\n",
                        settings ? onOff(settings->boolValue("diagnosticsConsent"), "off")
                                 : "unknown");
    text += fmt::format("Update auto-check: {}\n",
                        settings ? onOff(settings->boolValue("SUEnableAutomaticChecks"),
                                         "off (default)")
                                 : "unknown");
    text += fmt::format("Notifications: {}\n",
                        inputs.notifications.value_or("unknown (not yet answered this launch)"));
    text += fmt::format("Output mode: {}\n\n", word("outputMode", "sameFolder (default)"));

    text += heading("Transcription");
    const auto consent = settings ? settings->integerValue("transcriptionUploadConsentVersion")
                                  : std::nullopt;
    const auto videoConsent =
        settings ? settings->integerValue("transcriptionVideoUploadConsentVersion") : std::nullopt;
    text += fmt::format("Upload consent: {}\n",
                        consent ? fmt::format("version {}", *consent) : "not given");
    text += fmt::format("Video-upload consent: {}\n",
                        videoConsent ? fmt::format("version {}", *videoConsent) : "not given");
    text += fmt::format("Active model: {}\n", word("transcription.activeModelID", "default"));
    text += fmt::format("Transcript destination: {}\n",
                        word("transcriptOutputMode", "sameFolder (default)"));
    text += fmt::format("Instruction mode: {}\n", word("transcription.promptMode", "default"));
    text += fmt::format("  language={}\n", word("transcription.language", "auto"));
    text += fmt::format("Catalog fetched: {}\n",
                        settings && settings->contains("openRouterModelCatalog") ? "yes" : "no");
    // The key's presence only, never the key.
    const char* key = std::getenv("OPENROUTER_API_KEY");
    text += fmt::format("API key: {}\n\n",
                        key != nullptr && key[0] != '\0' ? "present (environment)" : "absent");
    return text;
}

std::string accessoriesSection(const SupportReportInputs& inputs) {
    std::string text = heading("Recording displays");
    text += fmt::format("Snapshot: {}\n", inputs.displays.value_or(
                                               "not taken (no display connection in this process)"));
    text += "Display IDs are session-local. Reported refresh is not measured recording FPS.\n"
            "Display-to-dock/HDMI routing: unverified.\n\n";
    text += heading("Attached Thunderbolt/USB4 accessories at report time");
    if (inputs.recordingInProgress) {
        return text + "Thunderbolt/USB4 discovery deferred or not requested. Copy again after "
                      "recording finishes.\n\n";
    }
    const fs::path boltctl = "/usr/bin/boltctl";
    if (::access(boltctl.c_str(), X_OK) != 0) {
        return text + "boltctl not installed — no Thunderbolt/USB4 listing.\n\n";
    }
    const std::optional<std::string> listing = runForOutput(boltctl, {"list"});
    if (!listing) {
        return text + "boltctl could not list devices (no bolt service).\n\n";
    }
    // Names, vendors, generations and states only: serial numbers and ids are left out.
    std::istringstream lines(*listing);
    int kept = 0;
    for (std::string line; std::getline(lines, line);) {
        for (const char* key : {"vendor:", "generation:", "type:", "status:"}) {
            if (line.find(key) != std::string::npos) {
                text += line + "\n";
                ++kept;
            }
        }
        if (!line.empty() && line.find(':') == std::string::npos) {
            text += line + "\n";  // a device's name line
            ++kept;
        }
    }
    return text + (kept == 0 ? "none\n\n" : "\n");
}

std::string errorsSection(const SupportReportInputs& inputs) {
    std::vector<std::string> errors;
    if (inputs.settings != nullptr) {
        if (const auto stored = inputs.settings->dataValue("recentEngineErrors")) {
            const nlohmann::json parsed = nlohmann::json::parse(*stored, nullptr, false);
            if (parsed.is_array()) {
                for (const nlohmann::json& entry : parsed) {
                    errors.push_back(entry.is_string() ? entry.get<std::string>() : entry.dump());
                }
            }
        }
    }
    std::string text = heading(fmt::format("Recent engine errors (last {})", errors.size()));
    for (const std::string& error : errors) {
        text += error + "\n";
    }
    return text + "\n";
}

std::string logSection(const SupportReportInputs& inputs) {
    std::string text = heading("Recent log (last 2h)");
    if (!inputs.logFile) {
        return text + "unavailable: the log file could not be read from this account\n\n";
    }
    std::string all;
    bool any = false;
    for (const fs::path& file : {fs::path(inputs.logFile->string() + ".1"), *inputs.logFile}) {
        std::ifstream in(file, std::ios::binary);
        if (in) {
            any = true;
            std::ostringstream content;
            content << in.rdbuf();
            all += content.str();
        }
    }
    if (!any) {
        return text + "unavailable: the log file could not be read from this account\n\n";
    }
    const std::string excerpt =
        recentLogExcerpt(all, inputs.now - std::chrono::hours(2), kLogLinesKept);
    if (excerpt.empty()) {
        return text + "ran, but no Tessarin entries in the last 2h. If you have not reproduced "
                      "the problem since then, do that and copy again.\n\n";
    }
    return text + excerpt + "\n";
}

}  // namespace

std::string installLocationOf(const fs::path& program) {
    std::error_code error;
    if (fs::exists(program.parent_path().parent_path() / "CMakeCache.txt", error)) {
        return "development";
    }
    const std::string path = program.string();
    if (path.starts_with("/usr/local/") || path.starts_with("/opt/")) {
        return "shared";
    }
    return path.starts_with("/usr/") ? "system" : "user";
}

std::string recentLogExcerpt(const std::string& logText,
                             std::chrono::system_clock::time_point since, std::size_t keep) {
    const std::string cutoff =
        fmt::format("{:%Y-%m-%dT%H:%M:%S}", fmt::gmtime(std::chrono::system_clock::to_time_t(since)));
    std::deque<std::string> kept;
    std::size_t elided = 0;
    std::istringstream lines(logText);
    for (std::string line; std::getline(lines, line);) {
        // Lines begin with a fixed-width UTC time, so text order is time order.
        if (line.size() < cutoff.size() || line.compare(0, cutoff.size(), cutoff) < 0) {
            continue;
        }
        kept.push_back(std::move(line));
        if (kept.size() > keep) {
            kept.pop_front();
            ++elided;
        }
    }
    std::string text = elided > 0 ? fmt::format("{} earlier line(s) elided\n", elided) : "";
    for (const std::string& line : kept) {
        text += line + "\n";
    }
    return text;
}

std::string buildSupportReport(const SupportReportInputs& inputs) {
    std::string report = "Tessarin Diagnostics\n====================\n";
    report += fmt::format("Generated: {:%Y-%m-%dT%H:%M:%SZ}\n",
                          fmt::gmtime(std::chrono::system_clock::to_time_t(inputs.now)));
    const std::string location = installLocationOf(inputs.program);
    report += location == "development"
                  ? fmt::format("Version: development build ({}, build tree)\n", inputs.version)
                  : fmt::format("Version: {}\n", inputs.version);
    report += fmt::format("Install location: {}\n\n", location);

    using Section = std::string (*)(const SupportReportInputs&);
    for (const Section section : {Section{actionsSection}, Section{helpersSection},
                                  Section{runPathSection}, Section{settingsSections},
                                  Section{accessoriesSection}, Section{errorsSection},
                                  Section{logSection}}) {
        try {
            report += section(inputs);
        } catch (const std::exception& error) {
            report += fmt::format("(this section failed: {})\n\n", error.what());
        }
    }
    return redactReport(report, currentRedactionContext());
}

}  // namespace tessarin::engine
