#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>

#include "engine/recording/RecordingPreferences.hpp"
#include "engine/recording/RecordingStorageProbe.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Kind = RecordingStorageStatus::Kind;

// A reader that counts its calls and blocks until released. A late read may outlive the test,
// so what it touches is shared with it.
struct GatedReader {
    std::shared_ptr<std::atomic<int>> calls = std::make_shared<std::atomic<int>>(0);
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();

    RecordingStorageProbe::Reader reader() {
        return [calls = calls, opened = opened](const fs::path&, bool) {
            ++*calls;
            opened.wait();
            return RecordingStorageStatus::available(1000, 7);
        };
    }
};

TEST(RecordingStorageProbe, ConcurrentCallsShareOneRead) {
    GatedReader gated;
    auto probe = std::make_shared<RecordingStorageProbe>(gated.reader(), 10s);
    auto first = probe->status("/videos", true);
    auto second = probe->status("/videos", true);
    EXPECT_EQ(probe->flightCount(), 1u);
    gated.gate.set_value();
    EXPECT_EQ(first.get(), RecordingStorageStatus::available(1000, 7));
    EXPECT_EQ(second.get(), RecordingStorageStatus::available(1000, 7));
    EXPECT_EQ(gated.calls->load(), 1);
    EXPECT_EQ(probe->flightCount(), 0u);
}

TEST(RecordingStorageProbe, AHungReadAnswersUnknownAtTheTimeOutAndANewCallFliesAgain) {
    GatedReader gated;
    auto probe = std::make_shared<RecordingStorageProbe>(gated.reader(), 200ms);
    const auto started = std::chrono::steady_clock::now();
    auto first = probe->status("/dead-mount", true);
    auto second = probe->status("/dead-mount", true);
    EXPECT_EQ(first.get().kind, Kind::unknown);
    EXPECT_EQ(second.get().kind, Kind::unknown);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    EXPECT_EQ(probe->flightCount(), 0u);

    auto third = probe->status("/dead-mount", true);
    EXPECT_EQ(third.wait_for(0ms), std::future_status::timeout);
    gated.gate.set_value();  // both reads answer now; the late first one is dropped
    EXPECT_EQ(third.get(), RecordingStorageStatus::available(1000, 7));
    EXPECT_EQ(gated.calls->load(), 2);
}

TEST(RecordingStorageProbe, RealReaderSeesAFolderOrItsAbsence) {
    const test::TempDir temp;
    const auto status = RecordingStorageProbe::readVolume(temp.path(), true);
    EXPECT_EQ(status.kind, Kind::available);
    EXPECT_GT(status.bytes, 0);
    EXPECT_EQ(RecordingStorageProbe::readVolume(temp / "not-yet/made", true).kind,
              Kind::unavailable);
    EXPECT_EQ(RecordingStorageProbe::readVolume(temp / "not-yet/made", false).volumeID,
              status.volumeID);
}

TEST(RecordingPreferences, StoredChoicesAreRepairedAndAnEmptyDestinationIsTheDefault) {
    const test::TempDir home;
    const char* savedHome = std::getenv("HOME");
    const std::string restoreHome = savedHome ? savedHome : "";
    ::setenv("HOME", home.path().c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home / ".config").c_str(), 1);
    // No user-dirs file: the videos folder is ~/Videos.
    EXPECT_EQ(defaultRecordingDestination(), home / "Videos/Tessarin Recordings");
    fs::create_directories(home / ".config");
    std::ofstream(home / ".config/user-dirs.dirs") << "XDG_VIDEOS_DIR=\"$HOME/Filme\"\n";
    EXPECT_EQ(defaultRecordingDestination(), home / "Filme/Tessarin Recordings");

    std::vector<std::string> repaired;
    const RecordingPreferences read = recordingPreferencesFromJson(
        nlohmann::json{{"layout", "compact"},
                       {"framesPerSecond", 24},
                       {"countdown", 5},
                       {"microphoneID", "usb-mic"},
                       {"destinationPath", ""}},
        &repaired);
    EXPECT_EQ(read.layout, RecordingToolbarLayout::compact);
    EXPECT_EQ(read.framesPerSecond, 30);
    EXPECT_EQ(read.countdown, 5);
    EXPECT_EQ(read.microphoneID, "usb-mic");
    EXPECT_NE(std::find(repaired.begin(), repaired.end(), "framesPerSecond"), repaired.end());
    EXPECT_EQ(recordingDestination(read), home / "Filme/Tessarin Recordings");
    EXPECT_EQ(recordingPreferencesFromJson(toJson(read)), read);

    ::setenv("HOME", restoreHome.c_str(), 1);
    ::unsetenv("XDG_CONFIG_HOME");
}

}  // namespace
}  // namespace tessarin::engine
