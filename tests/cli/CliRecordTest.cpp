// `tessarin record` on a desktop of the test's own: a take of an area with the tone, pause and
// resume by segments, a recorder killed outright and recovered, and a display that goes away.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "engine/process/ProcessRunner.hpp"
#include "tests/cli/CliTestSupport.hpp"
#include "tests/support/PrivateDesktop.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::cli {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;

std::string leakOptions() {
    const char* current = std::getenv("LSAN_OPTIONS");
    std::string options = current != nullptr ? std::string(current) + ":" : std::string();
    return options + "suppressions=" TESSARIN_RECORDING_SUPPRESSIONS;
}

// One `tessarin record --json` run on the private desktop, its events read as they come.
class Recorder {
public:
    Recorder(const test::PrivateDesktop& desktop, const fs::path& data, const fs::path& output,
             std::vector<std::string> arguments) {
        std::vector<std::string> environment;
        for (const std::string& entry : currentEnvironment()) {
            if (!entry.starts_with("DISPLAY=") && !entry.starts_with("WAYLAND_DISPLAY=") &&
                !entry.starts_with("PULSE_SERVER=") && !entry.starts_with("XDG_RUNTIME_DIR=") &&
                !entry.starts_with("LSAN_OPTIONS=") && !entry.starts_with("HOME=")) {
                environment.push_back(entry);
            }
        }
        for (const std::string& entry : desktop.environment()) {
            environment.push_back(entry);
        }
        environment.push_back("XDG_DATA_HOME=" + data.string());
        environment.push_back("XDG_CONFIG_HOME=" + (data / "config").string());
        environment.push_back("LSAN_OPTIONS=" + leakOptions());
        int out[2];
        int err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
        arguments.insert(arguments.begin(), "record");
        arguments.insert(arguments.end(), {"--json", "--output-dir", output.string()});
        pid_ = spawnTool(arguments, environment, {-1, out[1], err[1]});
        close(out[1]);
        close(err[1]);
        events_ = fdopen(out[0], "r");
        errors_ = err[0];
    }
    ~Recorder() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            (void)finish();
        }
        if (events_ != nullptr) {
            fclose(events_);
        }
        close(errors_);
        free(line_);
    }

    // Reads events until a phase event names `phase`; false when the output ended first.
    bool waitForPhase(const std::string& phase) {
        while (getline(&line_, &capacity_, events_) > 0) {
            const nlohmann::json event = nlohmann::json::parse(line_, nullptr, false);
            seen_.push_back(event);
            if (event.value("event", "") == "phase" && event.value("phase", "") == phase) {
                lastElapsed_ = event.value("elapsed", 0.0);
                return true;
            }
        }
        return false;
    }
    // The recorded seconds that the last phase event waited for reported.
    [[nodiscard]] double lastElapsed() const { return lastElapsed_; }

    void signal(int number) { kill(pid_, number); }

    // Reads the rest of the output and reaps the tool; its wait status.
    int finish() {
        while (events_ != nullptr && getline(&line_, &capacity_, events_) > 0) {
            seen_.push_back(nlohmann::json::parse(line_, nullptr, false));
        }
        char buffer[4096];
        ssize_t got = 0;
        while ((got = read(errors_, buffer, sizeof buffer)) > 0) {
            stderr_.append(buffer, static_cast<size_t>(got));
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

    // The published path of the done event, if there was one.
    [[nodiscard]] std::optional<fs::path> published() const {
        for (const nlohmann::json& event : seen_) {
            if (event.is_object() && event.value("event", "") == "done") {
                return fs::path(event.value("path", ""));
            }
        }
        return std::nullopt;
    }
    [[nodiscard]] std::string eventsText() const {
        std::string text;
        for (const nlohmann::json& event : seen_) {
            text += event.dump() + "\n";
        }
        return text + stderr_;
    }

private:
    pid_t pid_ = -1;
    FILE* events_ = nullptr;
    int errors_ = -1;
    char* line_ = nullptr;
    size_t capacity_ = 0;
    std::vector<nlohmann::json> seen_;
    std::string stderr_;
    double lastElapsed_ = 0;
};

// Runs the helper folder's ffmpeg with `arguments` and gives its standard error.
std::string ffmpegErrors(const std::vector<std::string>& arguments) {
    std::vector<std::string> all{"-hide_banner", "-nostdin"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    engine::ProcessRunner runner;
    const engine::ProcessResult result =
        runner.run(fs::path(TESSARIN_HELPER_DIR) / "ffmpeg", all, /*captureStdout=*/true,
                   /*mergeStderr=*/true);
    return result.stdoutData.value_or("");
}

// The mean level in dB that ffmpeg measures in `file`'s audio after `filter`.
double meanVolume(const fs::path& file, const std::string& filter) {
    const std::string log = ffmpegErrors(
        {"-i", file.string(), "-vn", "-af", filter + ",volumedetect", "-f", "null", "-"});
    const std::size_t at = log.find("mean_volume: ");
    if (at == std::string::npos) {
        ADD_FAILURE() << log;
        return -200;
    }
    return std::stod(log.substr(at + 13));
}

// How many times x264's settings banner appears: once per encoder run that made the video.
int encoderBanners(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    int count = 0;
    for (std::size_t at = bytes.find("x264 - core"); at != std::string::npos;
         at = bytes.find("x264 - core", at + 1)) {
        ++count;
    }
    return count;
}

TEST(CliRecord, RecordsAnAreaWithTheSystemSoundForTheGivenDuration) {
    const test::PrivateDesktop desktop;
    ASSERT_TRUE(desktop.ready());
    const test::TempDir data;
    const test::TempDir output;
    Recorder recorder(desktop, data.path(), output.path(),
                      {"--area", "0,0,1280,720", "--fps", "30", "--system-audio", "--duration", "4"});
    const int status = recorder.finish();
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << recorder.eventsText();
    const std::optional<fs::path> file = recorder.published();
    ASSERT_TRUE(file && fs::is_regular_file(*file)) << recorder.eventsText();
    EXPECT_EQ(file->parent_path(), output.path());

    const engine::MediaInfo info = probe(*file);
    ASSERT_TRUE(info.durationSeconds);
    EXPECT_NEAR(*info.durationSeconds, 4.0, 0.3);
    EXPECT_EQ(info.videoCodec, "h264");
    EXPECT_EQ(info.width, 1280);
    EXPECT_EQ(info.height, 720);
    EXPECT_TRUE(info.hasAudio);
    // The tone is there, and it is the tone: loud around 440 Hz, quiet far from it.
    const double atTone = meanVolume(*file, "bandpass=f=440:width_type=h:w=100");
    const double elsewhere = meanVolume(*file, "highpass=f=2000,highpass=f=2000");
    EXPECT_GT(atTone, -25.0);
    EXPECT_GT(atTone - elsewhere, 20.0);
    // The picture moved: the first and last frames differ.
    const std::string frames = ffmpegErrors(
        {"-i", file->string(), "-an", "-vf", "freezedetect=n=0.001:d=2", "-f", "null", "-"});
    EXPECT_THAT(frames, ::testing::Not(HasSubstr("freeze_start")));
}

TEST(CliRecord, PauseLeavesTheGapOutAndJoinsSegmentsWithoutReencoding) {
    const test::PrivateDesktop desktop;
    ASSERT_TRUE(desktop.ready());
    const test::TempDir data;
    const test::TempDir output;
    Recorder recorder(desktop, data.path(), output.path(), {"--area", "0,0,640,360", "--system-audio"});
    ASSERT_TRUE(recorder.waitForPhase("recording")) << recorder.eventsText();
    const auto began = std::chrono::steady_clock::now();
    // Frames seen while a segment's encoder started are in the file before the phase is
    // announced: the tool reports them as elapsed time.
    double beforeAnnounced = recorder.lastElapsed();
    std::this_thread::sleep_for(1500ms);
    recorder.signal(SIGUSR1);
    ASSERT_TRUE(recorder.waitForPhase("paused")) << recorder.eventsText();
    const double firstSegment = recorder.lastElapsed();
    std::this_thread::sleep_for(2s);
    recorder.signal(SIGUSR2);
    ASSERT_TRUE(recorder.waitForPhase("recording")) << recorder.eventsText();
    beforeAnnounced += recorder.lastElapsed() - firstSegment;
    std::this_thread::sleep_for(1500ms);
    recorder.signal(SIGINT);
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    const int status = recorder.finish();
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << recorder.eventsText();
    const std::optional<fs::path> file = recorder.published();
    ASSERT_TRUE(file && fs::is_regular_file(*file)) << recorder.eventsText();
    const engine::MediaInfo info = probe(*file);
    ASSERT_TRUE(info.durationSeconds);
    // Both recorded stretches are in the file; the two seconds of pause are not.
    EXPECT_GE(*info.durationSeconds, 2.9) << recorder.eventsText();
    EXPECT_LE(*info.durationSeconds, wall + beforeAnnounced - 2.0 + 0.3) << recorder.eventsText();
    // Two segments, each with its encoder's banner, copied as they were into one file.
    EXPECT_EQ(encoderBanners(*file), 2);
}

TEST(CliRecord, KilledRecorderLeavesATakeThatRecoveryPublishes) {
    const test::PrivateDesktop desktop;
    ASSERT_TRUE(desktop.ready());
    const test::TempDir data;
    const test::TempDir output;
    {
        Recorder recorder(desktop, data.path(), output.path(), {"--area", "0,0,640,360", "--system-audio"});
        ASSERT_TRUE(recorder.waitForPhase("recording")) << recorder.eventsText();
        std::this_thread::sleep_for(6s);
        recorder.signal(SIGKILL);
        const int status = recorder.finish();
        ASSERT_TRUE(WIFSIGNALED(status));
    }
    EXPECT_TRUE(namesIn(output.path()).empty());
    const ToolRun recover = runTool({"recordings", "recover", "--json"},
                                    {{"XDG_DATA_HOME", data.path().string()},
                                     {"LSAN_OPTIONS", leakOptions()}});
    ASSERT_EQ(recover.exitCode, 0) << recover.out << recover.err;
    std::optional<fs::path> published;
    for (const nlohmann::json& event : jsonEvents(recover.out)) {
        if (event.value("event", "") == "done") {
            published = fs::path(event.value("path", ""));
        }
    }
    ASSERT_TRUE(published && published->parent_path() == output.path()) << recover.out;
    const engine::MediaInfo info = probe(*published);
    ASSERT_TRUE(info.durationSeconds);
    EXPECT_GE(*info.durationSeconds, 5.0);
}

TEST(CliRecord, RefusesAMicrophoneTheSoundServerDoesNotHave) {
    const test::PrivateDesktop desktop;
    ASSERT_TRUE(desktop.ready());
    const test::TempDir data;
    const test::TempDir output;
    // The null sink's monitor is an output, not a microphone; "absent" is nothing at all.
    for (const std::string microphone : {"absent", "recording_test_sink.monitor"}) {
        Recorder recorder(desktop, data.path(), output.path(),
                          {"--area", "0,0,320,240", "--mic", microphone, "--duration", "1"});
        const int status = recorder.finish();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << recorder.eventsText();
        EXPECT_THAT(recorder.eventsText(),
                    HasSubstr("The selected microphone is unavailable. Choose a connected "
                              "microphone or turn it off."));
    }
    EXPECT_TRUE(namesIn(output.path()).empty());
    EXPECT_FALSE(fs::exists(data.path() / "tessarin/Tessarin Recording Recovery") &&
                 !fs::is_empty(data.path() / "tessarin/Tessarin Recording Recovery"));
}

TEST(CliRecord, DisplayThatGoesAwayEndsTheTakeAndKeepsTheFootage) {
    test::PrivateDesktop desktop;
    ASSERT_TRUE(desktop.ready());
    const test::TempDir data;
    const test::TempDir output;
    Recorder recorder(desktop, data.path(), output.path(), {"--area", "0,0,640,360"});
    ASSERT_TRUE(recorder.waitForPhase("recording")) << recorder.eventsText();
    std::this_thread::sleep_for(2s);
    desktop.killDisplay();
    const int status = recorder.finish();
    ASSERT_TRUE(WIFEXITED(status)) << recorder.eventsText();
    EXPECT_THAT(recorder.eventsText(), HasSubstr("The selected display disconnected."));
    if (const std::optional<fs::path> file = recorder.published()) {
        EXPECT_EQ(WEXITSTATUS(status), 0);
        const engine::MediaInfo info = probe(*file);
        ASSERT_TRUE(info.durationSeconds);
        EXPECT_GE(*info.durationSeconds, 1.5);
    } else {
        // Not saved: then the take waits for recovery.
        EXPECT_EQ(WEXITSTATUS(status), 1);
        const ToolRun list = runTool({"recordings", "list", "--json"},
                                     {{"XDG_DATA_HOME", data.path().string()}});
        EXPECT_EQ(jsonEvents(list.out).size(), 1u) << list.out;
    }
}

}  // namespace
}  // namespace tessarin::cli
