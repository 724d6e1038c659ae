// The only code that talks to the OpenRouter service: the catalog and key calls, the three
// request bodies that carry media, and the retry loop that maps every failure onto one
// TranscriptionError.
//
//   OpenRouterClient client(std::make_shared<CurlOpenRouterTransport>(OpenRouterConfig::endpoint()));
//   ORModelListResponse models = client.listModels(true);
//   RequestBody body = client.speechBody({...}, control.get());
//   std::string answer = client.sendWithRetry(OpenRouterClient::mediaRequest(
//       TranscriptionRoute::stt, std::move(body), key), control.get(), observer);
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/transcription/OpenRouterConfig.hpp"
#include "engine/transcription/OpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterWire.hpp"
#include "engine/transcription/RequestBody.hpp"
#include "engine/transcription/TranscriptionError.hpp"
#include "engine/transcription/TranscriptionOptions.hpp"

namespace tessarin::engine {

// How a model receives media.
enum class TranscriptionRoute { stt, audioChat, videoChat, unsupported };
[[nodiscard]] std::string_view rawValue(TranscriptionRoute route);

// What a failed response's body says about the failure.
enum class FailureClass { policy, provider, unknown };
[[nodiscard]] FailureClass classifyFailureBody(std::string_view body);

// The error of a response status, and whether it may be retried; nothing for 2xx.
struct StatusMapping {
    TranscriptionError::Code code;
    bool retryable;
};
[[nodiscard]] std::optional<StatusMapping> mapStatus(long status, std::string_view body);

// "author/model": two components, neither empty, "." nor "..", of letters, digits and "._-".
[[nodiscard]] bool isValidModelID(std::string_view id);

// Whether `supportedParameters` lists `name`, both lower-cased, entries trimmed. Absent lists
// nothing.
[[nodiscard]] bool supportsParameter(const std::optional<std::vector<std::string>>& supportedParameters,
                                     std::string_view name);

// The text of a speech-to-text answer: `text` when not empty, else the first choice's content.
// Throws badResponse when the body isn't such an answer or holds neither; an empty text or empty
// choices give "".
[[nodiscard]] std::string speechText(std::string_view body);

// The fields the media bodies share.
struct MediaBodyRequest {
    std::string modelID;
    JSONString media;  // base64 parts
    std::optional<std::vector<std::string>> supportedParameters;  // the model's
    std::optional<double> temperature;
};

class OpenRouterClient {
public:
    // Sleeps `seconds`, or throws (anything) to end the retry loop as cancelled. The default waits
    // on `control` when there is one, so that a cancel ends the wait at once.
    using Sleeper = std::function<void(double seconds, const TranscriptionControl* control)>;
    // A value between 0 and its argument; the default is uniformly random.
    using Jitter = std::function<double(double)>;
    // Told about every attempt: its response, failed ones too, or null when the transport failed.
    using Observer = std::function<void(const OpenRouterResponse* response)>;

    explicit OpenRouterClient(std::shared_ptr<OpenRouterTransport> transport,
                              OpenRouterConfig::RetryPolicy retry = {}, Sleeper sleeper = {},
                              Jitter jitter = {});

    // GET /api/v1/models, no key; `transcriptionOnly` adds output_modalities=transcription.
    [[nodiscard]] ORModelListResponse listModels(bool transcriptionOnly,
                                                 const TranscriptionControl* control = nullptr) const;
    // GET /api/v1/models/{id}/endpoints, no key; an id that fails isValidModelID is
    // modelUnavailable before any request.
    [[nodiscard]] ORModelEndpointsResponse modelEndpoints(
        const std::string& id, const TranscriptionControl* control = nullptr) const;
    // GET /api/v1/key with the key.
    [[nodiscard]] ORKeyResponse keyInfo(const std::string& apiKey,
                                        const TranscriptionControl* control = nullptr) const;

    // The chat body with an "input_audio" element of `audioFormat` ("m4a", "wav", "flac"), after
    // the instruction when there is one.
    [[nodiscard]] static RequestBody audioChatBody(const MediaBodyRequest& request,
                                                   const std::optional<std::string>& instruction,
                                                   const std::string& audioFormat,
                                                   const TranscriptionControl* control);
    // The chat body with a "video_url" element holding a data URL of `mimeType`.
    [[nodiscard]] static RequestBody videoChatBody(const MediaBodyRequest& request,
                                                   const std::optional<std::string>& instruction,
                                                   const std::string& mimeType,
                                                   const TranscriptionControl* control);
    // The speech-to-text body. Throws invalidTranscriptionOptions when `options` may not go with
    // the model.
    [[nodiscard]] static RequestBody speechBody(const MediaBodyRequest& request,
                                                const std::string& audioFormat,
                                                const TranscriptionOptions& options,
                                                const std::optional<std::string>& language,
                                                const TranscriptionControl* control);

    // The POST of a media body on `route` (chat completions or audio transcriptions), 300 s.
    [[nodiscard]] static OpenRouterRequest mediaRequest(TranscriptionRoute route, RequestBody body,
                                                        std::string apiKey);

    // Sends `request` until it succeeds, fails for good or the policy's attempts are spent, and
    // returns the body of the 2xx response. Throws the TranscriptionError of the last attempt;
    // cancelled as soon as `control` is cancelled. Blocks the calling thread.
    [[nodiscard]] std::string sendWithRetry(const OpenRouterRequest& request,
                                            const TranscriptionControl* control,
                                            const Observer& observer = {}) const;

    [[nodiscard]] const OpenRouterConfig::RetryPolicy& retry() const { return retry_; }

private:
    std::shared_ptr<OpenRouterTransport> transport_;
    OpenRouterConfig::RetryPolicy retry_;
    Sleeper sleeper_;
    Jitter jitter_;
};

}  // namespace tessarin::engine
