// The service client against a real HTTPS server on loopback, with a certificate made for the
// test: retries, refusals and a large upload, as the wire sees them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>

#include "engine/log/Log.hpp"
#include "engine/transcription/Base64Parts.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"

namespace tessarin::engine {
namespace {

using nlohmann::json;
using test::LoopbackHttpsServer;
using ::testing::ElementsAre;
using Code = TranscriptionError::Code;

// The client as a test drives it: the loopback server trusted, and sleeps recorded, not slept.
struct Harness {
    explicit Harness(const std::string& baseURL)
        : transport(std::make_shared<CurlOpenRouterTransport>(OpenRouterConfig::Endpoint{
              baseURL, test::testCertificate().certificate.string()})),
          client(transport, {}, [this](double seconds, const TranscriptionControl*) {
              sleeps.push_back(seconds);
          }, [](double upTo) { return upTo / 2; }) {}

    std::vector<double> sleeps;
    std::shared_ptr<CurlOpenRouterTransport> transport;
    OpenRouterClient client;
};

Code failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const TranscriptionError& error) {
        return error.code();
    }
    ADD_FAILURE() << "no TranscriptionError was thrown";
    return Code::cancelled;
}

OpenRouterRequest get(std::string path) {
    OpenRouterRequest request;
    request.path = std::move(path);
    return request;
}

const json kNoModels = {{"status", 200}, {"body", R"({"data":[]})"}};

TEST(OpenRouterHttps, RateLimitWithRetryAfterIsRetriedAfterTheServersFigure) {
    LoopbackHttpsServer server(json::array(
        {{{"status", 429}, {"headers", {{"Retry-After", "2"}}}, {"body", ""}}, kNoModels}));
    Harness harness(server.baseURL());
    EXPECT_TRUE(harness.client.listModels(true).data.empty());
    EXPECT_THAT(harness.sleeps, ElementsAre(2.0));
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const json& request : requests) {
        EXPECT_EQ(request["method"], "GET");
        EXPECT_EQ(request["path"], "/api/v1/models?output_modalities=transcription");
        EXPECT_EQ(request["headers"]["accept"], "application/json");
        EXPECT_FALSE(request["headers"].contains("authorization"));  // the catalog is public
    }
}

TEST(OpenRouterHttps, ServerErrorStormGivesUpAfterThePolicysAttempts) {
    LoopbackHttpsServer server(json::array({{{"status", 500}, {"body", "oops"}}}));
    Harness harness(server.baseURL());
    EXPECT_EQ(failureOf([&] { (void)harness.client.keyInfo("sk-test"); }),
              Code::providerUnavailable);
    EXPECT_EQ(server.requests().size(), 3u);
    // Backing off 1 s, then 2 s, each plus the injected jitter of half that.
    EXPECT_THAT(harness.sleeps, ElementsAre(1.5, 3.0));
}

TEST(OpenRouterHttps, RedirectToAnotherHostIsNotFollowedAndTheKeyNeverReachesIt) {
    LoopbackHttpsServer elsewhere(json::array({kNoModels}), {.host = "127.0.0.2"});
    LoopbackHttpsServer server(json::array(
        {{{"status", 307},
          {"headers", {{"Location", elsewhere.baseURL() + "/api/v1/key"}}},
          {"body", ""}}}));
    Harness harness(server.baseURL());
    EXPECT_EQ(failureOf([&] { (void)harness.client.keyInfo("sk-secret"); }), Code::badResponse);
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);  // a refused redirect isn't retried either
    EXPECT_EQ(requests[0]["headers"]["authorization"], "Bearer sk-secret");
    EXPECT_TRUE(elsewhere.requests().empty());
}

TEST(OpenRouterHttps, ResponsesOverEightMebibytesAreRefused) {
    constexpr int kLimit = 8 * 1024 * 1024;
    LoopbackHttpsServer server(json::array({
        {{"status", 200}, {"bodyBytes", kLimit + 1}},                      // said in advance
        {{"status", 200}, {"bodyBytes", kLimit + 1}, {"noLength", true}},  // found while reading
        {{"status", 200}, {"bodyBytes", kLimit}, {"noLength", true}},
    }));
    CurlOpenRouterTransport transport(
        {server.baseURL(), test::testCertificate().certificate.string()});
    const OpenRouterRequest request = get("/api/v1/models");
    EXPECT_EQ(failureOf([&] { (void)transport.send(request, nullptr); }), Code::badResponse);
    EXPECT_EQ(failureOf([&] { (void)transport.send(request, nullptr); }), Code::badResponse);
    const OpenRouterResponse atLimit = transport.send(request, nullptr);
    EXPECT_EQ(atLimit.statusCode, 200);
    EXPECT_EQ(atLimit.body.size(), static_cast<std::size_t>(kLimit));
}

TEST(OpenRouterHttps, PlainHttpAndNonLoopbackBaseURLsAreRefused) {
    LoopbackHttpsServer plain(json::array({kNoModels}), {.plain = true});
    const auto environment = [&](const std::string& url) {
        return [url](const char* name) -> std::optional<std::string> {
            if (std::string_view(name) == "TESSARIN_OPENROUTER_BASE_URL") {
                return url;
            }
            if (std::string_view(name) == "TESSARIN_OPENROUTER_CA_FILE") {
                return test::testCertificate().certificate.string();
            }
            return std::nullopt;
        };
    };
    // A loopback URL is taken, but all other rules stand: plain HTTP never leaves the process.
    const OpenRouterConfig::Endpoint plainEndpoint = OpenRouterConfig::endpoint(environment(plain.baseURL()));
    EXPECT_EQ(plainEndpoint.baseURL, plain.baseURL());
    Harness harness(plainEndpoint.baseURL);
    EXPECT_EQ(failureOf([&] { (void)harness.client.listModels(false); }), Code::network);
    EXPECT_TRUE(plain.requests().empty());

    for (const char* url : {"https://user:pw@127.0.0.1:1/", "https://127.0.0.1:1/api",
                                   "https://127.0.0.1:1/?q=1"}) {
        CurlOpenRouterTransport transport({url, std::nullopt});
        EXPECT_EQ(failureOf([&] { (void)transport.send(get("/api/v1/key"), nullptr); }),
                  Code::network)
            << url;
    }

    // Anything else is ignored, with a log line: the real service stays the address.
    test::TempDir logs;
    setJournalSinkEnabled(false);
    setLogFileForTesting(logs / "log");
    for (const char* url : {"https://example.com", "https://127.0.0.1.example.com:8443",
                                   "https://localhost:8443", "not a url"}) {
        const OpenRouterConfig::Endpoint ignored = OpenRouterConfig::endpoint(environment(url));
        EXPECT_EQ(ignored.baseURL, OpenRouterConfig::kBaseURL) << url;
        EXPECT_EQ(ignored.caFile, std::nullopt) << url;
    }
    setLogFileForTesting(std::nullopt);
    std::stringstream lines;
    lines << std::ifstream(logs / "log").rdbuf();
    EXPECT_THAT(lines.str(), ::testing::HasSubstr("event=base-url-override-ignored"));
}

TEST(OpenRouterHttps, UploadOfTwentyMegabytesArrivesByteExact) {
    std::string media(20 * 1000 * 1000, '\0');
    std::mt19937 random(7);
    for (char& byte : media) {
        byte = static_cast<char>(random());
    }
    test::TempDir folder;
    std::ofstream(folder / "speech.flac", std::ios::binary) << media;

    LoopbackHttpsServer server(
        json::array({{{"status", 200},
                      {"headers", {{"X-Generation-Id", "gen-1"}}},
                      {"body", R"({"text":"hello there","usage":{"cost":0.01}})"}}}),
        {.saveBodies = true});
    Harness harness(server.baseURL());
    const auto control = std::make_shared<TranscriptionControl>();
    const MediaBodyRequest media_request{"microsoft/mai-transcribe-2",
                                         {readBase64Parts(folder / "speech.flac", control.get()), ""},
                                         std::vector<std::string>{"language"},
                                         0.2};
    RequestBody body = OpenRouterClient::speechBody(media_request, "flac", {}, "de", control.get());
    std::vector<std::optional<std::string>> observed;
    const std::string answer = harness.client.sendWithRetry(
        OpenRouterClient::mediaRequest(TranscriptionRoute::stt, std::move(body), "sk-upload"),
        control.get(), [&](const OpenRouterResponse* response) {
            observed.push_back(response != nullptr ? response->generationID : std::nullopt);
        });
    EXPECT_EQ(speechText(answer), "hello there");
    EXPECT_THAT(observed, ElementsAre(std::optional<std::string>("gen-1")));

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0]["path"], "/api/v1/audio/transcriptions");
    EXPECT_EQ(requests[0]["headers"]["content-type"], "application/json");
    EXPECT_EQ(requests[0]["headers"]["authorization"], "Bearer sk-upload");
    EXPECT_FALSE(requests[0]["headers"].contains("expect"));
    std::stringstream received;
    received << std::ifstream(requests[0]["bodyFile"].get<std::string>(), std::ios::binary).rdbuf();
    EXPECT_EQ(requests[0]["bodyLength"].get<std::size_t>(), received.str().size());
    // The media string is cut out before parsing: a debug build's JSON reader takes seconds over
    // 27 MB, and the rest of the body must parse as JSON with it gone just the same.
    std::string text = received.str();
    const std::string marker = R"("input_audio":{"data":")";
    const std::size_t start = text.find(marker);
    ASSERT_NE(start, std::string::npos);
    const std::size_t dataStart = start + marker.size();
    const std::size_t dataEnd = text.find('"', dataStart);
    ASSERT_NE(dataEnd, std::string::npos);
    const std::optional<std::string> decoded =
        base64Decoded(std::string_view(text).substr(dataStart, dataEnd - dataStart));
    text.erase(dataStart, dataEnd - dataStart);
    const json sent = json::parse(text);
    EXPECT_EQ(sent["model"], "microsoft/mai-transcribe-2");
    EXPECT_EQ(sent["language"], "de");
    EXPECT_FALSE(sent.contains("temperature"));  // the model doesn't list it
    EXPECT_EQ(sent["provider"], json({{"data_collection", "deny"}}));
    EXPECT_EQ(sent["response_format"], "verbose_json");
    EXPECT_EQ(sent["input_audio"], json({{"data", ""}, {"format", "flac"}}));
    ASSERT_TRUE(decoded.has_value());
    EXPECT_TRUE(*decoded == media) << "the uploaded media differs from the file";
}

}  // namespace
}  // namespace tessarin::engine
