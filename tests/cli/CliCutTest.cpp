// `tessarin cut`: plans reviewed before anything is written, lossless copies on keyframes, the
// sources it refuses, and segments joined into one file (kept, or taken out).
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

#include "engine/process/ProcessRunner.hpp"
#include "tests/cli/CliTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr const char* kUnsupported =
    "Fast cut supports H.264 video with AAC audio or no audio in MP4/MOV files with a zero-based "
    "video timeline. Use a conversion preset for this source.";

fs::path keyframeClip() {
    return test::testClip(test::TestClip::keyframesEvery5s);
}

// H.264 in MP4, but with MP3 audio.
const fs::path& mp3Clip() {
    static const fs::path clip = test::makeClip(
        "h264-mp3.mp4",
        {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=2", "-f", "lavfi", "-i",
         "sine=frequency=440:duration=2", "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt",
         "yuv420p", "-c:a", "libmp3lame", "-shortest"});
    return clip;
}

// ffprobe's packets of the first video stream, with the MD5 of each packet's bytes.
nlohmann::json videoPackets(const fs::path& file, const std::vector<std::string>& extra = {}) {
    std::vector<std::string> arguments = {"-v",
                                          "error",
                                          "-select_streams",
                                          "v:0",
                                          "-show_entries",
                                          "packet=pts_time,flags,data_hash",
                                          "-show_data_hash",
                                          "MD5",
                                          "-of",
                                          "json"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    arguments.push_back(file.string());
    engine::ProcessRunner runner;
    const engine::ProcessResult result =
        runner.run(test::helperDirectory() / "ffprobe", arguments, /*captureStdout=*/true);
    EXPECT_EQ(result.exitCode, 0) << result.stderrTail;
    return nlohmann::json::parse(result.stdoutData.value_or("{}"))["packets"];
}

std::vector<nlohmann::json> eventsNamed(const std::vector<nlohmann::json>& events,
                                        const std::string& name) {
    std::vector<nlohmann::json> found;
    for (const auto& event : events) {
        if (event["event"] == name) {
            found.push_back(event);
        }
    }
    return found;
}

double plannedSeconds(const std::vector<nlohmann::json>& plans) {
    double total = 0;
    for (const auto& plan : plans) {
        total += plan["end"].get<double>() - plan["start"].get<double>();
    }
    return total;
}

// `tessarin` with standard input and standard error on a pseudo-terminal, as a shell runs it,
// and standard output on a pipe.
class TerminalRun {
public:
    explicit TerminalRun(const std::vector<std::string>& arguments) {
        terminal_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(terminal_, 0);
        EXPECT_EQ(::grantpt(terminal_), 0);
        EXPECT_EQ(::unlockpt(terminal_), 0);
        const int side = ::open(::ptsname(terminal_), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(side, 0);
        int out[2];
        EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
        pid_ = spawnTool(arguments, currentEnvironment(), {side, out[1], side});
        ::close(side);
        ::close(out[1]);
        out_ = out[0];
    }
    ~TerminalRun() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(terminal_);
        ::close(out_);
    }
    TerminalRun(const TerminalRun&) = delete;
    TerminalRun& operator=(const TerminalRun&) = delete;

    // Reads the terminal until `text` has appeared on it; false when the program ended or a
    // minute went by first.
    [[nodiscard]] bool waitFor(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (screen_.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > deadline || !readSome(terminal_, screen_)) {
                return false;
            }
        }
        return true;
    }
    void type(const std::string& text) {
        EXPECT_EQ(::write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void signal(int number) { EXPECT_EQ(::kill(pid_, number), 0); }

    // Reads everything to the end and reaps the program; its exit status, or -1.
    int finish() {
        while (readSome(out_, out_text_)) {
        }
        while (readSome(terminal_, screen_)) {
        }
        int status = 0;
        EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    [[nodiscard]] const std::string& screen() const { return screen_; }
    [[nodiscard]] const std::string& out() const { return out_text_; }

private:
    // False at the end of that output (EIO on a terminal nobody holds) or after a quiet minute.
    static bool readSome(int fd, std::string& into) {
        pollfd wait{fd, POLLIN, 0};
        if (::poll(&wait, 1, 60'000) <= 0) {
            return false;
        }
        char buffer[4096];
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got <= 0) {
            return false;
        }
        into.append(buffer, static_cast<std::size_t>(got));
        return true;
    }

    int terminal_ = -1;
    int out_ = -1;
    pid_t pid_ = -1;
    std::string screen_;
    std::string out_text_;
};

TEST(CliCut, CopiesTheKeyframeRangeAroundTheSelection) {
    test::TempDir folder;
    const fs::path source = copyInto(folder.path(), keyframeClip(), "match.mp4");
    const ToolRun run = runTool({"cut", "--trim", "7,13", "--yes", "--json", source.string()});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto events = jsonEvents(run.out);

    const auto plans = eventsNamed(events, "plan");
    ASSERT_THAT(plans, SizeIs(1));
    EXPECT_EQ(plans[0]["file"], source.string());
    EXPECT_DOUBLE_EQ(plans[0]["requestedStart"].get<double>(), 7.0);
    EXPECT_DOUBLE_EQ(plans[0]["requestedEnd"].get<double>(), 13.0);
    EXPECT_DOUBLE_EQ(plans[0]["start"].get<double>(), 5.0);
    EXPECT_DOUBLE_EQ(plans[0]["end"].get<double>(), 15.0);
    EXPECT_THAT(plans[0]["text"].get<std::string>(),
                HasSubstr("Adds 2.000 s before and 2.000 s after"));
    // The plan is shown before anything runs.
    EXPECT_EQ(events.front()["event"], "plan");

    ASSERT_EQ(events.back()["event"], "done");
    const fs::path output = folder / "match-cut.mp4";
    EXPECT_EQ(events.back()["path"], output.string());
    EXPECT_THAT(namesIn(folder.path()), ElementsAre("match-cut.mp4", "match.mp4"));
    const engine::MediaInfo info = probe(output);
    EXPECT_NEAR(info.durationSeconds.value_or(0), 10.0, 0.1);
    EXPECT_EQ(info.videoCodec, "h264");
    EXPECT_EQ(info.audioCodec, "aac");

    // Not re-encoded: the cut opens with the very bytes of the source's keyframe at 5 s.
    const nlohmann::json first = videoPackets(output, {"-read_intervals", "%+#1"});
    ASSERT_THAT(first, SizeIs(1));
    const nlohmann::json sourcePackets = videoPackets(source);
    const auto keyframe = std::find_if(sourcePackets.begin(), sourcePackets.end(), [](auto& p) {
        return std::abs(std::stod(p["pts_time"].template get<std::string>()) - 5.0) < 0.001;
    });
    ASSERT_NE(keyframe, sourcePackets.end());
    EXPECT_THAT((*keyframe)["flags"].get<std::string>(), HasSubstr("K"));
    EXPECT_EQ(first[0]["data_hash"], (*keyframe)["data_hash"]);
    EXPECT_NE(first[0]["data_hash"], sourcePackets[0]["data_hash"]);
}

TEST(CliCut, ExportsNothingUntilConfirmedAndRefusesBadRanges) {
    test::TempDir folder;
    const fs::path source = copyInto(folder.path(), keyframeClip(), "match.mp4");

    // No terminal to ask on and no --yes: the plan is shown and nothing is written.
    const ToolRun unconfirmed = runTool({"cut", "--trim", "7,13", source.string()});
    EXPECT_EQ(unconfirmed.exitCode, 4);
    EXPECT_THAT(unconfirmed.err,
                HasSubstr(source.string() + ": Selected 7.000–13.000 s · planned 5.000–15.000 s"));
    EXPECT_THAT(unconfirmed.err,
                HasSubstr("tessarin: nothing was exported; review the plans above and run again "
                          "with --yes to export them.\n"));
    EXPECT_EQ(unconfirmed.out, "");

    const ToolRun json =
        runTool({"cut", "--json", "--segment", "1,2", "--segment", "16,17", source.string()});
    EXPECT_EQ(json.exitCode, 4);
    const auto events = jsonEvents(json.out);
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[0]["event"], "plan");
    EXPECT_EQ(events[1]["part"], "clip 2");
    EXPECT_DOUBLE_EQ(events[1]["start"].get<double>(), 15.0);
    EXPECT_DOUBLE_EQ(events[1]["end"].get<double>(), 20.0);

    struct Refused {
        std::vector<std::string> arguments;
        std::string sentence;
    };
    const std::vector<Refused> refused = {
        {{"--trim", "1,2", "--segment", "3,4"}, "Use either --trim or --segment, not both."},
        {{"--trim", "1,2", "--join", "keep"},
         "--join needs at least one --segment or a --clip-list."},
        {{}, "A cut needs --trim, --segment or --clip-list."},
        {{"--trim", "5,1"}, "--trim 5,1"},
    };
    for (const Refused& row : refused) {
        std::vector<std::string> arguments = {"cut", "--yes"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        arguments.push_back(source.string());
        const ToolRun run = runTool(arguments);
        EXPECT_EQ(run.exitCode, 2) << row.sentence;
        EXPECT_THAT(run.err, HasSubstr(row.sentence));
    }
    EXPECT_EQ(runTool({"cut", "--trim", "1,2", "--yes"}).exitCode, 2);
    EXPECT_THAT(namesIn(folder.path()), ElementsAre("match.mp4"));
}

TEST(CliCut, AsksOnATerminalAndExportsOnlyAfterAYes) {
    test::TempDir folder;
    const fs::path source = copyInto(folder.path(), keyframeClip(), "match.mp4");
    {
        TerminalRun declined({"cut", "--trim", "7,13", source.string()});
        ASSERT_TRUE(declined.waitFor("Export 1 cut? [y/N] ")) << declined.screen();
        EXPECT_THAT(declined.screen(), HasSubstr("planned 5.000–15.000 s"));
        declined.type("n\n");
        EXPECT_EQ(declined.finish(), 4);
        EXPECT_THAT(declined.screen(), HasSubstr("tessarin: nothing was exported."));
        EXPECT_EQ(declined.out(), "");
    }
    {
        // Ctrl-C while the question waits ends the wait at once.
        TerminalRun interrupted({"cut", "--trim", "7,13", source.string()});
        ASSERT_TRUE(interrupted.waitFor("[y/N] ")) << interrupted.screen();
        interrupted.signal(SIGINT);
        EXPECT_EQ(interrupted.finish(), 130);
    }
    EXPECT_THAT(namesIn(folder.path()), ElementsAre("match.mp4"));

    TerminalRun accepted({"cut", "--segment", "1,2", "--segment", "16,17", source.string()});
    ASSERT_TRUE(accepted.waitFor("Export 2 cuts? [y/N] ")) << accepted.screen();
    accepted.type(" Yes \n");
    EXPECT_EQ(accepted.finish(), 0) << accepted.screen();
    EXPECT_EQ(accepted.out(), (folder / "match-cut.mp4").string() + "\n" +
                                  (folder / "match-cut-2.mp4").string() + "\n");
    EXPECT_NEAR(probe(folder / "match-cut-2.mp4").durationSeconds.value_or(0), 5.0, 0.1);
}

TEST(CliCut, RefusesSourcesItCannotCopyAndCutsTheOthers) {
    test::TempDir folder;
    const fs::path webm =
        copyInto(folder.path(), test::testClip(test::TestClip::vp9Opus), "web.webm");
    const fs::path mp3 = copyInto(folder.path(), mp3Clip(), "mp3.mp4");

    const ToolRun bad = runTool({"cut", "--trim", "0,1", "--yes", webm.string(), mp3.string()});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_THAT(bad.err, HasSubstr("web.webm: failed at cut: " + std::string(kUnsupported)));
    EXPECT_THAT(bad.err, HasSubstr("mp3.mp4: failed at cut: " + std::string(kUnsupported)));
    EXPECT_THAT(namesIn(folder.path()), ElementsAre("mp3.mp4", "web.webm"));

    const fs::path good = copyInto(folder.path(), keyframeClip(), "good.mp4");
    const ToolRun mixed = runTool(
        {"cut", "--json", "--trim", "0,1", "--yes", webm.string(), good.string(), mp3.string()});
    EXPECT_EQ(mixed.exitCode, 1);
    const auto events = jsonEvents(mixed.out);
    const auto failures = eventsNamed(events, "failed");
    ASSERT_THAT(failures, SizeIs(2));
    for (const auto& failure : failures) {
        EXPECT_EQ(failure["step"], "cut");
        EXPECT_EQ(failure["text"], kUnsupported);
    }
    EXPECT_EQ(failures[0]["file"], webm.string());
    EXPECT_EQ(failures[1]["file"], mp3.string());
    const auto done = eventsNamed(events, "done");
    ASSERT_THAT(done, SizeIs(1));
    EXPECT_EQ(done[0]["path"], (folder / "good-cut.mp4").string());
    EXPECT_NEAR(probe(folder / "good-cut.mp4").durationSeconds.value_or(0), 5.0, 0.1);
    EXPECT_THAT(namesIn(folder.path()),
                ElementsAre("good-cut.mp4", "good.mp4", "mp3.mp4", "web.webm"));
}

TEST(CliCut, SegmentsGiveOneCutEachOrOneJoinedFile) {
    test::TempDir folder;
    test::TempDir workRoot;
    const engine::ProcessRunner::Environment environment = {{"TMPDIR", workRoot.path().string()}};
    const fs::path source = copyInto(folder.path(), keyframeClip(), "match.mp4");

    const ToolRun separate =
        runTool({"cut", "--yes", "--segment", "2,3", "--segment", "12,13,Outro", source.string()},
                environment);
    ASSERT_EQ(separate.exitCode, 0) << separate.err;
    EXPECT_EQ(separate.out, (folder / "match-cut.mp4").string() + "\n" +
                                (folder / "match-cut-2.mp4").string() + "\n");
    EXPECT_NEAR(probe(folder / "match-cut.mp4").durationSeconds.value_or(0), 5.0, 0.1);
    EXPECT_NEAR(probe(folder / "match-cut-2.mp4").durationSeconds.value_or(0), 5.0, 0.1);

    // Given out of order; joined in time order, each range once.
    const ToolRun joined =
        runTool({"cut", "--yes", "--json", "--segment", "12,13", "--segment", "2,3", "--segment",
                 "2.5,3.5", "--join", "keep", source.string()},
                environment);
    ASSERT_EQ(joined.exitCode, 0) << joined.err;
    const auto events = jsonEvents(joined.out);
    const auto plans = eventsNamed(events, "plan");
    ASSERT_THAT(plans, SizeIs(2));
    EXPECT_DOUBLE_EQ(plans[0]["start"].get<double>(), 0.0);
    EXPECT_DOUBLE_EQ(plans[1]["start"].get<double>(), 10.0);
    const auto done = eventsNamed(events, "done");
    ASSERT_THAT(done, SizeIs(1));
    const fs::path output = folder / "match-cut-3.mp4";
    EXPECT_EQ(done[0]["path"], output.string());
    const engine::MediaInfo info = probe(output);
    EXPECT_NEAR(info.durationSeconds.value_or(0), plannedSeconds(plans), 0.1);
    EXPECT_NEAR(plannedSeconds(plans), 10.0, 1e-9);
    EXPECT_EQ(info.videoCodec, "h264");
    EXPECT_EQ(info.audioCodec, "aac");
    EXPECT_THAT(namesIn(folder.path()),
                ElementsAre("match-cut-2.mp4", "match-cut-3.mp4", "match-cut.mp4", "match.mp4"));
    // The pieces and the list went with the work folder.
    EXPECT_THAT(namesIn(workRoot.path()), ElementsAre());

    // Taking 4–11 out keeps 0–4 and 11–20: planned 0–5 and 10–20, 15 s in one file.
    const ToolRun removed = runTool(
        {"cut", "--yes", "--segment", "4,11", "--join", "remove", source.string()}, environment);
    ASSERT_EQ(removed.exitCode, 0) << removed.err;
    EXPECT_EQ(removed.out, (folder / "match-cut-4.mp4").string() + "\n");
    EXPECT_NEAR(probe(folder / "match-cut-4.mp4").durationSeconds.value_or(0), 15.0, 0.1);
}

}  // namespace
}  // namespace tessarin::cli
