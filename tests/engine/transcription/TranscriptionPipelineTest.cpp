// The whole pipeline against a scripted HTTPS server on loopback, with the real tools preparing
// the audio of a generated 8-second talk, cut into three 4-second chunks that overlap by 2 s.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "engine/settings/SettingsStore.hpp"
#include "engine/transcription/Base64Parts.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/OpenRouterKeyStore.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionInput.hpp"
#include "engine/transcription/TranscriptionMediaBackend.hpp"
#include "engine/transcription/TranscriptionPipeline.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Code = TranscriptionError::Code;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kChatModel = "google/gemini-3.6-flash";
constexpr const char* kSpeechModel = "microsoft/mai-transcribe-2";
constexpr const char* kVideoModel = "example/video-only";

json chatAnswer(const std::string& text) {
    return {{"status", 200},
            {"body", json{{"choices", json::array({{{"message", {{"content", text}}}}})}}.dump()}};
}

std::string readText(const fs::path& file) {
    std::ifstream stream(file);
    std::stringstream text;
    text << stream.rdbuf();
    return text.str();
}

fs::path talkClip() {
    return test::makeClip("talk-8s.mp4",
                          {"-f", "lavfi", "-i", "color=c=gray:s=64x48:r=5:d=8", "-f", "lavfi", "-i",
                           "sine=frequency=300:sample_rate=16000:duration=8", "-c:v", "libx264",
                           "-c:a", "aac", "-shortest"});
}

// A pipeline over the server, a fresh model list in the settings (so the list costs no request),
// the key in memory, and the talk copied into a folder of its own.
struct Harness {
    explicit Harness(const json& script, bool consent = true)
        : server(script, test::LoopbackHttpsServer::Options{.saveBodies = true}),
          defaults(folder / "settings.json") {
        CatalogSnapshot snapshot;
        snapshot.fetchedAt = secondsSince1970();
        snapshot.entries = {
            CatalogEntry{kChatModel, std::nullopt, {"text", "audio", "video"}, {"text"}, {}, {}, {}},
            CatalogEntry{kSpeechModel, std::nullopt, {"audio"}, {"transcription"},
                         {{"audio_per_minute", "0.006"}}, {}, {}},
            CatalogEntry{kVideoModel, std::nullopt, {"text", "video"}, {"text"}, {}, {}, {}}};
        defaults.setData(OpenRouterCatalog::kSettingsKey, snapshot.toJSONText());
        catalog = std::make_unique<OpenRouterCatalog>(client(), defaults);
        fs::create_directory(folder / "media");
        fs::create_directory(folder / "scratch");
        fs::copy_file(talkClip(), source);
        pipeline = std::make_unique<TranscriptionPipeline>(
            client(), *catalog, keys, std::make_shared<EngineTranscriptionBackend>(test::helperTools()),
            [this, consent](TranscriptionRoute route) {
                ++consentAsked;
                return consent ? TranscriptionConsent::grant()
                               : TranscriptionConsent::denied(*requiredConsent(route));
            },
            folder / "scratch");
        pipeline->chunkSecondsOverride = 4.0;
    }

    OpenRouterClient client() const {
        return OpenRouterClient(std::make_shared<CurlOpenRouterTransport>(OpenRouterConfig::Endpoint{
                                    server.baseURL(), test::testCertificate().certificate.string()}),
                                OpenRouterConfig::RetryPolicy{1, 0, 0, 0});
    }

    TranscriptionOutcome run(TranscriptionRequest request) {
        auto input = TranscriptionInput::open(source);
        return pipeline->run(*input, request, {}, control, [this](double value) {
            fractions.push_back(value);
        });
    }

    [[nodiscard]] std::vector<fs::path> mediaFolder() const {
        std::vector<fs::path> names;
        for (const auto& entry : fs::directory_iterator(folder / "media")) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    test::TempDir folder;
    test::LoopbackHttpsServer server;
    SettingsStore defaults;
    std::unique_ptr<OpenRouterCatalog> catalog;
    std::shared_ptr<InMemoryOpenRouterKeyStore> keys =
        std::make_shared<InMemoryOpenRouterKeyStore>("sk-or-test");
    fs::path source = folder / "media" / "talk.mp4";
    std::unique_ptr<TranscriptionPipeline> pipeline;
    TranscriptionControl control;
    std::vector<double> fractions;
    int consentAsked = 0;
};

TEST(TranscriptionPipeline, WithoutConsentNothingIsSent) {
    Harness harness(json::array({chatAnswer("never")}), /*consent=*/false);
    const TranscriptionOutcome outcome = harness.run({.modelID = kChatModel});
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(*outcome.error, TranscriptionError(Code::consentDenied,
                                                 TranscriptionConsentKind::audioUpload));
    EXPECT_EQ(outcome.error->text(), "Transcription needs your approval before audio can be sent.");
    EXPECT_EQ(harness.consentAsked, 1);
    EXPECT_TRUE(harness.server.requests().empty());
    EXPECT_EQ(harness.mediaFolder(), std::vector<fs::path>{"talk.mp4"});
    EXPECT_TRUE(fs::is_empty(harness.folder / "scratch"));
    EXPECT_EQ(TranscriptionInput::openCount(), 0);

    // Without a key nothing is asked or sent either.
    harness.keys->remove();
    EXPECT_EQ(harness.run({.modelID = kChatModel}).error, TranscriptionError(Code::keyMissing));
    harness.keys->setReadable(false);
    EXPECT_EQ(harness.run({.modelID = kChatModel}).error, TranscriptionError(Code::keychainUnreadable));
    EXPECT_EQ(harness.consentAsked, 1);
    EXPECT_TRUE(harness.server.requests().empty());
}

TEST(TranscriptionPipeline, ThreeChunksAreUploadedWithTheKeyAndMergedInOrder) {
    Harness harness(json::array({chatAnswer(" First part. "), chatAnswer("Second part.\n"),
                                 chatAnswer("Third part.")}));
    const TranscriptionOutcome outcome = harness.run({.modelID = kChatModel});
    ASSERT_TRUE(outcome.succeeded()) << outcome.error->text();
    EXPECT_EQ(*outcome.transcript, harness.folder / "media" / "talk.transcript.txt");
    EXPECT_EQ(readText(*outcome.transcript), "First part.\n\nSecond part.\n\nThird part.");

    const std::vector<json> requests = harness.server.requests();
    ASSERT_EQ(requests.size(), 3u);
    for (const json& request : requests) {
        EXPECT_EQ(request["path"], "/api/v1/chat/completions");
        EXPECT_EQ(request["headers"]["authorization"], "Bearer sk-or-test");
        const json body = json::parse(readText(request["bodyFile"].get<std::string>()));
        EXPECT_EQ(body["provider"]["data_collection"], "deny");
        EXPECT_EQ(body["model"], kChatModel);
        const std::string audio = body.dump();
        EXPECT_THAT(audio, HasSubstr("\"format\":\"m4a\""));
    }
    // Each chunk carries its own audio: three different bodies.
    EXPECT_NE(requests[0]["sha256"], requests[1]["sha256"]);
    EXPECT_NE(requests[1]["sha256"], requests[2]["sha256"]);
    ASSERT_FALSE(harness.fractions.empty());
    EXPECT_EQ(harness.fractions.back(), 1.0);
    EXPECT_TRUE(std::is_sorted(harness.fractions.begin(), harness.fractions.end()));
    // Each chunk's upload starts halfway through its third of the bar.
    EXPECT_NE(std::find(harness.fractions.begin(), harness.fractions.end(), 0.5),
              harness.fractions.end());
    EXPECT_TRUE(fs::is_empty(harness.folder / "scratch"));
    EXPECT_EQ(TranscriptionInput::openCount(), 0);
}

TEST(TranscriptionPipeline, AFailureOnTheThirdChunkKeepsTheFirstTwoAsARecoveredTranscript) {
    Harness harness(json::array({chatAnswer("One."), chatAnswer("Two."),
                                 {{"status", 402}, {"body", R"({"error":{"message":"no"}})"}}}));
    const TranscriptionOutcome outcome = harness.run({.modelID = kChatModel});
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(*outcome.error, TranscriptionError(Code::insufficientCredit));
    EXPECT_TRUE(outcome.partial);
    ASSERT_TRUE(outcome.transcript);
    EXPECT_EQ(outcome.transcript->filename(), "talk.transcript.txt");
    EXPECT_EQ(readText(*outcome.transcript),
              "[Recovered transcript. Text received through 6.0 seconds of the source. The "
              "requested output did not complete; timing or remaining audio may be missing.]\n\n"
              "One.\n\nTwo.");
    EXPECT_EQ(harness.server.requests().size(), 3u);
}

TEST(TranscriptionPipeline, SubtitleTimesAreOffsetByEachChunksStartAndTheTrim) {
    const auto words = [](const std::string& text, double start, double end) {
        return json{{"status", 200},
                    {"body", json{{"text", text},
                                  {"words", json::array({{{"word", text}, {"start", start},
                                                          {"end", end}}})}}
                                 .dump()}};
    };
    Harness harness(json::array({words("alpha", 0.5, 1.0), words("gamma", 0.5, 1.0),
                                 words("delta", 1.0, 1.5)}));
    harness.pipeline->chunkSecondsOverride.reset();
    harness.pipeline->mai2ChunkSeconds = 4.0;
    TranscriptionRequest request{.modelID = kSpeechModel};
    request.options.format = TranscriptFormat::srt;
    request.trim.start = "1";
    const TranscriptionOutcome outcome = harness.run(request);
    ASSERT_TRUE(outcome.succeeded()) << outcome.error->text();
    EXPECT_EQ(outcome.transcript->filename(), "talk.transcript.srt");
    // Chunks start at 0, 2 and 4 s of the audio, which begins 1 s into the source.
    EXPECT_EQ(readText(*outcome.transcript),
              "1\n00:00:01,500 --> 00:00:02,000\nalpha\n\n"
              "2\n00:00:03,500 --> 00:00:04,000\ngamma\n\n"
              "3\n00:00:06,000 --> 00:00:06,500\ndelta\n");
    const std::vector<json> requests = harness.server.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0]["path"], "/api/v1/audio/transcriptions");
    EXPECT_THAT(readText(requests[0]["bodyFile"].get<std::string>()),
                HasSubstr("\"format\":\"flac\""));
    ASSERT_TRUE(harness.pipeline->accounting().estimatedUSD);
}

TEST(TranscriptionPipeline, CancellingDuringAnUploadEndsAtOnceAndKeepsWhatArrived) {
    json slow = chatAnswer("late");
    slow["answerDelay"] = 20;
    Harness harness(json::array({chatAnswer("Early words."), slow}));
    std::atomic<bool> done{false};
    std::thread canceller([&] {
        while (!done && harness.server.requests().size() < 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        harness.control.cancel();
    });
    const auto started = std::chrono::steady_clock::now();
    const TranscriptionOutcome outcome = harness.run({.modelID = kChatModel});
    done = true;
    canceller.join();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(15));
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(*outcome.error, TranscriptionError(Code::cancelled));
    ASSERT_TRUE(outcome.transcript);
    EXPECT_THAT(readText(*outcome.transcript),
                StartsWith("[Recovered transcript. Text received through 4.0 seconds"));
    EXPECT_THAT(readText(*outcome.transcript), HasSubstr("Early words."));
    EXPECT_TRUE(fs::is_empty(harness.folder / "scratch"));
}

TEST(TranscriptionPipeline, ACancelBeforeOrWhileAudioIsPreparedSendsNothing) {
    Harness before(json::array({chatAnswer("never")}));
    before.control.cancel();
    EXPECT_EQ(before.run({.modelID = kChatModel}).error, TranscriptionError(Code::cancelled));
    EXPECT_EQ(before.consentAsked, 0);

    // Cancelled from the consent gate, that is after the approval and before the first extraction
    // finishes: the extraction is stopped and nothing is uploaded.
    Harness during(json::array({chatAnswer("never")}));
    std::thread canceller;
    during.pipeline = std::make_unique<TranscriptionPipeline>(
        during.client(), *during.catalog, during.keys,
        std::make_shared<EngineTranscriptionBackend>(test::helperTools()),
        [&](TranscriptionRoute) {
            canceller = std::thread([&during] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                during.control.cancel();
            });
            return TranscriptionConsent::grant();
        },
        during.folder / "scratch");
    const TranscriptionOutcome outcome = during.run({.modelID = kChatModel});
    ASSERT_TRUE(canceller.joinable());
    canceller.join();
    EXPECT_EQ(outcome.error, TranscriptionError(Code::cancelled));
    EXPECT_FALSE(outcome.transcript);
    EXPECT_TRUE(during.server.requests().empty());
    EXPECT_TRUE(fs::is_empty(during.folder / "scratch"));
    EXPECT_EQ(during.mediaFolder(), std::vector<fs::path>{"talk.mp4"});
}

TEST(TranscriptionPipeline, AVideoModelGetsTheWholeFileOnlyWithItsOwnApproval) {
    Harness harness(json::array({chatAnswer("Seen and heard.")}));
    TranscriptionConsentStore consent(harness.defaults);
    consent.grant(TranscriptionConsentKind::audioUpload, 1);
    harness.pipeline = std::make_unique<TranscriptionPipeline>(
        harness.client(), *harness.catalog, harness.keys,
        std::make_shared<EngineTranscriptionBackend>(test::helperTools()),
        [&consent](TranscriptionRoute route) { return consent.answer(route); },
        harness.folder / "scratch");
    const TranscriptionOutcome refused = harness.run({.modelID = kVideoModel});
    ASSERT_TRUE(refused.error);
    EXPECT_EQ(*refused.error,
              TranscriptionError(Code::consentDenied, TranscriptionConsentKind::videoUpload));
    EXPECT_THAT(refused.error->text(), StartsWith("That model is sent the whole video"));
    EXPECT_TRUE(harness.server.requests().empty());

    consent.grant(TranscriptionConsentKind::videoUpload, 2);
    TranscriptionRequest trimmed{.modelID = kVideoModel};
    trimmed.trim.start = "2";
    EXPECT_EQ(harness.run(trimmed).error, TranscriptionError(Code::trimUnsupportedForVideoModel));
    EXPECT_TRUE(harness.server.requests().empty());

    const TranscriptionOutcome outcome = harness.run({.modelID = kVideoModel});
    ASSERT_TRUE(outcome.succeeded()) << outcome.error->text();
    EXPECT_EQ(readText(*outcome.transcript), "Seen and heard.");
    const std::vector<json> requests = harness.server.requests();
    ASSERT_EQ(requests.size(), 1u);
    const std::string body = readText(requests[0]["bodyFile"].get<std::string>());
    EXPECT_THAT(body, HasSubstr("data:video/mp4;base64," + base64Encoded(readText(harness.source))));
    EXPECT_TRUE(fs::is_empty(harness.folder / "scratch"));
}

TEST(TranscriptionPipeline, AnswersOfOnlyWhiteSpaceAreNoSpeechAndWriteNothing) {
    Harness harness(json::array({chatAnswer(" \n\t ")}));
    harness.pipeline->chunkSecondsOverride.reset();
    const TranscriptionOutcome outcome = harness.run({.modelID = kChatModel});
    EXPECT_EQ(outcome.error, TranscriptionError(Code::noSpeech));
    EXPECT_FALSE(outcome.transcript);
    EXPECT_EQ(harness.server.requests().size(), 1u);
    EXPECT_EQ(harness.mediaFolder(), std::vector<fs::path>{"talk.mp4"});
}

TEST(TranscriptionPipeline, AFileChangedAfterQueueingIsRefusedBeforeAnyUpload) {
    Harness harness(json::array({chatAnswer("never")}));
    auto input = TranscriptionInput::open(harness.source);
    std::ofstream(harness.source, std::ios::app) << "x";
    const TranscriptionOutcome outcome =
        harness.pipeline->run(*input, {.modelID = kChatModel}, {}, harness.control);
    EXPECT_EQ(outcome.error, TranscriptionError(Code::sourceChanged));
    EXPECT_TRUE(harness.server.requests().empty());
    EXPECT_FALSE(outcome.transcript);

    // Inputs are capped process-wide; the 65th is refused at once.
    std::vector<std::shared_ptr<TranscriptionInput>> held;
    for (int index = 0; index < TranscriptionInput::kMaximumOpen; ++index) {
        held.push_back(TranscriptionInput::open(harness.source));
    }
    try {
        (void)TranscriptionInput::open(harness.source);
        ADD_FAILURE() << "the 65th input was opened";
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), Code::sourceQueueFull);
    }
    held.clear();
    EXPECT_EQ(TranscriptionInput::openCount(), 0);
}

}  // namespace
}  // namespace tessarin::engine
