// `tessarin transcribe models` against a scripted HTTPS server on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

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

TEST(CliTranscribe, CtrlCEndsAWaitingRequestAsCancelled) {
    // The server holds its answer, so the tool is still waiting when the signal comes.
    test::LoopbackHttpsServer server(json::array({{{"status", 200}, {"answerDelay", 30}, {"body", "{}"}}}));
    test::TempDir config;
    std::vector<std::string> environment = currentEnvironment();
    for (const auto& [key, value] : serviceEnvironment(server, config)) {
        environment.push_back(key + "=" + value);
    }
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const pid_t pid = spawnTool({"transcribe", "models", "--json"}, environment, {.out = out[1]});
    close(out[1]);
    ASSERT_GT(pid, 0);
    while (server.requests().empty()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const auto signalled = std::chrono::steady_clock::now();
    kill(pid, SIGINT);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - signalled, std::chrono::seconds(10));
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = read(out[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(out[0]);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    const auto events = jsonEvents(text);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back()["event"], "cancelled");
}

}  // namespace
}  // namespace tessarin::cli
