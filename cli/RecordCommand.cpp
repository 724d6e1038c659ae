// `tessarin record`: records a display, a window or an area of the X11 screen (or, on Wayland, what
// the desktop's screen-sharing portal offers) with system sound and a microphone, until the
// given duration or a signal: SIGINT or SIGTERM stop and save, SIGUSR1 pauses, SIGUSR2 resumes.
// Prints the published path; a take that can't be saved is kept for `tessarin recordings`.
#include <fmt/format.h>
#include <signal.h>

#include <charconv>
#include <cmath>
#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/Commands.hpp"
#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/ToolLookup.hpp"
#include "engine/recording/RecordingNamespace.hpp"
#include "engine/recording/capture/RecordingAreaText.hpp"
#include "engine/recording/capture/X11Sources.hpp"
#include "engine/recording/session/RecordingSession.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;
using engine::RecordingPhase;
using engine::RecordingSession;

engine::RecordingPreferences storedPreferences() {
    try {
        const engine::SettingsStore settings = engine::SettingsStore::standard();
        if (const auto text = settings.dataValue(engine::RecordingPreferences::kSettingsKey)) {
            return engine::recordingPreferencesFromJson(nlohmann::json::parse(*text, nullptr, false));
        }
    } catch (const std::exception&) {
    }
    return {};
}

std::optional<int64_t> integer(std::string_view text, int base = 10) {
    int64_t value = 0;
    if (base == 16 && (text.starts_with("0x") || text.starts_with("0X"))) {
        text.remove_prefix(2);
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
        return std::nullopt;
    }
    return value;
}

// The monitor that holds an area: the first one containing its top-left corner.
uint32_t displayHolding(const engine::RecordingRect& area) {
    for (const engine::X11Display& display : engine::X11Sources().displays()) {
        const engine::RecordingRect& b = display.bounds;
        if (area.x >= b.x && area.y >= b.y && area.x < b.x + b.width && area.y < b.y + b.height) {
            return display.id;
        }
    }
    return 0;
}

void emitPhase(bool json, const RecordingSession::Snapshot& snapshot) {
    if (!json) {
        return;
    }
    nlohmann::json event{{"event", "phase"},
                         {"phase", engine::recordingPhaseName(snapshot.phase)},
                         {"elapsed", std::round(snapshot.elapsed * 1000) / 1000}};
    std::cout << event.dump() << std::endl;
}

}  // namespace

int runRecord(const RecordRequest& request) {
    // Blocked before any thread starts, so every signal comes to the wait below.
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) {
        sigaddset(&signals, signal);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    engine::RecordingTarget target;
    const int chosen = (request.display ? 1 : 0) + (request.window ? 1 : 0) + (request.area ? 1 : 0);
    if (chosen > 1) {
        std::cerr << "tessarin: choose one of --display, --window and --area.\n";
        return kExitUsage;
    }
    if (request.window) {
        const auto id = integer(*request.window, request.window->starts_with("0x") ? 16 : 10);
        if (!id || *id <= 0 || *id > UINT32_MAX) {
            std::cerr << "tessarin: --window takes an X11 window id (decimal or 0x hex).\n";
            return kExitUsage;
        }
        target.mode = engine::RecordingMode::window;
        target.windowID = static_cast<uint32_t>(*id);
        // With a window manager listing it, the window's process is known: its quitting then
        // ends the take with its own sentence.
        for (const engine::X11Window& window : engine::X11Sources().windows()) {
            if (window.id == *target.windowID) {
                target.applicationPID = window.pid;
                target.title = window.title;
            }
        }
    } else if (request.area) {
        const auto area = engine::parseRecordingArea(*request.area);
        if (!area) {
            std::cerr << "tessarin: --area takes X,Y,WIDTH,HEIGHT in pixels.\n";
            return kExitUsage;
        }
        target.mode = engine::RecordingMode::area;
        target.area = area;
        target.displayID = displayHolding(*area);
    } else {
        target.mode = engine::RecordingMode::display;
        target.displayID = request.display.value_or(0);
    }
    if (request.framesPerSecond != 30 && request.framesPerSecond != 60) {
        std::cerr << "tessarin: --fps is 30 or 60.\n";
        return kExitUsage;
    }

    engine::RecordingPreferences preferences = storedPreferences();
    preferences.framesPerSecond = request.framesPerSecond;
    preferences.systemAudio = request.systemAudio;
    preferences.microphoneID = request.microphone;
    preferences.countdown = 0;
    if (request.maximumDimension) {
        preferences.maximumDimension = *request.maximumDimension;
    }
    if (request.outputDirectory) {
        std::error_code error;
        const fs::path absolute = fs::absolute(*request.outputDirectory, error);
        if (error || !fs::is_directory(absolute)) {
            std::cerr << "tessarin: " << request.outputDirectory->string()
                      << " is not a folder.\n";
            return kExitUsage;
        }
        preferences.destinationPath = absolute.lexically_normal().string();
    }

    const std::optional<engine::Tools> tools = locateTools();
    if (!tools) {
        return kExitToolsMissing;
    }
    engine::RecordingWork work;
    work.tools = *tools;
    work.isCancelled = [] { return false; };  // a signal stops the take; saving always finishes

    EventSink sink(request.json);
    sink.start(engine::recordingDestination(preferences), "record");
    RecordingPhase shown = RecordingPhase::idle;
    RecordingSession session(engine::RecordingSessionOperations::platform(work));
    session.start(target, preferences);

    bool stopRequested = false;
    for (;;) {
        const RecordingSession::Snapshot now = session.snapshot();
        if (now.phase != shown) {
            shown = now.phase;
            emitPhase(request.json, now);
            if (!request.json && now.phase == RecordingPhase::paused) {
                std::cerr << "Paused (SIGUSR2 resumes).\n";
            }
        }
        if (now.phase == RecordingPhase::saved || now.phase == RecordingPhase::failed) {
            break;
        }
        if (now.phase == RecordingPhase::recording || now.phase == RecordingPhase::paused) {
            sink.progress(request.duration ? std::optional(std::min(1.0, now.elapsed / *request.duration))
                                           : std::nullopt);
            if (request.duration && now.elapsed >= *request.duration && !stopRequested) {
                stopRequested = true;
                session.stop();
            }
        }
        const timespec wait{0, 50'000'000};
        const int signal = sigtimedwait(&signals, nullptr, &wait);
        if (signal == SIGINT || signal == SIGTERM) {
            stopRequested = true;
            session.stop();
        } else if (signal == SIGUSR1) {
            session.pause();
        } else if (signal == SIGUSR2) {
            session.resume();
        }
    }

    const RecordingSession::Snapshot result = session.snapshot();
    if (!result.interruptionMessage.empty()) {
        sink.warning("interrupted", result.interruptionMessage);
    }
    if (result.phase == RecordingPhase::saved && result.savedURL) {
        if (!result.errorMessage.empty()) {
            sink.warning("capture", result.errorMessage);
        }
        sink.done(*result.savedURL);
        return kExitSuccess;
    }
    std::string text = result.errorMessage;
    if (result.recoveryDirectory) {
        const auto id = engine::RecordingNamespace::takeId(result.recoveryDirectory->filename().string());
        text += fmt::format(" The take was kept: `tessarin recordings recover {}` saves it.",
                            id.value_or(result.recoveryDirectory->filename().string()));
    }
    sink.failed("record", text, std::nullopt);
    return kExitFailure;
}

}  // namespace tessarin::cli
