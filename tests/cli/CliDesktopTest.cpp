// `tessarin actions` and `tessarin report`, each in a private home, data, config and state folder.
#include <gtest/gtest.h>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>

#include "tests/cli/CliTestSupport.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "tests/support/Files.hpp"

namespace tessarin::cli {
namespace {

namespace fs = std::filesystem;

class CliDesktopTest : public ::testing::Test {
protected:
    engine::ProcessRunner::Environment environment() const {
        return {{"HOME", (folder / "home").string()},
                {"XDG_DATA_HOME", (folder / "data").string()},
                {"XDG_CONFIG_HOME", (folder / "config").string()},
                {"XDG_STATE_HOME", (folder / "state").string()}};
    }
    test::TempDir folder;
};

TEST_F(CliDesktopTest, ActionsInstallStatusAndRemoveReportForeignFiles) {
    const fs::path foreign =
        folder / "data" / "nemo" / "actions" / "com.tessarin.Tessarin.gif.nemo_action";
    fs::create_directories(foreign.parent_path());
    test::writeFile(foreign, "[Nemo Action]\nName=mine\n");

    const ToolRun installed = runTool({"actions", "install", "--json"}, environment());
    EXPECT_EQ(installed.exitCode, 0) << installed.err;
    const std::vector<nlohmann::json> events = jsonEvents(installed.out);
    ASSERT_EQ(events.size(), 3u) << installed.out;
    EXPECT_EQ(events[0]["event"], "start");
    EXPECT_EQ(events[1]["event"], "warning");
    EXPECT_NE(events[1]["text"].get<std::string>().find(foreign.string()), std::string::npos);
    EXPECT_EQ(events[2]["event"], "done");
    EXPECT_EQ(events[2]["written"], 23);
    EXPECT_EQ(events[2]["active"], 23);

    const ToolRun status = runTool({"actions", "status", "--json"}, environment());
    int foreignRows = 0;
    int activeRows = 0;
    for (const nlohmann::json& event : jsonEvents(status.out)) {
        if (event["event"] == "action") {
            foreignRows += event["state"] == "foreign";
            activeRows += event["state"] == "active";
        }
    }
    EXPECT_EQ(foreignRows, 1);
    EXPECT_EQ(activeRows, 23);

    const ToolRun removed = runTool({"actions", "remove"}, environment());
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_NE(removed.err.find("Wrote 0 and removed 23 file(s)."), std::string::npos)
        << removed.err;
    EXPECT_EQ(test::readFile(foreign), "[Nemo Action]\nName=mine\n");
}

// Paths, file names, an account and a key planted in the settings, the recent errors and the
// log never reach the report, while the sections that held them are there.
TEST_F(CliDesktopTest, TheReportHoldsNoPlantedPathNameOrKey) {
    const std::string key = "sk-or-v1-0123456789abcdef0123456789abcdef";
    engine::SettingsStore settings(folder / "config" / "tessarin" / "settings.json");
    settings.setString("outputFolderPath", "/srv/planted-share/Secret Videos");
    settings.setString("transcriptFolderPath", "/home/plantuser/Transcripts");
    settings.setString("transcription.customPrompt", "names: Quokka Zebrafield");
    settings.setString("outputMode", "customFolder");
    settings.setData("recentEngineErrors",
                     R"x(["Couldn't read /media/planted usb/holiday-planted.mov: denied",)x"
                     R"x( "export of beach-planted.mkv failed (marker-error-7)"])x");

    const std::string now = fmt::format(
        "{:%Y-%m-%dT%H:%M:%S}.000Z",
        fmt::gmtime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now())));
    fs::create_directories(folder / "state" / "tessarin");
    test::writeFile(folder / "state" / "tessarin" / "tessarin.log",
                    "2001-01-01T00:00:00.000Z 1 notice com.tessarin.app old: marker-too-old\n" +
                        now + " 2 notice com.tessarin.app job: marker-line-42 opened "
                              "/home/plantuser/Movies/party-planted.mp4\n" +
                        now + " 3 error com.tessarin.app mail: plantuser@example.org key " + key +
                        " source=~/Desktop/clip-planted.webm\n");

    engine::ProcessRunner::Environment environment = this->environment();
    environment["OPENROUTER_API_KEY"] = key;
    environment["USER"] = "plantuser";
    const ToolRun run = runTool({"report"}, environment);
    ASSERT_EQ(run.exitCode, 0) << run.err;

    for (const std::string& planted :
         {std::string("planted"), std::string("Secret Videos"), std::string("plantuser"),
          std::string("Quokka"), std::string("Zebrafield"), key, std::string("0123456789abcdef"),
          folder.path().string(), std::string("Desktop"), std::string("Movies")}) {
        EXPECT_EQ(run.out.find(planted), std::string::npos) << planted << " in:\n" << run.out;
    }
    for (const char* present :
         {"Tessarin Diagnostics\n====================\n", "Recent engine errors (last 2)",
          "marker-error-7", "marker-line-42", "API key: present (environment)",
          "Output mode: customFolder", "Helpers (libexec/tessarin)"}) {
        EXPECT_NE(run.out.find(present), std::string::npos) << present << " in:\n" << run.out;
    }
    EXPECT_EQ(run.out.find("marker-too-old"), std::string::npos);
}

}  // namespace
}  // namespace tessarin::cli
