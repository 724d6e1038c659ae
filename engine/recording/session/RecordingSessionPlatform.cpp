// The session's operations on this platform.
#include <future>
#include <thread>

#include "engine/recording/RecordingNamespace.hpp"
#include "engine/recording/internal/Posix.hpp"
#include "engine/recording/capture/PulseSources.hpp"
#include "engine/recording/capture/X11Sources.hpp"
#include "engine/recording/session/RecordingSession.hpp"
#include "engine/recording/session/SleepWatch.hpp"

namespace tessarin::engine {

namespace {

using namespace std::chrono_literals;

// Runs `check` on a thread of its own and waits at most `limit`: an X server that went away can
// park the thread that asks it, and the session must not park with it. Late answers are dropped.
bool boundedCheck(std::function<bool()> check, std::chrono::milliseconds limit) {
    auto answer = std::make_shared<std::promise<bool>>();
    std::future<bool> result = answer->get_future();
    std::thread([check = std::move(check), answer] {
        bool value = false;
        try {
            value = check();
        } catch (...) {
            value = false;
        }
        answer->set_value(value);
    }).detach();
    return result.wait_for(limit) == std::future_status::ready && result.get();
}

}  // namespace

RecordingSessionOperations RecordingSessionOperations::platform(RecordingWork work) {
    RecordingSessionOperations operations;
    operations.captureFactory = [](RecordingCaptureRequest request) {
        return makeRecordingCapture(std::move(request));
    };
    operations.finalizeTake = [work = std::move(work)](RecordingFiles& files) {
        return files.finalize(work);
    };
    operations.sourceAvailability = [](const RecordingTarget& target) {
        if (std::getenv("WAYLAND_DISPLAY") != nullptr && *std::getenv("WAYLAND_DISPLAY") != '\0') {
            return true;  // the portal's stream reports its own end
        }
        return boundedCheck([target] { return X11Sources().isAvailable(target); }, 2000ms);
    };
    operations.microphoneAvailable = [](const std::string& id) {
        return boundedCheck([id] { return pulseSourceAvailable(id); }, 3000ms);
    };
    operations.watchMicrophone = [](const std::string& id, std::function<void()> onGone) {
        return watchPulseSource(id, std::move(onGone));
    };
    operations.applicationRunning = [](int32_t pid) { return internal::processRunning(pid); };
    auto probe = std::make_shared<RecordingStorageProbe>();
    operations.storageCheck = [probe](const std::filesystem::path& folder) {
        return probe->status(folder, /*strict=*/false).get();
    };
    operations.recordingRoot = [] { return RecordingNamespace::recordingRoot(); };
    operations.watchSleep = [](std::function<void()> onSleep) {
        return watchSystemSleep(std::move(onSleep));
    };
    return operations;
}

}  // namespace tessarin::engine
