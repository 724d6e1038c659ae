// Drives the built `tessarin` executable as a user would, on generated clips.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <thread>

#include "engine/process/ProcessRunner.hpp"
#include "tests/cli/CliTestSupport.hpp"
#include "tests/support/FakeTools.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::cli {
namespace {

namespace fs = std::filesystem;
using test::TestClip;
using ::testing::HasSubstr;

TEST(CliProbe, PrintsTheFactsOfAClipAsJson) {
    const ToolRun run = runTool({"probe", test::testClip(TestClip::chapters).string()});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto json = nlohmann::json::parse(run.out);
    EXPECT_EQ(json["videoCodec"], "h264");
    EXPECT_EQ(json["width"], 160);
    EXPECT_EQ(json["hasAudio"], false);
    ASSERT_EQ(json["chapters"].size(), 3u);
    EXPECT_EQ(json["chapters"][2]["title"], "Finale");
}

TEST(CliProbe, ReportsFailuresWithTheirExitStatus) {
    test::TempDir folder;
    std::ofstream(folder / "notes.mp4") << "plain text";
    const ToolRun bad = runTool({"probe", (folder / "notes.mp4").string()});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_THAT(bad.err, HasSubstr("ffprobe failed"));

    const ToolRun usage = runTool({"probe"});
    EXPECT_EQ(usage.exitCode, 2);

    // An empty tool folder and no helper folder beside a copied program: nothing is found.
    fs::create_directories(folder / "bin");
    fs::copy_file(toolPath(), folder / "bin" / "tessarin");
    engine::ProcessRunner runner;
    engine::ProcessRunner::RawOptions options;
    std::string err;
    options.environment = engine::ProcessRunner::Environment{
        {"CONVERTER_TOOLS_DIR", folder.path().string()}, {"PATH", "/usr/bin:/bin"}};
    options.stderrHandler = [&](std::string_view chunk) { err += chunk; };
    const auto result =
        runner.runRaw(folder / "bin" / "tessarin",
                      {"probe", test::testClip(TestClip::h264Aac).string()}, options);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(err, HasSubstr("ffmpeg/ffprobe/gifsicle not found"));
    EXPECT_THAT(err, HasSubstr("ffmpeg missing"));
}

TEST(CliPresets, ListsTheBuiltinsAndWhyHardwareCantRun) {
    const ToolRun run = runTool({"presets"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_THAT(run.out, HasSubstr("mp4-h264        MP4 · Compatible (H.264)\n"));
    EXPECT_THAT(run.out, HasSubstr("webm-vp9        WebM · Efficient (VP9)\n"));
    // The order shown to users is the table's.
    EXPECT_LT(run.out.find("gif-small"), run.out.find("gif-full"));
    EXPECT_LT(run.out.find("mp4-av1"), run.out.find("webm-vp9"));
    EXPECT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 10);
}

TEST(CliConvert, PublishesBesideTheOriginalAndNeverOverwrites) {
    test::TempDir folder;
    const fs::path source =
        copyInto(folder.path(), test::testClip(TestClip::h264Aac), "holiday.mp4");
    const ToolRun first = runTool({"convert", "--preset", "mp4-h264", source.string()});
    ASSERT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.out, (folder / "holiday-h264_crf33.mp4").string() + "\n");
    const ToolRun second = runTool({"convert", "--preset", "mp4-h264", source.string()});
    ASSERT_EQ(second.exitCode, 0) << second.err;
    EXPECT_EQ(second.out, (folder / "holiday-h264_crf33-2.mp4").string() + "\n");
    EXPECT_THAT(namesIn(folder.path()),
                ::testing::ElementsAre("holiday-h264_crf33-2.mp4", "holiday-h264_crf33.mp4",
                                       "holiday.mp4"));
    const engine::MediaInfo info = probe(folder / "holiday-h264_crf33.mp4");
    EXPECT_EQ(info.videoCodec, "h264");
    EXPECT_EQ(info.audioCodec, "aac");
    // Not a terminal: no progress bar on stderr.
    EXPECT_EQ(first.err.find('\r'), std::string::npos);
}

TEST(CliConvert, WritesGifsAndWebmIntoTheOutputFolderAndReportsBadFiles) {
    test::TempDir folder;
    test::TempDir output;
    const fs::path source = copyInto(folder.path(), test::testClip(TestClip::h264Aac), "clip.mp4");
    std::ofstream(folder / "broken.mp4") << "not a video";
    const ToolRun gif =
        runTool({"convert", "--preset", "gif-small", "--output-dir", output.path().string(),
                 (folder / "broken.mp4").string(), source.string()});
    EXPECT_EQ(gif.exitCode, 1);
    EXPECT_THAT(gif.err, HasSubstr("broken.mp4: failed at probe"));
    EXPECT_EQ(gif.out, (output / "clip-third_size.gif").string() + "\n");
    const engine::MediaInfo gifInfo = probe(output / "clip-third_size.gif");
    EXPECT_EQ(gifInfo.videoCodec, "gif");
    // A third of 160 x 120, without the even rounding of video formats.
    EXPECT_EQ(gifInfo.width, 53);

    const ToolRun webm = runTool({"convert", "--preset", "webm-vp9", "--output-dir",
                                  output.path().string(), source.string()});
    ASSERT_EQ(webm.exitCode, 0) << webm.err;
    const engine::MediaInfo webmInfo = probe(output / "clip-vp9_crf33.webm");
    EXPECT_EQ(webmInfo.videoCodec, "vp9");
    EXPECT_EQ(webmInfo.audioCodec, "opus");
    EXPECT_THAT(namesIn(output.path()),
                ::testing::ElementsAre("clip-third_size.gif", "clip-vp9_crf33.webm"));

    EXPECT_EQ(runTool({"convert", "--preset", "no-such", source.string()}).exitCode, 2);
    EXPECT_EQ(runTool({"convert", "--preset", "mp4-h264", "--output-dir",
                       (folder / "missing").string(), source.string()})
                  .exitCode,
              2);
}

TEST(CliConvert, HardwarePresetsUseTheEncoderFoundOrSayWhyNot) {
    test::TempDir folder;
    const fs::path source = copyInto(folder.path(), test::testClip(TestClip::h264Aac), "clip.mp4");
    const ToolRun run = runTool({"convert", "--preset", "mp4-h264-vt", source.string()});
    if (run.exitCode == 0) {
        // A machine with a working hardware encoder: the output must be H.264.
        EXPECT_EQ(probe(fs::path(run.out.substr(0, run.out.size() - 1))).videoCodec, "h264");
    } else {
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_THAT(run.err, HasSubstr("can't run here: No working hardware"));
        EXPECT_THAT(namesIn(folder.path()), ::testing::ElementsAre("clip.mp4"));
    }
}

const fs::path& longSource() {
    // Long enough that the encode is still running when the signal arrives.
    static const fs::path source =
        test::makeClip("long-cli-interrupt.mp4",
                       {"-f", "lavfi", "-i", "testsrc2=size=640x360:rate=30:duration=60", "-c:v",
                        "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    return source;
}

// A long AV1 encode, stopped at its first progress event, when its ffmpeg surely runs.
RunningTool runningConvert() {
    return RunningTool(longSource(), "long.mp4", {"convert", "--preset", "mp4-av1"});
}

TEST(CliConvert, InterruptCancelsAndLeavesNothingBehind) {
    RunningTool convert = runningConvert();
    ASSERT_TRUE(convert.waitForProgress()) << "the encode never reported progress";
    const int status = convert.stop(SIGINT);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_EQ(nlohmann::json::parse(convert.lastEvent())["event"], "cancelled");
    EXPECT_THAT(namesIn(convert.folder()), ::testing::ElementsAre("long.mp4"));
    EXPECT_TRUE(namesIn(convert.workRoot()).empty());
}

TEST(CliConvert, KilledToolTakesItsEncoderWithIt) {
    RunningTool convert = runningConvert();
    ASSERT_TRUE(convert.waitForProgress()) << "the encode never reported progress";
    const std::vector<pid_t> children = test::childProcesses(convert.pid());
    ASSERT_THAT(children, ::testing::SizeIs(1));
    const pid_t encoder = children.front();
    test::KillOnExit cleanup(encoder);
    ASSERT_EQ(test::processName(encoder), "ffmpeg");
    const int status = convert.stop(SIGKILL);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_TRUE(test::waitUntilGone(encoder, std::chrono::seconds(1)));
    EXPECT_THAT(namesIn(convert.folder()), ::testing::Contains("long.mp4"));
}

TEST(CliConvert, JsonEventsTrimSegmentsAndJoins) {
    test::TempDir folder;
    const fs::path source =
        copyInto(folder.path(), test::testClip(TestClip::chapters), "talk.mp4");  // 3 s

    const ToolRun trimmed = runTool(
        {"convert", "--json", "--preset", "mp4-h264", "--trim", "0.5,1.5", source.string()});
    ASSERT_EQ(trimmed.exitCode, 0) << trimmed.err;
    const auto events = jsonEvents(trimmed.out);
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events.front()["event"], "start");
    EXPECT_EQ(events.back()["event"], "done");
    const fs::path trimmedPath = events.back()["path"].get<std::string>();
    EXPECT_EQ(trimmedPath, folder / "talk-h264_crf33.mp4");
    EXPECT_NEAR(probe(trimmedPath).durationSeconds.value_or(0), 1.0, 0.25);
    for (const auto& event : events) {
        if (event["event"] == "progress") {
            EXPECT_GE(event["fraction"].get<double>(), 0.0);
            EXPECT_LE(event["fraction"].get<double>(), 1.0);
        }
    }

    const ToolRun clips = runTool({"convert", "--preset", "mp4-h264", "--segment", "0,1,Intro part",
                                   "--segment", "2,3", source.string()});
    ASSERT_EQ(clips.exitCode, 0) << clips.err;
    EXPECT_EQ(std::count(clips.out.begin(), clips.out.end(), '\n'), 2);
    EXPECT_THAT(clips.out, HasSubstr("intro-part"));

    const ToolRun joined = runTool({"convert", "--preset", "mp4-h264", "--segment", "0,1",
                                    "--segment", "2,3", "--join", "keep", source.string()});
    ASSERT_EQ(joined.exitCode, 0) << joined.err;
    const fs::path joinedPath = joined.out.substr(0, joined.out.size() - 1);
    EXPECT_NEAR(probe(joinedPath).durationSeconds.value_or(0), 2.0, 0.3);

    const ToolRun removed = runTool({"convert", "--preset", "mp4-h264", "--segment", "1,2",
                                     "--join", "remove", source.string()});
    ASSERT_EQ(removed.exitCode, 0) << removed.err;
    EXPECT_NEAR(
        probe(fs::path(removed.out.substr(0, removed.out.size() - 1))).durationSeconds.value_or(0),
        2.0, 0.3);

    const ToolRun backwards =
        runTool({"convert", "--preset", "mp4-h264", "--trim", "5,1", source.string()});
    EXPECT_EQ(backwards.exitCode, 2);
    EXPECT_THAT(backwards.err, HasSubstr("--trim 5,1"));
    const ToolRun pastEnd =
        runTool({"convert", "--json", "--preset", "mp4-h264", "--trim", "10,12", source.string()});
    EXPECT_EQ(pastEnd.exitCode, 1);
    EXPECT_EQ(jsonEvents(pastEnd.out).back()["step"], "trim");
}

TEST(CliExtractAudio, WritesTheAudioTrackOrSaysThereIsNone) {
    test::TempDir folder;
    const fs::path source = copyInto(folder.path(), test::testClip(TestClip::h264Aac), "song.mp4");
    const fs::path silent =
        copyInto(folder.path(), test::testClip(TestClip::h264NoAudio), "silent.mp4");
    const ToolRun run =
        runTool({"extract-audio", "--codec", "flac", silent.string(), source.string()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.err, HasSubstr("no audio track"));
    EXPECT_EQ(run.out, (folder / "song-audio.flac").string() + "\n");
    const engine::MediaInfo info = probe(folder / "song-audio.flac");
    EXPECT_EQ(info.audioCodec, "flac");
    EXPECT_EQ(info.videoCodec, std::nullopt);

    const ToolRun m4a = runTool({"extract-audio", source.string()});
    ASSERT_EQ(m4a.exitCode, 0) << m4a.err;
    EXPECT_EQ(probe(folder / "song-audio.m4a").audioCodec, "aac");
    EXPECT_EQ(runTool({"extract-audio", "--codec", "mp3", source.string()}).exitCode, 2);
}

TEST(CliPresets, ShowsExportsAndImportsThroughTheSettingsFile) {
    test::TempDir config;
    test::TempDir folder;
    const engine::ProcessRunner::Environment env = {{"XDG_CONFIG_HOME", config.path().string()}};
    // An edited built-in, a current custom with an out-of-range quality, and a record of a
    // newer version with members this version doesn't know.
    const nlohmann::json settings = {
        {"presetOverrides", {{"mp4-h264", {{"quality", 20}}}}},
        {"customPresets",
         {{{"schemaVersion", 1},
           {"id", "custom-11111111-1111-4111-8111-111111111111"},
           {"name", "Tiny clips"},
           {"format", "h264"},
           {"parameters", {{"quality", 99}, {"scaleMode", "half"}}}},
          {{"schemaVersion", 7},
           {"id", "custom-77777777-7777-4777-8777-777777777777"},
           {"name", "From the future"},
           {"format", "av1"},
           {"parameters", {{"quality", 40}, {"grain", {{"level", 3}}}}},
           {"palette", {1, 2.5, "x"}}}}}};
    fs::create_directories(config / "tessarin");
    std::ofstream(config / "tessarin" / "settings.json") << settings.dump();

    const ToolRun list = runTool({"presets"}, env);
    ASSERT_EQ(list.exitCode, 0) << list.err;
    EXPECT_THAT(list.out, HasSubstr("mp4-h264        MP4 · Compatible (H.264) (edited)\n"));
    EXPECT_THAT(list.out, HasSubstr("Tiny clips"));
    EXPECT_THAT(list.out, HasSubstr("From the future (read-only)"));
    EXPECT_THAT(list.err, HasSubstr("Tiny clips had invalid values and was repaired"));
    // Built-ins first, customs after.
    EXPECT_LT(list.out.find("mp4-h265-vt"), list.out.find("Tiny clips"));

    const ToolRun show = runTool({"presets", "show", "mp4-h264"}, env);
    ASSERT_EQ(show.exitCode, 0) << show.err;
    const auto shown = nlohmann::json::parse(show.out);
    EXPECT_EQ(shown["edited"], true);
    EXPECT_EQ(shown["parameters"]["quality"], 20);
    EXPECT_EQ(runTool({"presets", "show", "nope"}, env).exitCode, 2);

    // Export to a new file only; then import into a second machine's settings.
    const fs::path exported = folder / "mine.json";
    ASSERT_EQ(runTool({"presets", "export", exported.string()}, env).exitCode, 0);
    const ToolRun again = runTool({"presets", "export", exported.string()}, env);
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_THAT(again.err, HasSubstr("nothing was overwritten"));

    test::TempDir otherConfig;
    const engine::ProcessRunner::Environment other = {
        {"XDG_CONFIG_HOME", otherConfig.path().string()}};
    const ToolRun imported = runTool({"presets", "import", exported.string()}, other);
    ASSERT_EQ(imported.exitCode, 0) << imported.err;
    EXPECT_THAT(imported.err, HasSubstr("imported 2 custom presets"));
    const auto stored =
        nlohmann::json::parse(std::ifstream(otherConfig / "tessarin" / "settings.json"));
    ASSERT_EQ(stored["customPresets"].size(), 2u);
    // The newer record crosses machines unchanged in content.
    EXPECT_EQ(stored["customPresets"][1], settings["customPresets"][1]);
    // Importing the same file again adds copies under new ids; nothing is replaced.
    ASSERT_EQ(runTool({"presets", "import", exported.string()}, other).exitCode, 0);
    const auto twice =
        nlohmann::json::parse(std::ifstream(otherConfig / "tessarin" / "settings.json"));
    ASSERT_EQ(twice["customPresets"].size(), 4u);
    EXPECT_NE(twice["customPresets"][2]["id"], twice["customPresets"][0]["id"]);

    // Another JSON file, and an export cut by a NUL byte, import nothing.
    std::ofstream(folder / "other.json") << R"({"something": "else"})";
    std::ifstream exportedIn(exported, std::ios::binary);
    const std::string exportedText{std::istreambuf_iterator<char>(exportedIn), {}};
    std::ofstream(folder / "nul.json", std::ios::binary) << exportedText << '\0' << "junk";
    for (const char* name : {"other.json", "nul.json"}) {
        const ToolRun refused = runTool({"presets", "import", (folder / name).string()}, other);
        EXPECT_EQ(refused.exitCode, 1) << name;
        EXPECT_THAT(refused.err, HasSubstr("is not a preset export")) << name;
    }

    // A custom preset converts like a built-in.
    const fs::path source = copyInto(folder.path(), test::testClip(TestClip::h264Aac), "c.mp4");
    const ToolRun converted = runTool(
        {"convert", "--preset", "custom-11111111-1111-4111-8111-111111111111", source.string()},
        env);
    ASSERT_EQ(converted.exitCode, 0) << converted.err;
    const engine::MediaInfo info =
        probe(fs::path(converted.out.substr(0, converted.out.size() - 1)));
    EXPECT_EQ(info.videoCodec, "h264");
    EXPECT_EQ(info.width, 80);  // half of 160
}

}  // namespace
}  // namespace tessarin::cli
