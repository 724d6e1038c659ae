// `tessarin frames`: a folder of stills per video with its manifest and contact sheet, the index
// in --json's done event, options refused before any work, failures that let the next file run,
// and Ctrl-C.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/cli/CliTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

// Three solid slides of one second each, 160x120 at 25 fps: red, blue, green.
const fs::path& slides() {
    static const fs::path clip = test::makeClip(
        "three-slides.mp4", {"-f", "lavfi", "-i",
                             "color=c=red:s=160x120:r=25:d=1[a];color=c=blue:s=160x120:r=25:d=1[b];"
                             "color=c=green:s=160x120:r=25:d=1[c];[a][b][c]concat=n=3:v=1:a=0",
                             "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    return clip;
}

// Moving for 20 s, so that an export is still running when a signal arrives.
const fs::path& movingClip() {
    static const fs::path clip = test::makeClip(
        "moving-20s.mp4", {"-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25:duration=20", "-c:v",
                           "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    return clip;
}

// The tool draws contact sheets in its own process, and fontconfig never frees its font cache:
// that one leak is waived for the tool these tests start.
std::string leakOptions() {
    const char* current = std::getenv("LSAN_OPTIONS");
    const std::string options = current != nullptr ? std::string(current) + ":" : "";
    return options + "suppressions=" TESSARIN_FONTCONFIG_SUPPRESSIONS;
}

// A source copied into a folder of its own, and a private TMPDIR for the tool's work folders.
class FramesSandbox {
public:
    explicit FramesSandbox(const fs::path& clip, const std::string& name = "slides.mp4")
        : source_(copyInto(folder_.path(), clip, name)) {}

    [[nodiscard]] ToolRun frames(const std::vector<std::string>& arguments) const {
        std::vector<std::string> command = {"frames"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return runTool(command,
                       {{"LSAN_OPTIONS", leakOptions()}, {"TMPDIR", workRoot_.path().string()}});
    }

    [[nodiscard]] const fs::path& folder() const { return folder_.path(); }
    [[nodiscard]] const fs::path& source() const { return source_; }
    [[nodiscard]] const fs::path& workRoot() const { return workRoot_.path(); }

private:
    test::TempDir folder_;
    test::TempDir workRoot_;
    fs::path source_;
};

nlohmann::json readJson(const fs::path& file) {
    std::ifstream in(file);
    return nlohmann::json::parse(in);
}

TEST(CliFrames, ExportsEachSlideOnceAndGivesTheIndexInTheDoneEvent) {
    const FramesSandbox sandbox(slides());
    const ToolRun run = sandbox.frames({"--json", sandbox.source().string()});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto events = jsonEvents(run.out);
    ASSERT_THAT(events, ::testing::Not(::testing::IsEmpty()));
    EXPECT_EQ(events.front()["event"], "start");
    EXPECT_EQ(events.front()["file"], sandbox.source().string());
    EXPECT_TRUE(std::any_of(events.begin(), events.end(),
                            [](const auto& event) { return event["event"] == "progress"; }));

    const nlohmann::json& done = events.back();
    ASSERT_EQ(done["event"], "done");
    const fs::path published = sandbox.folder() / "slides-frames";
    EXPECT_EQ(done["path"], published.string());
    EXPECT_THAT(namesIn(sandbox.folder()), ElementsAre("slides-frames", "slides.mp4"));
    EXPECT_THAT(namesIn(published),
                ElementsAre("contact-sheet.jpg", "frame-001-0.000s.jpg", "frame-002-1.000s.jpg",
                            "frame-003-2.000s.jpg", "frames.json"));

    const nlohmann::json& index = done["index"];
    EXPECT_EQ(index["directory"], published.string());
    EXPECT_EQ(index["frameSize"], nlohmann::json::array({160, 120}));
    ASSERT_THAT(index["frames"], SizeIs(3));
    std::vector<std::string> reasons;
    for (const auto& frame : index["frames"]) {
        reasons.push_back(frame["reason"]);
        EXPECT_TRUE(fs::is_regular_file(published / frame["file"].get<std::string>()));
    }
    EXPECT_THAT(reasons, ElementsAre("first", "change", "change"));
    EXPECT_EQ(index["contactSheets"][0]["file"], "contact-sheet.jpg");

    // The manifest beside the pictures lists the same frames.
    const nlohmann::json manifest = readJson(published / "frames.json");
    ASSERT_THAT(manifest["frames"], SizeIs(3));
    EXPECT_EQ(manifest["frames"][2]["file"], index["frames"][2]["file"]);
    EXPECT_EQ(manifest["source"]["name"], "slides.mp4");
    EXPECT_THAT(namesIn(sandbox.workRoot()), ElementsAre());
}

TEST(CliFrames, IntervalPngsWithoutAContactSheet) {
    const FramesSandbox sandbox(slides());
    const ToolRun run = sandbox.frames({"--mode", "interval", "--max-frames", "3", "--format",
                                        "png", "--no-contact-sheet", sandbox.source().string()});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // Without --json, standard output holds the folder's path and nothing else.
    const fs::path published = sandbox.folder() / "slides-frames";
    EXPECT_EQ(run.out, published.string() + "\n");

    std::vector<std::string> pictures;
    for (const std::string& name : namesIn(published)) {
        if (name != "frames.json") {
            pictures.push_back(name);
        }
    }
    ASSERT_THAT(pictures, SizeIs(3));
    for (const std::string& name : pictures) {
        EXPECT_EQ(fs::path(name).extension(), ".png") << name;
    }
    const nlohmann::json manifest = readJson(published / "frames.json");
    EXPECT_EQ(manifest["settings"]["mode"], "interval");
    EXPECT_EQ(manifest["settings"]["format"], "png");
    EXPECT_EQ(manifest["settings"]["maxFrames"], 3);
    EXPECT_FALSE(manifest.contains("contactSheets"));
}

TEST(CliFrames, WarningsGiveTheirRawValueToProgramsAndASentenceToPeople) {
    const FramesSandbox sandbox(slides());
    // Three slides, two frames allowed: one change is pruned.
    const ToolRun json = sandbox.frames({"--json", "--max-frames", "2", sandbox.source().string()});
    ASSERT_EQ(json.exitCode, 0) << json.err;
    const auto events = jsonEvents(json.out);
    const auto warning = std::find_if(events.begin(), events.end(), [](const auto& event) {
        return event["event"] == "warning";
    });
    ASSERT_NE(warning, events.end());
    EXPECT_EQ((*warning)["text"], "budget-pruned");
    EXPECT_EQ((*warning)["file"], sandbox.source().string());
    const std::string sentence = (*warning)["message"];
    EXPECT_THAT(sentence, HasSubstr("frame budget"));
    const nlohmann::json& index = events.back()["index"];
    EXPECT_EQ(index["warnings"], nlohmann::json::array({"budget-pruned"}));
    EXPECT_EQ(index["summary"]["prunedByBudget"], 1);
    EXPECT_THAT(index["frames"], SizeIs(2));

    const ToolRun plain = sandbox.frames({"--max-frames", "2", sandbox.source().string()});
    ASSERT_EQ(plain.exitCode, 0) << plain.err;
    EXPECT_THAT(plain.err, HasSubstr(sandbox.source().string() + ": warning: " + sentence));
    EXPECT_EQ(plain.out, (sandbox.folder() / "slides-frames-2").string() + "\n");
}

TEST(CliFrames, RefusesBadOptionsBeforeAnyWork) {
    const FramesSandbox sandbox(slides());
    struct Refused {
        std::vector<std::string> arguments;
        std::string sentence;
    };
    const std::vector<Refused> refused = {
        {{"--max-frames", "1"}, "Choose between 2 and 1000 frames."},
        {{"--max-frames", "1001"}, "Choose between 2 and 1000 frames."},
        {{"--max-size", "10"}, "Choose a maximum size between 64 and 2576 pixels."},
        {{"--max-size", "2577"}, "Choose a maximum size between 64 and 2576 pixels."},
        {{"--mode", "sideways"}, "--mode takes changes or interval."},
        {{"--format", "gif"}, "--format takes jpeg or png."},
        {{"--trim", "5,1"}, "--trim 5,1: Clip end must be after start."},
    };
    for (const Refused& row : refused) {
        std::vector<std::string> arguments = row.arguments;
        arguments.push_back("--json");
        arguments.push_back(sandbox.source().string());
        const ToolRun run = sandbox.frames(arguments);
        EXPECT_EQ(run.exitCode, 2) << row.sentence;
        EXPECT_EQ(run.err, "tessarin: " + row.sentence + "\n");
        EXPECT_EQ(run.out, "") << row.sentence;
    }
    EXPECT_THAT(namesIn(sandbox.folder()), ElementsAre("slides.mp4"));
    EXPECT_THAT(namesIn(sandbox.workRoot()), ElementsAre());
}

TEST(CliFrames, AFileThatFailsLetsTheNextOneExport) {
    const FramesSandbox sandbox(slides());
    const fs::path notes = sandbox.folder() / "notes.mp4";
    std::ofstream(notes) << "plain text";

    const ToolRun run = sandbox.frames({notes.string(), sandbox.source().string()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.err, HasSubstr(notes.string() + ": failed at probe"));
    EXPECT_EQ(run.out, (sandbox.folder() / "slides-frames").string() + "\n");
    EXPECT_THAT(namesIn(sandbox.folder()), ElementsAre("notes.mp4", "slides-frames", "slides.mp4"));

    const ToolRun json = sandbox.frames({"--json", notes.string()});
    EXPECT_EQ(json.exitCode, 1);
    const auto events = jsonEvents(json.out);
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[1]["event"], "failed");
    EXPECT_EQ(events[1]["file"], notes.string());
    EXPECT_EQ(events[1]["step"], "probe");
    EXPECT_FALSE(events[1]["text"].get<std::string>().empty());
    EXPECT_THAT(namesIn(sandbox.workRoot()), ElementsAre());
}

TEST(CliFrames, InterruptCancelsAndLeavesNothingBehind) {
    RunningTool frames(movingClip(), "moving.mp4", {"frames"}, {"LSAN_OPTIONS=" + leakOptions()});
    ASSERT_TRUE(frames.waitForProgress()) << "the export never reported progress";
    const int status = frames.stop(SIGINT);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_EQ(nlohmann::json::parse(frames.lastEvent())["event"], "cancelled");
    EXPECT_THAT(namesIn(frames.folder()), ElementsAre("moving.mp4"));
    EXPECT_THAT(namesIn(frames.workRoot()), ElementsAre());
}

}  // namespace
}  // namespace tessarin::cli
