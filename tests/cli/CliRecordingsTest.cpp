// `tessarin recordings`: unfinished takes listed, recovered and discarded from the command line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "engine/recording/RecordingRecovery.hpp"
#include "tests/cli/CliTestSupport.hpp"
#include "tests/engine/recording/RecordingTestSupport.hpp"

namespace tessarin::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

std::string idOf(const engine::RecordingFiles& take) {
    return *engine::RecordingNamespace::takeId(take.directory.filename().string());
}

TEST(CliRecordings, ListsRecoversAndDiscardsUnfinishedTakes) {
    const test::RecordingPlace place;
    const engine::ProcessRunner::Environment environment{
        {"XDG_DATA_HOME", (place.temp / "data").string()}};
    const engine::RecordingFiles paused = test::makeTake(place, 2, "paused.mp4");
    const engine::RecordingFiles single = test::makeTake(place, 1, "single.mp4");
    const engine::RecordingFiles busy = test::makeTake(place, 1, "busy.mp4");
    // A recorder that still runs holds its take: it is neither listed nor recovered.
    const engine::RecordingNamespace::Lease held =
        engine::RecordingNamespace::acquire(busy.directory);

    const ToolRun list = runTool({"recordings", "list", "--json"}, environment);
    ASSERT_EQ(list.exitCode, 0) << list.err;
    const std::vector<nlohmann::json> takes = jsonEvents(list.out);
    ASSERT_EQ(takes.size(), 2u) << list.out;
    std::map<std::string, nlohmann::json> byId;
    for (const nlohmann::json& take : takes) {
        byId[take["id"]] = take;
    }
    ASSERT_TRUE(byId.count(idOf(paused)));
    EXPECT_EQ(byId[idOf(paused)]["segments"], 2);
    EXPECT_NEAR(byId[idOf(paused)]["recoverableSeconds"].get<double>(), 4.0, 0.1);
    EXPECT_EQ(byId[idOf(single)]["destination"],
              (fs::canonical(place.destination) / "single.mp4").string());

    const ToolRun inUse = runTool({"recordings", "recover", idOf(busy)}, environment);
    EXPECT_EQ(inUse.exitCode, 1);
    EXPECT_THAT(inUse.err, HasSubstr("still in use by another Tessarin process"));

    const ToolRun recover = runTool({"recordings", "recover", idOf(paused), "--json"}, environment);
    ASSERT_EQ(recover.exitCode, 0) << recover.err;
    const std::vector<nlohmann::json> events = jsonEvents(recover.out);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back()["event"], "done");
    const fs::path published = events.back()["path"].get<std::string>();
    EXPECT_EQ(published, fs::canonical(place.destination) / "paused.mp4");
    EXPECT_NEAR(test::videoSeconds(published), 4.0, 0.1);
    EXPECT_EQ(probe(published).audioCodec, "aac");

    const ToolRun discard = runTool({"recordings", "discard", idOf(single)}, environment);
    ASSERT_EQ(discard.exitCode, 0) << discard.err;
    EXPECT_FALSE(fs::exists(single.directory));
    EXPECT_TRUE(fs::exists(place.temp / "data/Trash/files" / single.directory.filename()));

    const ToolRun people = runTool({"recordings", "list"}, environment);
    EXPECT_EQ(people.out, "");
    EXPECT_THAT(people.err, HasSubstr("No unfinished recordings."));
    EXPECT_EQ(runTool({"recordings", "recover", "not-an-id"}, environment).exitCode, 2);
    EXPECT_EQ(runTool({"recordings", "discard"}, environment).exitCode, 2);
}

}  // namespace
}  // namespace tessarin::cli
