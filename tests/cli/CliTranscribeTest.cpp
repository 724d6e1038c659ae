// `tessarin transcribe models` against a scripted HTTPS server on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <fstream>
#include <sstream>

#include "tests/cli/CliTestSupport.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"
#include "tests/support/TestMedia.hpp"

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


std::string fileText(const std::filesystem::path& file) {
    std::ifstream stream(file);
    std::stringstream text;
    text << stream.rdbuf();
    return text.str();
}

json chatAnswer(const std::string& text) {
    return {{"status", 200},
            {"headers", {{"X-Generation-Id", "gen-cli-1"}}},
            {"body", json{{"choices", json::array({{{"message", {{"content", text}}}}})},
                          {"usage", {{"cost", 0.0021}}}}
                         .dump()}};
}

TEST(CliTranscribe, WithoutApprovalItShowsTheNoticeSendsNothingAndExitsFive) {
    test::LoopbackHttpsServer server(json::array({kModels, chatAnswer("never")}));
    test::TempDir config;
    test::TempDir media;
    const auto talk = copyInto(media.path(), test::testClip(test::TestClip::h264Aac), "talk.mp4");
    auto environment = serviceEnvironment(server, config);
    environment["XDG_STATE_HOME"] = (config / "state").string();

    const ToolRun refused = runTool(
        {"transcribe", "--model", "google/gemini-3.6-flash", talk.string()}, environment);
    EXPECT_EQ(refused.exitCode, 5) << refused.err;
    EXPECT_THAT(refused.err, HasSubstr("Send audio to OpenRouter?"));
    EXPECT_THAT(refused.err, HasSubstr("The video file itself is not uploaded."));
    EXPECT_THAT(refused.err, HasSubstr("--consent audio"));
    const ToolRun quiet = runTool(
        {"transcribe", "--json", "--model", "google/gemini-3.6-flash", talk.string()}, environment);
    EXPECT_EQ(quiet.exitCode, 5);
    const auto events = jsonEvents(quiet.out);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back()["event"], "failed");
    EXPECT_EQ(events.back()["step"], "consentDenied");
    // Only the public model list was fetched: no upload, no key sent.
    for (const json& request : server.requests()) {
        EXPECT_EQ(request["method"], "GET");
        EXPECT_FALSE(request["headers"].contains("authorization"));
    }
    EXPECT_EQ(namesIn(media.path()), std::vector<std::string>{"talk.mp4"});
}

TEST(CliTranscribe, ConsentOnTheCommandLineIsStoredAndTheTranscriptLandsBesideTheVideo) {
    test::LoopbackHttpsServer server(
        json::array({kModels, chatAnswer("Hello from the talk."), chatAnswer("Again.")}));
    test::TempDir config;
    test::TempDir media;
    const auto talk = copyInto(media.path(), test::testClip(test::TestClip::h264Aac), "talk.mp4");
    auto environment = serviceEnvironment(server, config);
    environment["XDG_STATE_HOME"] = (config / "state").string();

    const ToolRun run = runTool({"transcribe", "--json", "--consent", "audio", "--model",
                                 "google/gemini-3.6-flash", talk.string()},
                                environment);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto events = jsonEvents(run.out);
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(events.front()["event"], "start");
    EXPECT_EQ(events.front()["action"], "transcribe");
    const auto done = std::find_if(events.begin(), events.end(),
                                   [](const json& event) { return event["event"] == "done"; });
    ASSERT_NE(done, events.end());
    EXPECT_EQ((*done)["path"], (media / "talk.transcript.txt").string());
    EXPECT_EQ(fileText(media / "talk.transcript.txt"), "Hello from the talk.");
    EXPECT_EQ(events.back()["event"], "cost");
    EXPECT_EQ(events.back()["reportedUSD"], 0.0021);
    EXPECT_EQ(events.back()["generationIDs"], json::array({"gen-cli-1"}));

    // The approval was stored as the window stores it: the next run needs no --consent, and
    // people read the cost on stderr.
    const ToolRun again = runTool(
        {"transcribe", "--model", "google/gemini-3.6-flash", talk.string()}, environment);
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(again.out, (media / "talk-2.transcript.txt").string() + "\n");
    EXPECT_THAT(again.err, HasSubstr("0.0021"));

    const std::vector<json> requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[1]["path"], "/api/v1/chat/completions");
    EXPECT_EQ(requests[1]["headers"]["authorization"], "Bearer sk-cli");
    // The key reaches the service and nowhere else: not the settings, the log, or any output.
    const std::string settings = fileText(config / "tessarin" / "settings.json");
    EXPECT_THAT(settings, HasSubstr("transcriptionUploadConsentVersion"));
    EXPECT_THAT(settings, ::testing::Not(HasSubstr("sk-cli")));
    const std::string log = fileText(config / "state" / "tessarin" / "tessarin.log");
    EXPECT_THAT(log, HasSubstr("upload consent granted kind=audio version=1"));
    EXPECT_THAT(log, ::testing::Not(HasSubstr("sk-cli")));
    for (const ToolRun* output : {&run, &again}) {
        EXPECT_THAT(output->out + output->err, ::testing::Not(HasSubstr("sk-cli")));
    }
}

// Every transcript name beside the video is taken, so the writer fails: the text received goes
// to the temporary folder, and the run still fails in the writer's words.
TEST(CliTranscribe, ATranscriptThatCantBeStoredLandsInTheTemporaryFolder) {
    test::LoopbackHttpsServer server(json::array({kModels, chatAnswer("Nothing is lost.")}));
    test::TempDir config;
    test::TempDir media;
    test::TempDir temporary;
    const auto talk = copyInto(media.path(), test::testClip(test::TestClip::h264Aac), "talk.mp4");
    for (int attempt = 1; attempt <= 63; ++attempt) {
        std::ofstream(media / (attempt == 1 ? std::string("talk.transcript.txt")
                                            : "talk-" + std::to_string(attempt) + ".transcript.txt"))
            << "taken";
    }
    auto environment = serviceEnvironment(server, config);
    environment["XDG_STATE_HOME"] = (config / "state").string();
    environment["TMPDIR"] = temporary.path().string();

    const ToolRun run = runTool({"transcribe", "--json", "--consent", "audio", "--model",
                                 "google/gemini-3.6-flash", talk.string()},
                                environment);
    EXPECT_EQ(run.exitCode, 1) << run.err;
    const std::filesystem::path saved = temporary / "talk.transcript.txt";
    EXPECT_EQ(fileText(saved), "Nothing is lost.");
    const auto events = jsonEvents(run.out);
    const auto warning = std::find_if(events.begin(), events.end(), [](const json& event) {
        return event["event"] == "warning" && event["text"] == "transcriptSavedElsewhere";
    });
    ASSERT_NE(warning, events.end()) << run.out;
    EXPECT_EQ((*warning)["message"], "The transcript couldn’t be saved there, so it was saved to " +
                                         saved.string() + ".");
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back()["event"], "failed");
    EXPECT_EQ(events.back()["text"], "The transcript couldn’t be saved.");
}

}  // namespace
}  // namespace tessarin::cli
