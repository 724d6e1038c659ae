// `tessarin silence` and clip lists on `convert`: suggested keep clips printed and saved, a
// list that never replaces a file, and a list refused for a touched source.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/cli/CliTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(CliSilence, PrintsAndSavesTheKeepClipsThenConvertsThemJoined) {
    const test::TempDir folder;
    const fs::path source =
        copyInto(folder.path(), test::testClip(test::TestClip::pausedTone), "talk.mp4");
    const fs::path list = folder / "talk.clips.json";

    const ToolRun scan = runTool({"silence", "--write-clip-list", list.string(), source.string()});
    ASSERT_EQ(scan.exitCode, 0) << scan.err;
    std::istringstream lines(scan.out);
    std::vector<std::pair<double, double>> ranges;
    double start = 0;
    double end = 0;
    while (lines >> start >> end) {
        ranges.emplace_back(start, end);
    }
    ASSERT_EQ(ranges.size(), 2u) << scan.out;
    EXPECT_NEAR(ranges[0].second, 2.15, 0.1);
    EXPECT_NEAR(ranges[1].first, 3.85, 0.1);
    EXPECT_NEAR(ranges[1].second, 6.15, 0.1);
    ASSERT_TRUE(fs::exists(list));
    const std::string saved = readText(list);

    // Never over an existing file, even its own earlier list.
    const ToolRun again =
        runTool({"silence", "--json", "--write-clip-list", list.string(), source.string()});
    EXPECT_EQ(again.exitCode, 2);
    EXPECT_THAT(again.err, HasSubstr("already exists"));
    EXPECT_EQ(readText(list), saved);

    const ToolRun json = runTool({"silence", "--json", "--padding", "0", source.string()});
    ASSERT_EQ(json.exitCode, 0) << json.err;
    const std::vector<nlohmann::json> events = jsonEvents(json.out);
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events.front()["event"], "start");
    EXPECT_EQ(events.back()["event"], "done");
    ASSERT_EQ(events.back()["clips"].size(), 2u);
    EXPECT_EQ(events.back()["clips"][0]["name"], "Suggested 1");

    const fs::path output = folder / "out";
    fs::create_directory(output);
    const ToolRun convert =
        runTool({"convert", "--preset", "mp4-h264", "--clip-list", list.string(), "--join", "keep",
                 "--output-dir", output.string(), source.string()});
    ASSERT_EQ(convert.exitCode, 0) << convert.err;
    const std::vector<std::string> names = namesIn(output);
    ASSERT_EQ(names.size(), 1u);
    const engine::MediaInfo joined = probe(output / names.front());
    ASSERT_TRUE(joined.durationSeconds.has_value());
    EXPECT_NEAR(*joined.durationSeconds,
                (ranges[0].second - ranges[0].first) + (ranges[1].second - ranges[1].first), 0.15);

    // A cut plans each listed clip for review and, unconfirmed, writes nothing.
    const ToolRun cut = runTool({"cut", "--json", "--clip-list", list.string(), "--output-dir",
                                 output.string(), source.string()});
    EXPECT_EQ(cut.exitCode, 4) << cut.err;
    std::size_t plans = 0;
    for (const nlohmann::json& event : jsonEvents(cut.out)) {
        plans += event["event"] == "plan" ? 1 : 0;
    }
    EXPECT_EQ(plans, 2u);
    EXPECT_EQ(namesIn(output).size(), 1u);
}

TEST(CliSilence, RefusesAListForATouchedSourceAndBadSettings) {
    const test::TempDir folder;
    const fs::path source =
        copyInto(folder.path(), test::testClip(test::TestClip::pausedTone), "talk.mp4");
    const fs::path list = folder / "talk.clips.json";
    ASSERT_EQ(runTool({"silence", "--write-clip-list", list.string(), source.string()}).exitCode,
              0);
    const fs::file_time_type modified = fs::last_write_time(source);
    fs::last_write_time(source, modified + std::chrono::seconds(1));

    const ToolRun convert = runTool({"convert", "--preset", "mp4-h264", "--clip-list",
                                     list.string(), "--json", source.string()});
    EXPECT_EQ(convert.exitCode, 1);
    const std::vector<nlohmann::json> events = jsonEvents(convert.out);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["event"], "failed");
    EXPECT_EQ(events[0]["text"],
              "This clip list belongs to a different or changed source. Check its filename, "
              "size and modification time.");
    EXPECT_EQ(namesIn(folder.path()).size(), 2u);  // nothing was made

    const ToolRun settings = runTool({"silence", "--noise-db", "-81", source.string()});
    EXPECT_EQ(settings.exitCode, 2);
    EXPECT_THAT(settings.err, HasSubstr("Use a noise threshold from -80 to -10 dB"));
    const ToolRun silent =
        runTool({"silence", test::testClip(test::TestClip::h264NoAudio).string()});
    EXPECT_EQ(silent.exitCode, 1);
    EXPECT_THAT(silent.err, HasSubstr("Suggestions need a video with audio"));
}

}  // namespace
}  // namespace tessarin::cli
