// `tessarin transcribe models` against a scripted HTTPS server on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/cli/CliTestSupport.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"

namespace tessarin::cli {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

const json kKey = {{"status", 200}, {"body", R"({"data":{"label":"test","usage":0.25}})"}};
const json kModels = {
    {"status", 200},
    {"body", R"({"data":[
      {"id":"microsoft/mai-transcribe-2","architecture":{"input_modalities":["audio"],
       "output_modalities":["transcription"]},"pricing":{"audio_per_minute":"0.006"}},
      {"id":"google/gemini-3.6-flash","architecture":{"input_modalities":["audio","video"]},
       "pricing":{"prompt":"0.0000003","completion":"0.0000025"}}]})"}};

engine::ProcessRunner::Environment serviceEnvironment(const test::LoopbackHttpsServer& server,
                                                      const test::TempDir& config) {
    return {{"OPENROUTER_API_KEY", "sk-cli"},
            {"TESSARIN_OPENROUTER_BASE_URL", server.baseURL()},
            {"TESSARIN_OPENROUTER_CA_FILE", test::testCertificate().certificate.string()},
            {"XDG_CONFIG_HOME", config.path().string()}};
}

TEST(CliTranscribe, ModelsNeedsAKey) {
    const ToolRun plain = runTool({"transcribe", "models"}, {{"OPENROUTER_API_KEY", ""}});
    EXPECT_EQ(plain.exitCode, 2);
    EXPECT_THAT(plain.err, HasSubstr("No OpenRouter API key is set. Set OPENROUTER_API_KEY"));
    EXPECT_TRUE(plain.out.empty());
    const ToolRun json = runTool({"transcribe", "models", "--json"}, {{"OPENROUTER_API_KEY", ""}});
    EXPECT_EQ(json.exitCode, 2);
    const auto events = jsonEvents(json.out);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0]["event"], "failed");
    EXPECT_EQ(events[0]["code"], "keyMissing");
}

TEST(CliTranscribe, ModelsListsTheRosterFromTheStoredOrRefreshedList) {
    test::LoopbackHttpsServer server(json::array({kKey, kModels, kKey, kKey, kModels}));
    test::TempDir config;
    const auto environment = serviceEnvironment(server, config);

    const ToolRun listed = runTool({"transcribe", "models", "--json"}, environment);
    ASSERT_EQ(listed.exitCode, 0) << listed.err;
    const auto events = jsonEvents(listed.out);
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events.front()["event"], "start");
    EXPECT_EQ(events.back()["event"], "done");
    EXPECT_EQ(events.back()["activeModel"], "microsoft/mai-transcribe-2");
    std::map<std::string, json> models;
    for (const json& event : events) {
        if (event["event"] == "model") {
            models[event["id"].get<std::string>()] = event;
        }
    }
    EXPECT_EQ(models.size(), 14u);  // the seeded roster
    EXPECT_EQ(models["microsoft/mai-transcribe-2"]["route"], "stt");
    EXPECT_EQ(models["microsoft/mai-transcribe-2"]["priceUnit"], "perMinute");
    EXPECT_EQ(models["microsoft/mai-transcribe-2"]["active"], true);
    EXPECT_EQ(models["google/gemini-3.6-flash"]["route"], "audioChat");
    EXPECT_EQ(models["google/gemini-3.6-flash"]["priceUnit"], "perToken");
    EXPECT_EQ(models["google/gemini-3.6-flash"]["enabled"], true);
    EXPECT_EQ(models["x-ai/grok-stt-1.0"]["route"], "unlisted");

    // A day's cache: the second run asks only about the key; --refresh fetches the list again.
    const ToolRun cached = runTool({"transcribe", "models"}, environment);
    ASSERT_EQ(cached.exitCode, 0) << cached.err;
    EXPECT_THAT(cached.out, HasSubstr("google/gemini-3.6-flash"));
    EXPECT_THAT(cached.out, HasSubstr("$0.30 in / $2.50 out per 1M tokens"));
    EXPECT_THAT(cached.err, HasSubstr("Active model: microsoft/mai-transcribe-2"));
    EXPECT_EQ(runTool({"transcribe", "models", "--refresh"}, environment).exitCode, 0);

    std::vector<std::string> paths;
    for (const json& request : server.requests()) {
        paths.push_back(request["path"]);
        const bool keyCall = request["path"] == "/api/v1/key";
        EXPECT_EQ(request["headers"].contains("authorization"), keyCall) << request.dump();
    }
    EXPECT_THAT(paths, ::testing::ElementsAre("/api/v1/key", "/api/v1/models", "/api/v1/key",
                                              "/api/v1/key", "/api/v1/models"));
}

TEST(CliTranscribe, ARejectedKeyIsOneSentenceAndAFailure) {
    test::LoopbackHttpsServer server(
        json::array({{{"status", 401}, {"body", R"({"error":{"code":401}})"}}}));
    test::TempDir config;
    const ToolRun run = runTool({"transcribe", "models"}, serviceEnvironment(server, config));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_THAT(run.err, HasSubstr("The OpenRouter API key was rejected."));
    EXPECT_EQ(server.requests().size(), 1u);  // not retried
}

}  // namespace
}  // namespace tessarin::cli
