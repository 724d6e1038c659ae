#include "tests/support/PrivateDesktop.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

extern char** environ;

namespace tessarin::test {

namespace {

using namespace std::chrono_literals;

bool waitForFile(const std::filesystem::path& path, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::filesystem::exists(path)) {
            return true;
        }
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

}  // namespace

PrivateDesktop::PrivateDesktop(int width, int height) {
    std::filesystem::create_directories(home_ / "runtime");
    std::filesystem::permissions(home_ / "runtime", std::filesystem::perms::owner_all);
    pulseSocket_ = (home_ / "runtime/pulse.socket").string();

    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe";
        return;
    }
    const std::string screen = std::to_string(width) + "x" + std::to_string(height) + "x24";
    xvfb_ = spawn({"/usr/bin/Xvfb", "-displayfd", std::to_string(report[1]), "-nolisten", "tcp",
                   "-screen", "0", screen},
                  report[1]);
    close(report[1]);
    std::string number;
    char c = 0;
    while (xvfb_ > 0 && read(report[0], &c, 1) == 1 && c != '\n') {
        number += c;
    }
    close(report[0]);
    if (number.empty()) {
        ADD_FAILURE() << "Xvfb did not start (install xvfb)";
        return;
    }
    display_ = ":" + number;

    std::ofstream(home_ / "pulse.pa")
        << "load-module module-native-protocol-unix socket=" << pulseSocket_
        << " auth-anonymous=1\n"
        << "load-module module-null-sink sink_name=recording_test_sink rate=48000\n"
        << "set-default-sink recording_test_sink\n";
    pulse_ = spawn({"/usr/bin/pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1",
                    "--use-pid-file=no", "--disable-shm=yes", "-F", (home_ / "pulse.pa").string()});
    if (!waitForFile(pulseSocket_, 10s)) {
        ADD_FAILURE() << "pulseaudio did not start (install pulseaudio)";
        return;
    }
    picture_ = spawn({"/usr/bin/gst-launch-1.0", "-q", "videotestsrc", "pattern=ball",
                      "is-live=true", "!", "video/x-raw,width=1280,height=720,framerate=30/1", "!",
                      "ximagesink", "display=" + display_, "sync=false"});
    tone_ = spawn({"/usr/bin/gst-launch-1.0", "-q", "audiotestsrc", "is-live=true", "freq=440",
                   "volume=0.5", "!", "audio/x-raw,rate=48000,channels=2", "!", "pulsesink",
                   "server=unix:" + pulseSocket_});
    // The picture is up once its window is mapped; give both a moment to start streaming.
    std::this_thread::sleep_for(700ms);
    ready_ = xvfb_ > 0 && pulse_ > 0 && picture_ > 0 && tone_ > 0;
}

PrivateDesktop::~PrivateDesktop() {
    stop(tone_);
    stop(picture_);
    stop(pulse_);
    stop(xvfb_);
}

std::vector<std::string> PrivateDesktop::environment() const {
    return {"DISPLAY=" + display_, "PULSE_SERVER=unix:" + pulseSocket_,
            "XDG_RUNTIME_DIR=" + (home_ / "runtime").string(), "HOME=" + home_.path().string()};
}

void PrivateDesktop::useInThisProcess() const {
    for (const std::string& entry : environment()) {
        const std::size_t equals = entry.find('=');
        setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
    }
    unsetenv("WAYLAND_DISPLAY");
}

void PrivateDesktop::killDisplay() {
    stop(picture_);
    stop(xvfb_);
}

pid_t PrivateDesktop::spawn(const std::vector<std::string>& arguments, int keepDescriptor) {
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (!text.starts_with("DISPLAY=") && !text.starts_with("PULSE_SERVER=") &&
            !text.starts_with("XDG_RUNTIME_DIR=") && !text.starts_with("HOME=") &&
            !text.starts_with("WAYLAND_DISPLAY=") && !text.starts_with("DBUS_SESSION_BUS_ADDRESS=")) {
            entries.push_back(text);
        }
    }
    if (!display_.empty()) {
        for (const std::string& entry : environment()) {
            entries.push_back(entry);
        }
    } else {
        entries.push_back("HOME=" + home_.path().string());
        entries.push_back("XDG_RUNTIME_DIR=" + (home_ / "runtime").string());
    }
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& entry : entries) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    if (keepDescriptor >= 0) {
        // The descriptor is close-on-exec here; a dup2 onto itself clears that in the child.
        posix_spawn_file_actions_adddup2(&actions, keepDescriptor, keepDescriptor);
    }
    pid_t pid = -1;
    const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        ADD_FAILURE() << "could not start " << arguments.front();
        return -1;
    }
    return pid;
}

void PrivateDesktop::stop(pid_t& pid) {
    if (pid <= 0) {
        return;
    }
    kill(pid, SIGTERM);
    int status = 0;
    for (int waited = 0; waited < 100; ++waited) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            return;
        }
        std::this_thread::sleep_for(20ms);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    pid = -1;
}

}  // namespace tessarin::test
