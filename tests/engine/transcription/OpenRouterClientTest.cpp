// The client's own rules, with a scripted transport behind the transport interface, as tests may:
// status mapping, the retry loop's waits, the request bodies and the splice, the decoders.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <fstream>

#include "engine/transcription/Base64Parts.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/TranscriptionControl.hpp"

namespace tessarin::engine {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using Code = TranscriptionError::Code;

// Answers from a list of responses or errors, and keeps the requests it was given.
class ScriptedTransport final : public OpenRouterTransport {
public:
    using Step = std::variant<OpenRouterResponse, TranscriptionError>;
    explicit ScriptedTransport(std::vector<Step> steps) : steps_(steps.begin(), steps.end()) {}

    OpenRouterResponse send(const OpenRouterRequest& request, const TranscriptionControl*) override {
        requests.push_back(request);
        if (steps_.empty()) {
            ADD_FAILURE() << "more requests than scripted";
            throw TranscriptionError(Code::network);
        }
        Step step = steps_.front();
        steps_.pop_front();
        if (auto* error = std::get_if<TranscriptionError>(&step)) {
            throw *error;
        }
        return std::get<OpenRouterResponse>(step);
    }

    std::vector<OpenRouterRequest> requests;

private:
    std::deque<Step> steps_;
};

OpenRouterResponse response(long status, std::string body = "",
                            std::optional<double> retryAfter = std::nullopt) {
    return OpenRouterResponse{status, std::move(body), retryAfter, std::nullopt};
}

struct RetryRun {
    std::optional<Code> error;
    std::string body;
    std::vector<double> sleeps;
    int attempts = 0;
    int observedFailures = 0;  // observer calls without a response
};

RetryRun runScript(std::vector<ScriptedTransport::Step> steps) {
    auto transport = std::make_shared<ScriptedTransport>(std::move(steps));
    RetryRun out;
    OpenRouterClient client(
        transport, {}, [&](double seconds, const TranscriptionControl*) { out.sleeps.push_back(seconds); },
        [](double upTo) { return upTo / 4; });
    OpenRouterRequest request;
    request.path = "/api/v1/key";
    try {
        out.body = client.sendWithRetry(request, nullptr, [&](const OpenRouterResponse* seen) {
            out.observedFailures += seen == nullptr ? 1 : 0;
        });
    } catch (const TranscriptionError& error) {
        out.error = error.code();
    }
    out.attempts = static_cast<int>(transport->requests.size());
    return out;
}

TEST(OpenRouterClient, StatusesMapToOneErrorEachAndOnlySomeAreRetried) {
    const std::string policy = R"({"error":{"code":"data_policy_violation"}})";
    const std::string provider = R"({"error":{"message":"x","metadata":{"provider_name":" Azure "}}})";
    struct Row {
        long status;
        std::string body;
        std::optional<Code> error;
        bool retryable;
    };
    const std::vector<Row> rows{
        {204, "", std::nullopt, false},
        {401, policy, Code::unauthorized, false},
        {403, "", Code::unauthorized, false},
        {402, "", Code::insufficientCredit, false},
        {429, policy, Code::rateLimited, true},
        {400, policy, Code::privacyRoutingRefused, false},
        {503, R"({"error":{"message":"No endpoints found matching your data policy"}})",
         Code::privacyRoutingRefused, true},
        {404, provider, Code::providerUnavailable, false},
        {502, provider, Code::providerUnavailable, true},
        {404, "not json", Code::modelUnavailable, false},
        {500, "", Code::providerUnavailable, true},
        {307, "", Code::badResponse, false},
        {400, R"({"error":{"code":400,"message":"bad"}})", Code::badResponse, false},
        {404, std::string(65'537, ' '), Code::modelUnavailable, false},
    };
    for (const Row& row : rows) {
        const std::optional<StatusMapping> mapping = mapStatus(row.status, row.body);
        ASSERT_EQ(mapping.has_value(), row.error.has_value()) << row.status;
        if (mapping) {
            EXPECT_EQ(mapping->code, *row.error) << row.status << " " << row.body.substr(0, 60);
            EXPECT_EQ(mapping->retryable, row.retryable) << row.status;
        }
    }
}

TEST(OpenRouterClient, OneRetryAfterPerCallIsHonouredAndCappedThenBackOffTakesOver) {
    const RetryRun limited = runScript({response(429, "", 120), response(429, "", 5), response(429, "", 5)});
    EXPECT_EQ(limited.error, Code::rateLimited);
    EXPECT_EQ(limited.attempts, 3);
    // 120 s capped at 60; the second 429 backs off 2^(2-1) = 2 s plus a quarter as jitter.
    EXPECT_THAT(limited.sleeps, ElementsAre(60.0, 2.5));

    const RetryRun recovered = runScript({response(429), response(200, "ok")});
    EXPECT_EQ(recovered.body, "ok");
    EXPECT_THAT(recovered.sleeps, ElementsAre(1.25));

    const OpenRouterResponse dataPolicy = response(503, R"({"error":{"message":"Data policy"}})");
    const RetryRun policy = runScript({dataPolicy, dataPolicy, dataPolicy});
    EXPECT_EQ(policy.error, Code::privacyRoutingRefused);
    EXPECT_EQ(policy.attempts, 3);

    const RetryRun provider =
        runScript({response(404, R"({"error":{"metadata":{"provider_name":"Fireworks"}}})")});
    EXPECT_EQ(provider.error, Code::providerUnavailable);
    EXPECT_EQ(provider.attempts, 1);
}

TEST(OpenRouterClient, TransportFailuresAreObservedAndOnlyNetworkIsRetried) {
    const RetryRun network = runScript({TranscriptionError(Code::network), response(200, "{}")});
    EXPECT_EQ(network.body, "{}");
    EXPECT_EQ(network.observedFailures, 1);
    EXPECT_THAT(network.sleeps, ElementsAre(1.25));

    const RetryRun lastAttempt = runScript({TranscriptionError(Code::network), response(500),
                                 TranscriptionError(Code::network)});
    EXPECT_EQ(lastAttempt.error, Code::network);
    EXPECT_EQ(lastAttempt.observedFailures, 2);

    const RetryRun refused = runScript({TranscriptionError(Code::badResponse)});
    EXPECT_EQ(refused.error, Code::badResponse);
    EXPECT_EQ(refused.attempts, 1);
}

TEST(OpenRouterClient, ASleeperThatThrowsOrACancelledControlEndsTheLoopAsCancelled) {
    auto transport = std::make_shared<ScriptedTransport>(
        std::vector<ScriptedTransport::Step>{response(500), response(500)});
    OpenRouterClient client(transport, {}, [](double, const TranscriptionControl*) {
        throw std::runtime_error("woken");
    });
    OpenRouterRequest request;
    try {
        (void)client.sendWithRetry(request, nullptr);
        ADD_FAILURE();
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), Code::cancelled);
    }
    TranscriptionControl control;
    control.cancel();
    try {
        (void)client.sendWithRetry(request, &control);
        ADD_FAILURE();
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), Code::cancelled);
    }
    EXPECT_EQ(transport->requests.size(), 1u);  // nothing was sent once cancelled
}

TEST(OpenRouterClient, RetryAfterTakesSecondsOrAFutureHttpDate) {
    const std::time_t now = 1'445'412'480;  // Wed, 21 Oct 2015 07:28:00 GMT
    EXPECT_EQ(parseRetryAfter(" 2 ", now), 2.0);
    EXPECT_EQ(parseRetryAfter("1.5", now), 1.5);
    EXPECT_EQ(parseRetryAfter("-1", now), std::nullopt);
    EXPECT_EQ(parseRetryAfter("Wed, 21 Oct 2015 07:28:30 GMT", now), 30.0);
    EXPECT_EQ(parseRetryAfter("Wed, 21 Oct 2015 07:27:00 GMT", now), std::nullopt);
    EXPECT_EQ(parseRetryAfter("Wed, 21 Oct 2015 07:28:30 CET", now), std::nullopt);
    EXPECT_EQ(parseRetryAfter("soon", now), std::nullopt);
    EXPECT_EQ(parseRetryAfter("1e3", now), std::nullopt);
}

TEST(OpenRouterClient, ModelIDsAreCheckedBeforeAnyEndpointsRequest) {
    for (const char* good : {"microsoft/mai-transcribe-2", "a.b/c_d-e", "x/..."}) {
        EXPECT_TRUE(isValidModelID(good)) << good;
    }
    for (const char* bad : {"openai/gpt-4o:free", "a/b/c", "a", "/b", "a/", "./b", "a/..",
                            "a b/c", "ä/b", "a/b?x=1"}) {
        EXPECT_FALSE(isValidModelID(bad)) << bad;
    }
    auto transport = std::make_shared<ScriptedTransport>(std::vector<ScriptedTransport::Step>{});
    const OpenRouterClient client(transport);
    try {
        (void)client.modelEndpoints("qwen/qwen3:thinking");
        ADD_FAILURE();
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), Code::modelUnavailable);
    }
    EXPECT_TRUE(transport->requests.empty());
}

TEST(OpenRouterClient, DecodersReadTheServicesRecordsAndRefuseOtherShapes) {
    const ORModelListResponse list = decodeModelList(R"({"data":[{"id":"a/b","name":null,
        "architecture":{"input_modalities":["audio","text"],"output_modalities":["text"]},
        "pricing":{"prompt":"0.000001","image":0,"audio":"0.00003"},"context_length":8192,
        "supported_parameters":["temperature"]}]})");
    ASSERT_EQ(list.data.size(), 1u);
    EXPECT_EQ(list.data[0].name, std::nullopt);
    EXPECT_EQ(list.data[0].pricing->values,
              (std::map<std::string, std::string>{{"audio", "0.00003"}, {"prompt", "0.000001"}}));
    EXPECT_EQ(list.data[0].contextLength, 8192);

    EXPECT_EQ(decodeErrorResponse(R"({"error":{"code":402}})").error->code->value, "402");
    EXPECT_EQ(decodeErrorResponse(R"({"error":{"code":{"a":1}}})").error->code->value, "");
    EXPECT_EQ(decodeKeyInfo(R"({"data":{"usage":1.25,"is_free_tier":false}})").data.usage, 1.25);

    for (const char* bad : {"", "[]", R"({"data":{}})", R"({"data":[{"name":"no id"}]})",
                            R"({"data":[{"id":"a/b","context_length":"long"}]})",
                            "{\"data\":[{\"id\":\"\xff\"}]}"}) {
        try {
            (void)decodeModelList(bad);
            ADD_FAILURE() << bad;
        } catch (const TranscriptionError& error) {
            EXPECT_EQ(error.code(), Code::badResponse);
        }
    }
}

TEST(OpenRouterClient, SpeechTextPrefersTextThenTheFirstChoice) {
    EXPECT_EQ(speechText(R"({"text":"hi","choices":[{"message":{"content":"no"}}]})"), "hi");
    EXPECT_EQ(speechText(R"({"text":"","choices":[{"message":{"content":"yes"}}]})"), "yes");
    EXPECT_EQ(speechText(R"({"text":""})"), "");
    EXPECT_EQ(speechText(R"({"choices":[{"message":{}}]})"), "");
    for (const char* bad : {R"({})", R"({"choices":[]})", R"({"text":5})", "null"}) {
        try {
            (void)speechText(bad);
            ADD_FAILURE() << bad;
        } catch (const TranscriptionError& error) {
            EXPECT_EQ(error.code(), Code::badResponse);
        }
    }
    const ORTranscriptionResponse timed = decodeTranscriptionResponse(
        R"({"text":"a b","words":[{"word":"a","start":0,"end":0.5,"speaker":1},{"word":"b","start":0.5,"end":1}]})");
    ASSERT_TRUE(timed.words.has_value());
    EXPECT_EQ(timed.words->at(0), (TranscriptWord{"a", 0, 0.5, 1, std::nullopt}));
}

MediaBodyRequest media(std::string model, std::vector<std::string> parts,
                       std::optional<std::vector<std::string>> parameters = std::nullopt,
                       std::optional<double> temperature = std::nullopt) {
    return {std::move(model),
            {std::make_shared<const std::vector<std::string>>(std::move(parts)), ""},
            std::move(parameters),
            temperature};
}

TEST(OpenRouterClient, ChatBodiesCarryTheInstructionTheMediaAndTheDataPolicy) {
    const json audio = json::parse(
        OpenRouterClient::audioChatBody(media("g/m", {"QUJD", "REVG"}, {{" Temperature\n"}}, 0.3),
                                        "Transcribe this.", "m4a", nullptr)
            .bytes());
    EXPECT_EQ(audio, json::parse(R"({"model":"g/m","provider":{"data_collection":"deny"},
        "temperature":0.3,"messages":[{"role":"user","content":[
        {"type":"text","text":"Transcribe this."},
        {"type":"input_audio","input_audio":{"data":"QUJDREVG","format":"m4a"}}]}]})"));

    const json video = json::parse(
        OpenRouterClient::videoChatBody(media("g/v", {"AAAA"}, {{"language"}}, 0.3), "",
                                        "video/webm", nullptr)
            .bytes());
    EXPECT_EQ(video, json::parse(R"({"model":"g/v","provider":{"data_collection":"deny"},
        "messages":[{"role":"user","content":[
        {"type":"video_url","video_url":{"url":"data:video/webm;base64,AAAA"}}]}]})"));
}

TEST(OpenRouterClient, SpeechBodiesPutTheExtraOptionsInsideProvider) {
    TranscriptionOptions options{TranscriptFormat::srt, true, "  Ada Lovelace \n\n \t\nTessarin\n"};
    const json mai = json::parse(
        OpenRouterClient::speechBody(media("Microsoft/MAI-Transcribe-2", {"AA=="}, {{"language"}}),
                                     "flac", options, "en", nullptr)
            .bytes());
    EXPECT_EQ(mai, json::parse(R"({"model":"Microsoft/MAI-Transcribe-2","language":"en",
        "input_audio":{"data":"AA==","format":"flac"},"response_format":"verbose_json",
        "timestamp_granularities":["segment","word"],
        "provider":{"data_collection":"deny","options":{"azure":{"diarization":{"enabled":true},
        "phraseList":{"phrases":["Ada Lovelace","Tessarin"]}}}}})"));

    // Blank vocabulary lines add nothing, so no options key is sent at all.
    const json plain = json::parse(OpenRouterClient::speechBody(
                                       media("microsoft/mai-transcribe-2", {"AA=="}), "flac",
                                       {TranscriptFormat::text, false, " \n\t\n"}, "en", nullptr)
                                       .bytes());
    EXPECT_EQ(plain["provider"], json({{"data_collection", "deny"}}));
    EXPECT_FALSE(plain.contains("language"));

    try {
        (void)OpenRouterClient::speechBody(media("openai/gpt-transcribe", {"AA=="}), "m4a",
                                           options, std::nullopt, nullptr);
        ADD_FAILURE();
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), Code::invalidTranscriptionOptions);
    }
}

TEST(OpenRouterClient, TheSpliceEscapesTextPiecesExactlyAsTheJsonWriterDoes) {
    // Long text with quotes, controls and multi-byte characters across slice borders.
    std::string text;
    while (text.size() < 3 * RequestBody::kSliceBytes) {
        text += "ß\"\\\n\x01 ünï€😀 ";
    }
    const std::size_t cut = text.find(' ', 70'001);  // parts join at a character's border
    const auto parts = std::make_shared<const std::vector<std::string>>(
        std::vector<std::string>{text.substr(0, cut), text.substr(cut), ""});
    BodyTemplate body;
    body.document = {{"b", body.placeholder({parts, "pre\""})}, {"a", 1}, {"c", {"x"}}};
    const RequestBody spliced = RequestBody::splice(body, nullptr);
    const std::string bytes = spliced.bytes();
    EXPECT_EQ(bytes.size(), spliced.size());
    EXPECT_EQ(bytes, json({{"a", 1}, {"b", "pre\"" + text}, {"c", {"x"}}}).dump());

    // Reading in odd sizes gives the same bytes.
    RequestBody::Reader reader = spliced.reader(nullptr);
    std::string pieces;
    char buffer[977];
    while (const std::size_t count = reader.read(buffer, sizeof buffer)) {
        pieces.append(buffer, count);
    }
    EXPECT_EQ(pieces, bytes);

    // Each character that needs escaping, at every place within a word of eight, is escaped.
    for (const char special : {'\0', '\x1f', '\x7f', '"', '\\', ' ', '~'}) {
        for (std::size_t place = 0; place < 17; ++place) {
            std::string word(17, 'a');
            word[place] = special;
            BodyTemplate one;
            one.document = {{"w", one.placeholder({std::make_shared<const std::vector<std::string>>(
                                                      std::vector<std::string>{word})})}};
            EXPECT_EQ(RequestBody::splice(one, nullptr).bytes(), json({{"w", word}}).dump())
                << int{special} << " at " << place;
        }
    }

    const auto invalid = std::make_shared<const std::vector<std::string>>(
        std::vector<std::string>{"ok\xc3"});
    BodyTemplate broken;
    broken.document = {{"x", broken.placeholder({invalid, ""})}};
    try {
        (void)RequestBody::splice(broken, nullptr);
        ADD_FAILURE();
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), Code::badResponse);
    }
    TranscriptionControl cancelled;
    cancelled.cancel();
    try {
        (void)RequestBody::splice(body, &cancelled);
        ADD_FAILURE();
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), Code::cancelled);
    }
}

TEST(OpenRouterClient, Base64PartsJoinIntoTheEncodingOfTheWholeFile) {
    std::string bytes(3 * kBase64PieceBytes + 2, '\0');
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        bytes[index] = static_cast<char>(index * 7919 % 251);
    }
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("tessarin-base64-" + std::to_string(getpid()));
    {
        std::ofstream(file, std::ios::binary) << bytes;
    }
    const Base64Parts parts = readBase64Parts(file, nullptr);
    ASSERT_EQ(parts->size(), 4u);
    std::string joined;
    for (const std::string& part : *parts) {
        joined += part;
    }
    EXPECT_EQ(joined, base64Encoded(bytes));
    EXPECT_EQ(base64Decoded(joined), bytes);
    EXPECT_EQ(base64Decoded("QUJD=A=="), std::nullopt);

    // The same media encoded while the body is read gives the same body, byte for byte, at
    // lengths on and around the slice size.
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, Base64FileSource::kSliceFileBytes,
                                     Base64FileSource::kSliceFileBytes + 2, bytes.size()}) {
        {
            std::ofstream(file, std::ios::binary) << bytes.substr(0, length);
        }
        const MediaBodyRequest fromParts{"a/b", {readBase64Parts(file, nullptr), "", nullptr},
                                         std::nullopt, std::nullopt};
        const MediaBodyRequest fromFile{"a/b", {nullptr, "", Base64FileSource::open(file)},
                                        std::nullopt, std::nullopt};
        const RequestBody streamed =
            OpenRouterClient::videoChatBody(fromFile, std::nullopt, "video/mp4", nullptr);
        EXPECT_EQ(streamed.bytes(),
                  OpenRouterClient::videoChatBody(fromParts, std::nullopt, "video/mp4", nullptr)
                      .bytes())
            << length;
        EXPECT_EQ(streamed.size(), streamed.bytes().size());
        if (length == bytes.size()) {
            std::filesystem::resize_file(file, length - 1);  // the file shrank after opening
            try {
                (void)streamed.bytes();
                ADD_FAILURE();
            } catch (const TranscriptionError& error) {
                EXPECT_EQ(error.code(), Code::sourceChanged);
            }
        }
    }
    std::filesystem::remove(file);
    EXPECT_THROW((void)readBase64Parts("/nonexistent/file", nullptr), std::system_error);
}

}  // namespace
}  // namespace tessarin::engine
