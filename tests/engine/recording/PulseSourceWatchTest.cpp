// The microphone monitor against a real PulseAudio server of the test's own: a source that is
// unloaded from the server ends the watch once; other devices coming and going don't.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "engine/recording/capture/PulseSources.hpp"
#include "tests/support/PrivateDesktop.hpp"

namespace tessarin::engine {
namespace {

using namespace std::chrono_literals;

// Runs pactl against the private server (PULSE_SERVER is set) and returns its first line.
std::string pactl(const std::string& arguments) {
    FILE* pipe = popen(("pactl " + arguments + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {};
    }
    char line[256] = {};
    std::string output = fgets(line, sizeof line, pipe) != nullptr ? line : "";
    pclose(pipe);
    while (!output.empty() && (output.back() == '\n' || output.back() == '\r')) {
        output.pop_back();
    }
    return output;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

TEST(PulseSourceWatch, AnUnloadedMicrophoneEndsTheWatchOnce) {
    const test::PrivateDesktop desktop(320, 240);
    ASSERT_TRUE(desktop.ready());
    desktop.useInThisProcess();
    const std::string microphone =
        pactl("load-module module-null-source source_name=watched_mic");
    const std::string other = pactl("load-module module-null-source source_name=other_mic");
    ASSERT_FALSE(microphone.empty());
    ASSERT_TRUE(eventually([] { return pulseSourceAvailable("watched_mic"); }, 5s));

    std::atomic<int> gone{0};
    std::shared_ptr<void> watch = watchPulseSource("watched_mic", [&gone] { ++gone; });
    std::this_thread::sleep_for(300ms);  // the monitor has read the list
    pactl("unload-module " + other);
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(gone.load(), 0);  // another source leaving is not ours

    pactl("unload-module " + microphone);
    EXPECT_TRUE(eventually([&gone] { return gone.load() > 0; }, 5s));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(gone.load(), 1);
    EXPECT_FALSE(pulseSourceAvailable("watched_mic"));
    watch.reset();  // waits for the watcher's thread
}

}  // namespace
}  // namespace tessarin::engine
