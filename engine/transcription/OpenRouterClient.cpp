#include "engine/transcription/OpenRouterClient.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <random>
#include <thread>

#include "engine/log/Log.hpp"
#include "engine/text/UnicodeText.hpp"
#include "engine/transcription/TranscriptionControl.hpp"

namespace tessarin::engine {

namespace {

using Code = TranscriptionError::Code;
using nlohmann::json;

constexpr double kCatalogTimeout = 30;
constexpr double kMediaTimeout = 300;
constexpr std::size_t kMaxClassifiedBody = 65'536;

const Logger& log() {
    static const Logger logger("com.tessarin.transcription", "client");
    return logger;
}

void checkCancelled(const TranscriptionControl* control) {
    if (control != nullptr && control->isCancelled()) {
        throw TranscriptionError(Code::cancelled);
    }
}

std::string trimmedWhitespace(std::string_view text) {
    return encodeUtf8(
        trimmed(std::u32string_view(decodeUtf8Lossy(text)), isWhitespaceOrNewline));
}

void defaultSleep(double seconds, const TranscriptionControl* control) {
    if (control != nullptr) {
        if (!control->waitFor(seconds)) {
            throw TranscriptionError(Code::cancelled);
        }
        return;
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(std::clamp(seconds, 0.0, 86'400.0)));
}

double defaultJitter(double upTo) {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    if (!(upTo > 0)) {
        return 0;
    }
    return std::uniform_real_distribution<double>(0, std::nextafter(upTo, INFINITY))(generator);
}

json provider() { return json{{"data_collection", "deny"}}; }

json chatBody(const MediaBodyRequest& request, const std::optional<std::string>& instruction,
              json mediaElement) {
    json content = json::array();
    if (instruction && !instruction->empty()) {
        content.push_back(json{{"type", "text"}, {"text", *instruction}});
    }
    content.push_back(std::move(mediaElement));
    json document{{"model", request.modelID},
                  {"messages", json::array({json{{"role", "user"}, {"content", content}}})},
                  {"provider", provider()}};
    // No language is ever sent on a chat route, whatever the model advertises.
    if (request.temperature && supportsParameter(request.supportedParameters, "temperature")) {
        document["temperature"] = *request.temperature;
    }
    return document;
}

}  // namespace

std::string_view rawValue(TranscriptionRoute route) {
    switch (route) {
        case TranscriptionRoute::stt: return "stt";
        case TranscriptionRoute::audioChat: return "audioChat";
        case TranscriptionRoute::videoChat: return "videoChat";
        case TranscriptionRoute::unsupported: return "unsupported";
    }
    return "unsupported";
}

FailureClass classifyFailureBody(std::string_view body) {
    if (body.empty() || body.size() > kMaxClassifiedBody) {
        return FailureClass::unknown;
    }
    ORErrorResponse response;
    try {
        response = decodeErrorResponse(body);
    } catch (const TranscriptionError&) {
        return FailureClass::unknown;
    }
    if (!response.error) {
        return FailureClass::unknown;
    }
    const ORErrorBody& error = *response.error;
    if (error.code) {
        const std::string code = lowercasedText(error.code->value);
        if (code == "no_allowed_providers" || code == "invalid_data_policy" ||
            code == "data_policy_violation") {
            return FailureClass::policy;
        }
    }
    if (error.message) {
        const std::string message = lowercasedText(*error.message);
        for (const std::string_view phrase : {"data policy", "data_collection", "data collection",
                                              "no allowed providers", "no endpoints found"}) {
            if (message.find(phrase) != std::string::npos) {
                return FailureClass::policy;
            }
        }
    }
    if (error.metadata && error.metadata->providerName &&
        !trimmedWhitespace(*error.metadata->providerName).empty()) {
        return FailureClass::provider;
    }
    return FailureClass::unknown;
}

std::optional<StatusMapping> mapStatus(long status, std::string_view body) {
    if (status >= 200 && status <= 299) {
        return std::nullopt;
    }
    if (status == 401 || status == 403) {
        return StatusMapping{Code::unauthorized, false};
    }
    if (status == 402) {
        return StatusMapping{Code::insufficientCredit, false};
    }
    if (status == 429) {
        return StatusMapping{Code::rateLimited, true};
    }
    const bool serverError = status >= 500 && status <= 599;
    switch (classifyFailureBody(body)) {
        case FailureClass::policy: return StatusMapping{Code::privacyRoutingRefused, serverError};
        case FailureClass::provider: return StatusMapping{Code::providerUnavailable, serverError};
        case FailureClass::unknown: break;
    }
    if (status == 404) {
        return StatusMapping{Code::modelUnavailable, false};
    }
    if (serverError) {
        return StatusMapping{Code::providerUnavailable, true};
    }
    return StatusMapping{Code::badResponse, false};
}

bool isValidModelID(std::string_view id) {
    const auto slash = id.find('/');
    if (slash == std::string_view::npos || id.find('/', slash + 1) != std::string_view::npos) {
        return false;
    }
    static constexpr std::string_view kAllowed =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    for (const std::string_view component : {id.substr(0, slash), id.substr(slash + 1)}) {
        if (component.empty() || component == "." || component == ".." ||
            component.find_first_not_of(kAllowed) != std::string_view::npos) {
            return false;
        }
    }
    return true;
}

bool supportsParameter(const std::optional<std::vector<std::string>>& supportedParameters,
                       std::string_view name) {
    if (!supportedParameters) {
        return false;
    }
    const std::string wanted = lowercasedText(name);
    return std::any_of(supportedParameters->begin(), supportedParameters->end(),
                       [&](const std::string& entry) {
                           return lowercasedText(trimmedWhitespace(entry)) == wanted;
                       });
}

std::string speechText(std::string_view body) {
    const ORTranscriptionResponse response = decodeTranscriptionResponse(body);
    if (response.text && !response.text->empty()) {
        return *response.text;
    }
    if (response.choices && !response.choices->empty()) {
        const ORChoice& first = response.choices->front();
        if (first.message && first.message->content && !first.message->content->empty()) {
            return *first.message->content;
        }
    }
    if (!response.text && (!response.choices || response.choices->empty())) {
        throw TranscriptionError(Code::badResponse);
    }
    return {};
}

OpenRouterClient::OpenRouterClient(std::shared_ptr<OpenRouterTransport> transport,
                                   OpenRouterConfig::RetryPolicy retry, Sleeper sleeper,
                                   Jitter jitter)
    : transport_(std::move(transport)),
      retry_(retry),
      sleeper_(sleeper ? std::move(sleeper) : Sleeper(defaultSleep)),
      jitter_(jitter ? std::move(jitter) : Jitter(defaultJitter)) {}

ORModelListResponse OpenRouterClient::listModels(bool transcriptionOnly,
                                                 const TranscriptionControl* control) const {
    OpenRouterRequest request;
    request.path = "/api/v1/models";
    if (transcriptionOnly) {
        request.query.emplace_back("output_modalities", "transcription");
    }
    request.timeout = kCatalogTimeout;
    return decodeModelList(sendWithRetry(request, control));
}

ORModelEndpointsResponse OpenRouterClient::modelEndpoints(const std::string& id,
                                                          const TranscriptionControl* control) const {
    if (!isValidModelID(id)) {
        throw TranscriptionError(Code::modelUnavailable);
    }
    OpenRouterRequest request;
    request.path = "/api/v1/models/" + id + "/endpoints";
    request.timeout = kCatalogTimeout;
    return decodeModelEndpoints(sendWithRetry(request, control));
}

ORKeyResponse OpenRouterClient::keyInfo(const std::string& apiKey,
                                        const TranscriptionControl* control) const {
    OpenRouterRequest request;
    request.path = "/api/v1/key";
    request.apiKey = apiKey;
    request.timeout = kCatalogTimeout;
    return decodeKeyInfo(sendWithRetry(request, control));
}

RequestBody OpenRouterClient::audioChatBody(const MediaBodyRequest& request,
                                            const std::optional<std::string>& instruction,
                                            const std::string& audioFormat,
                                            const TranscriptionControl* control) {
    BodyTemplate body;
    body.document = chatBody(
        request, instruction,
        json{{"type", "input_audio"},
             {"input_audio",
              {{"data", body.placeholder(request.media)}, {"format", audioFormat}}}});
    return RequestBody::splice(body, control);
}

RequestBody OpenRouterClient::videoChatBody(const MediaBodyRequest& request,
                                            const std::optional<std::string>& instruction,
                                            const std::string& mimeType,
                                            const TranscriptionControl* control) {
    BodyTemplate body;
    JSONString url = request.media;
    url.prefix = "data:" + mimeType + ";base64," + url.prefix;
    body.document = chatBody(
        request, instruction,
        json{{"type", "video_url"}, {"video_url", {{"url", body.placeholder(std::move(url))}}}});
    return RequestBody::splice(body, control);
}

RequestBody OpenRouterClient::speechBody(const MediaBodyRequest& request,
                                         const std::string& audioFormat,
                                         const TranscriptionOptions& options,
                                         const std::optional<std::string>& language,
                                         const TranscriptionControl* control) {
    if (!optionsAllowed(options, request.modelID)) {
        throw TranscriptionError(Code::invalidTranscriptionOptions);
    }
    BodyTemplate body;
    json document{{"model", request.modelID},
                  {"input_audio",
                   {{"data", body.placeholder(request.media)}, {"format", audioFormat}}},
                  {"provider", provider()}};
    if (lowercasedText(request.modelID) == kMaiTranscribe2) {
        document["response_format"] = "verbose_json";
        document["timestamp_granularities"] = json::array({"segment", "word"});
        json azure = json::object();
        if (options.speakers) {
            azure["diarization"] = json{{"enabled", true}};
        }
        if (const std::vector<std::string> names = vocabularyNames(options.vocabulary);
            !names.empty()) {
            azure["phraseList"] = json{{"phrases", names}};
        }
        if (!azure.empty()) {
            document["provider"] = json{{"data_collection", "deny"},
                                        {"options", {{"azure", std::move(azure)}}}};
        }
    }
    if (language && supportsParameter(request.supportedParameters, "language")) {
        document["language"] = *language;
    }
    if (request.temperature && supportsParameter(request.supportedParameters, "temperature")) {
        document["temperature"] = *request.temperature;
    }
    body.document = std::move(document);
    return RequestBody::splice(body, control);
}

OpenRouterRequest OpenRouterClient::mediaRequest(TranscriptionRoute route, RequestBody body,
                                                 std::string apiKey) {
    OpenRouterRequest request;
    request.method = "POST";
    request.path = route == TranscriptionRoute::stt ? "/api/v1/audio/transcriptions"
                                                    : "/api/v1/chat/completions";
    request.body = std::move(body);
    request.contentType = "application/json";
    request.apiKey = std::move(apiKey);
    request.timeout = kMediaTimeout;
    return request;
}

std::string OpenRouterClient::sendWithRetry(const OpenRouterRequest& request,
                                            const TranscriptionControl* control,
                                            const Observer& observer) const {
    bool honouredRetryAfter = false;
    const auto backOff = [&](int attempt, std::optional<double> serverDelay) {
        double delay = 0;
        if (serverDelay) {
            delay = std::min(retry_.maxHonouredRetryAfter, *serverDelay);
            honouredRetryAfter = true;
        } else {
            const double base =
                std::min(retry_.maxDelay, retry_.baseDelay * std::pow(2.0, attempt - 1));
            delay = base + jitter_(base);
        }
        log().info(KeyValues().add("event", "retry").add("attempt", attempt).add("delay", delay).str());
        try {
            sleeper_(delay, control);
        } catch (...) {
            throw TranscriptionError(Code::cancelled);
        }
    };

    for (int attempt = 1;; ++attempt) {
        checkCancelled(control);
        OpenRouterResponse response;
        try {
            response = transport_->send(request, control);
        } catch (const TranscriptionError& error) {
            if (observer) {
                observer(nullptr);
            }
            if (error.code() == Code::network && attempt < retry_.maxAttempts) {
                backOff(attempt, std::nullopt);
                continue;
            }
            throw;
        }
        if (observer) {
            observer(&response);
        }
        const std::optional<StatusMapping> mapping = mapStatus(response.statusCode, response.body);
        if (!mapping) {
            return std::move(response.body);
        }
        log().notice(KeyValues()
                         .add("event", "request-failed")
                         .add("status", response.statusCode)
                         .add("error", codeName(mapping->code))
                         .add("attempt", attempt)
                         .str());
        if (!mapping->retryable || attempt >= retry_.maxAttempts) {
            throw TranscriptionError(mapping->code);
        }
        const bool honourServer =
            response.statusCode == 429 && response.retryAfter && !honouredRetryAfter;
        backOff(attempt, honourServer ? response.retryAfter : std::nullopt);
    }
}

}  // namespace tessarin::engine
