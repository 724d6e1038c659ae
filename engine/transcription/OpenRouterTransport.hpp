// One HTTP exchange with the OpenRouter service, and the interface that carries it. The real
// transport is CurlOpenRouterTransport; tests put their own behind the interface.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/transcription/RequestBody.hpp"

namespace tessarin::engine {

class TranscriptionControl;

struct OpenRouterRequest {
    std::string method = "GET";  // "GET" or "POST"
    std::string path;            // absolute, under the base endpoint: "/api/v1/models"
    std::vector<std::pair<std::string, std::string>> query;  // added only when not empty
    std::optional<RequestBody> body;
    std::optional<std::string> contentType;
    std::optional<std::string> apiKey;  // sent as a bearer token; absent on catalog calls
    double timeout = 30;                // seconds
};

struct OpenRouterResponse {
    long statusCode = 0;
    std::string body;
    std::optional<double> retryAfter;  // seconds
    std::optional<std::string> generationID;  // header X-Generation-Id
};

class OpenRouterTransport {
public:
    virtual ~OpenRouterTransport() = default;
    // Makes the exchange and returns the response whatever its status. Throws TranscriptionError:
    // network when the service can't be reached, badResponse when the answer can't be read or is
    // too large, cancelled when `control` (may be null) is cancelled meanwhile. Blocks the calling
    // thread; implementations must be safe to call from several threads at once.
    virtual OpenRouterResponse send(const OpenRouterRequest& request,
                                    const TranscriptionControl* control) = 0;
};

}  // namespace tessarin::engine
