// tessarin-action ACTION FILE...: what the file managers' Tessarin actions run. Hands the files
// to the running Tessarin window over its handoff socket; when the window answers that it
// can't take the work itself, opens the tessarin:// link it was given; starts the window first
// when none runs.
//
// ACTION is one of h264, h264-half, h264-vt, gif, gif-full, av1, vp9, transcribe.
// Exit status: 0 handed over, 1 not handed over, 2 bad command line.
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "cli/action/ActionHelper.hpp"
#include "engine/clips/Uuid.hpp"
#include "engine/intake/HelperActions.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using tessarin::engine::IntakeActionKind;

constexpr auto kStepLimit = std::chrono::seconds(15);
constexpr auto kStartLimit = std::chrono::seconds(20);

// The window's program: TESSARIN_GUI when set (development), else <prefix>/bin/tessarin-gui
// beside the helper folder <prefix>/libexec/tessarin.
fs::path guiProgram() {
    if (const char* override = std::getenv("TESSARIN_GUI"); override != nullptr && *override) {
        return override;
    }
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    return self.parent_path().parent_path().parent_path() / "bin" / "tessarin-gui";
}

// Starts the window with `arguments`, in a session of its own so that it outlives us. A second
// window forwards its arguments to the first and ends; the first one keeps running.
bool startGui(const std::vector<std::string>& arguments) {
    const std::string program = guiProgram().string();
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
    pid_t pid = 0;
    const int failed = posix_spawn(&pid, program.c_str(), nullptr, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    return failed == 0;
}

int usage(const char* message) {
    fmt::print(stderr, "tessarin-action: {}\nusage: tessarin-action ACTION FILE...\nactions:", message);
    for (const auto& action : tessarin::engine::helperActions()) {
        fmt::print(stderr, " {}", action.name);
    }
    fmt::print(stderr, "\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return usage("an action and at least one file are needed");
    }
    const auto action = tessarin::engine::helperAction(argv[1]);
    if (!action) {
        return usage("unknown action");
    }
    if (argc - 2 > tessarin::engine::kIntakeMaximumFileCount) {
        return usage("at most 500 files at once");
    }
    std::vector<std::string> files;
    for (int i = 2; i < argc; ++i) {
        std::error_code error;
        files.push_back(fs::absolute(argv[i], error).lexically_normal().string());
    }
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || runtime[0] != '/') {
        fmt::print(stderr, "tessarin-action: XDG_RUNTIME_DIR is not set\n");
        return 1;
    }
    const fs::path socket = fs::path(runtime) / "tessarin" / "s";

    tessarin::engine::IntakeHandoffRequest request;
    request.presetID = std::string(action->presetID);
    request.fileCount = static_cast<int64_t>(files.size());
    request.files = files;
    request.actionKind = std::string(tessarin::engine::text(action->kind));
    request.requestID = tessarin::engine::Uuid::random().text();
    tessarin::cli::HandOverResult result = tessarin::cli::handOver(socket, request, kStepLimit);
    if (!result.reached) {
        // No window runs: start one and wait for its socket.
        if (!startGui({})) {
            fmt::print(stderr, "tessarin-action: could not start {}\n", guiProgram().string());
            return 1;
        }
        const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
        while (!result.reached && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            result = tessarin::cli::handOver(socket, request, kStepLimit);
        }
    }
    // One retry with the same request id: the server answers a repeat the same way.
    if (result.reached && !result.response) {
        result = tessarin::cli::handOver(socket, request, kStepLimit);
    }
    const std::optional<tessarin::engine::IntakeHandoffResponse>& response = result.response;
    if (response && response->nonce && response->delivered.value_or(false)) {
        return 0;
    }
    // The window can't take the work over itself: open the link, with the token when there is
    // one (trusted), else the plain link, which the window confirms with the user.
    const std::string url =
        response && response->nonce
            ? tessarin::engine::deliveryURL(action->kind, action->presetID, *response->nonce)
            : tessarin::engine::plainIntakeURL(action->kind, action->presetID, files);
    if (!startGui({url})) {
        fmt::print(stderr, "tessarin-action: could not start {}\n", guiProgram().string());
        return 1;
    }
    return 0;
}
