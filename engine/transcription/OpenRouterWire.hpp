// The records the OpenRouter service sends back, and their decoders. Keys are read as the service
// spells them; every optional key may be absent or null. A present key of the wrong type, a
// missing required key, or a body that isn't JSON makes the whole body unreadable, which the
// decoders report as TranscriptionError badResponse. Pure functions, safe from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/transcription/Transcript.hpp"

namespace tessarin::engine {

// Prices as the service writes them: every key of the object, with the values that are strings
// taken as they stand (other values are dropped).
struct ORPricing {
    std::map<std::string, std::string> values;
    bool operator==(const ORPricing&) const = default;
};

struct ORArchitecture {
    std::optional<std::vector<std::string>> inputModalities;
    std::optional<std::vector<std::string>> outputModalities;
    std::optional<std::string> modality;
    std::optional<std::string> tokenizer;
};

struct ORModel {
    std::string id;
    std::optional<std::string> name;
    std::optional<ORArchitecture> architecture;
    std::optional<ORPricing> pricing;
    std::optional<int64_t> contextLength;
    std::optional<std::vector<std::string>> supportedParameters;
};

struct ORModelListResponse {
    std::vector<ORModel> data;
};

struct OREndpoint {
    std::optional<std::string> name;
    std::optional<std::string> providerName;
    std::optional<int64_t> status;
    std::optional<ORPricing> pricing;
    std::optional<std::vector<std::string>> supportedParameters;
    std::optional<int64_t> contextLength;
};

struct ORModelEndpoints {
    std::string id;
    std::optional<std::string> name;
    std::optional<ORArchitecture> architecture;
    std::optional<std::vector<OREndpoint>> endpoints;
};

struct ORModelEndpointsResponse {
    ORModelEndpoints data;
};

struct ORKeyInfo {
    std::optional<std::string> label;
    std::optional<double> limit;
    std::optional<double> usage;
    std::optional<bool> isFreeTier;
};

struct ORKeyResponse {
    ORKeyInfo data;
};

struct ORMessage {
    std::optional<std::string> content;
};

struct ORChoice {
    std::optional<ORMessage> message;
};

struct ORChatResponse {
    std::optional<std::vector<ORChoice>> choices;
};

struct ORTranscriptionResponse {
    std::optional<std::string> text;
    std::optional<std::vector<ORChoice>> choices;
    std::optional<std::vector<TranscriptWord>> words;
};

// The service's error code: a string as it is, an integer as its decimal text, anything else "".
struct ORErrorCode {
    std::string value;
};

struct ORErrorMetadata {
    std::optional<std::string> providerName;
};

struct ORErrorBody {
    std::optional<ORErrorCode> code;
    std::optional<std::string> message;
    std::optional<ORErrorMetadata> metadata;
};

struct ORErrorResponse {
    std::optional<ORErrorBody> error;
};

// Each throws TranscriptionError badResponse when `body` isn't that record.
[[nodiscard]] ORModelListResponse decodeModelList(std::string_view body);
[[nodiscard]] ORModelEndpointsResponse decodeModelEndpoints(std::string_view body);
[[nodiscard]] ORKeyResponse decodeKeyInfo(std::string_view body);
[[nodiscard]] ORChatResponse decodeChatResponse(std::string_view body);
[[nodiscard]] ORTranscriptionResponse decodeTranscriptionResponse(std::string_view body);
[[nodiscard]] ORErrorResponse decodeErrorResponse(std::string_view body);

}  // namespace tessarin::engine
