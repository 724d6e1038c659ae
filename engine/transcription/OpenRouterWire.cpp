#include "engine/transcription/OpenRouterWire.hpp"

#include <limits>
#include <nlohmann/json.hpp>

#include "engine/transcription/TranscriptionError.hpp"

namespace tessarin::engine {

namespace {

using nlohmann::json;

// Thrown inside a decoder for any mismatch; turned into badResponse at the top.
struct Mismatch {};

const json& object(const json& value) {
    if (!value.is_object()) {
        throw Mismatch{};
    }
    return value;
}

// The value under `key`, or nothing when the key is absent or null.
const json* field(const json& owner, const char* key) {
    const auto found = owner.find(key);
    return found == owner.end() || found->is_null() ? nullptr : &*found;
}

const json& required(const json& owner, const char* key) {
    const json* value = field(owner, key);
    if (value == nullptr) {
        throw Mismatch{};
    }
    return *value;
}

std::string text(const json& value) {
    if (!value.is_string()) {
        throw Mismatch{};
    }
    return value.get<std::string>();
}

int64_t integer(const json& value) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned() &&
            value.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            throw Mismatch{};
        }
        return value.get<int64_t>();
    }
    throw Mismatch{};
}

double decimal(const json& value) {
    if (!value.is_number()) {
        throw Mismatch{};
    }
    return value.get<double>();
}

bool boolean(const json& value) {
    if (!value.is_boolean()) {
        throw Mismatch{};
    }
    return value.get<bool>();
}

template <typename Decode>
auto list(const json& value, Decode decode) {
    if (!value.is_array()) {
        throw Mismatch{};
    }
    std::vector<decltype(decode(value))> out;
    out.reserve(value.size());
    for (const json& element : value) {
        out.push_back(decode(element));
    }
    return out;
}

template <typename Decode>
auto optionalField(const json& owner, const char* key, Decode decode)
    -> std::optional<decltype(decode(owner))> {
    const json* value = field(owner, key);
    if (value == nullptr) {
        return std::nullopt;
    }
    return decode(*value);
}

std::vector<std::string> texts(const json& value) { return list(value, text); }

ORPricing pricing(const json& value) {
    ORPricing out;
    for (const auto& [key, element] : object(value).items()) {
        if (element.is_string()) {
            out.values.emplace(key, element.get<std::string>());
        }
    }
    return out;
}

ORArchitecture architecture(const json& value) {
    object(value);
    return ORArchitecture{optionalField(value, "input_modalities", texts),
                          optionalField(value, "output_modalities", texts),
                          optionalField(value, "modality", text), optionalField(value, "tokenizer", text)};
}

ORModel model(const json& value) {
    object(value);
    return ORModel{text(required(value, "id")),
                   optionalField(value, "name", text),
                   optionalField(value, "architecture", architecture),
                   optionalField(value, "pricing", pricing),
                   optionalField(value, "context_length", integer),
                   optionalField(value, "supported_parameters", texts)};
}

OREndpoint endpoint(const json& value) {
    object(value);
    return OREndpoint{optionalField(value, "name", text),
                      optionalField(value, "provider_name", text),
                      optionalField(value, "status", integer),
                      optionalField(value, "pricing", pricing),
                      optionalField(value, "supported_parameters", texts),
                      optionalField(value, "context_length", integer)};
}

ORChoice choice(const json& value) {
    object(value);
    return ORChoice{optionalField(value, "message", [](const json& message) {
        object(message);
        return ORMessage{optionalField(message, "content", text)};
    })};
}

TranscriptWord word(const json& value) {
    object(value);
    TranscriptWord out{text(required(value, "word")), decimal(required(value, "start")),
                       decimal(required(value, "end")), std::nullopt, std::nullopt};
    if (const auto speaker = optionalField(value, "speaker", integer)) {
        if (*speaker < std::numeric_limits<int>::min() ||
            *speaker > std::numeric_limits<int>::max()) {
            throw Mismatch{};
        }
        out.speaker = static_cast<int>(*speaker);
    }
    return out;
}

ORErrorCode errorCode(const json& value) {
    if (value.is_string()) {
        return ORErrorCode{value.get<std::string>()};
    }
    if (value.is_number_unsigned()) {
        return ORErrorCode{std::to_string(value.get<uint64_t>())};
    }
    if (value.is_number_integer()) {
        return ORErrorCode{std::to_string(value.get<int64_t>())};
    }
    return ORErrorCode{};
}

template <typename Decode>
auto decodeBody(std::string_view body, Decode decode) {
    // JSON has no raw NUL anywhere, but the reader would take one for the end of the text.
    const json document = body.find('\0') == std::string_view::npos
                              ? json::parse(body, nullptr, false)
                              : json(json::value_t::discarded);
    if (document.is_discarded()) {
        throw TranscriptionError(TranscriptionError::Code::badResponse);
    }
    try {
        return decode(object(document));
    } catch (const Mismatch&) {
        throw TranscriptionError(TranscriptionError::Code::badResponse);
    }
}

}  // namespace

ORModelListResponse decodeModelList(std::string_view body) {
    return decodeBody(body, [](const json& document) {
        return ORModelListResponse{list(required(document, "data"), model)};
    });
}

ORModelEndpointsResponse decodeModelEndpoints(std::string_view body) {
    return decodeBody(body, [](const json& document) {
        const json& data = object(required(document, "data"));
        return ORModelEndpointsResponse{ORModelEndpoints{
            text(required(data, "id")), optionalField(data, "name", text),
            optionalField(data, "architecture", architecture),
            optionalField(data, "endpoints", [](const json& value) { return list(value, endpoint); })}};
    });
}

ORKeyResponse decodeKeyInfo(std::string_view body) {
    return decodeBody(body, [](const json& document) {
        const json& data = object(required(document, "data"));
        return ORKeyResponse{ORKeyInfo{optionalField(data, "label", text),
                                       optionalField(data, "limit", decimal),
                                       optionalField(data, "usage", decimal),
                                       optionalField(data, "is_free_tier", boolean)}};
    });
}

ORChatResponse decodeChatResponse(std::string_view body) {
    return decodeBody(body, [](const json& document) {
        return ORChatResponse{
            optionalField(document, "choices", [](const json& value) { return list(value, choice); })};
    });
}

ORTranscriptionResponse decodeTranscriptionResponse(std::string_view body) {
    return decodeBody(body, [](const json& document) {
        return ORTranscriptionResponse{
            optionalField(document, "text", text),
            optionalField(document, "choices", [](const json& value) { return list(value, choice); }),
            optionalField(document, "words", [](const json& value) { return list(value, word); })};
    });
}

ORErrorResponse decodeErrorResponse(std::string_view body) {
    return decodeBody(body, [](const json& document) {
        return ORErrorResponse{optionalField(document, "error", [](const json& value) {
            object(value);
            std::optional<ORErrorCode> code;
            if (const auto found = value.find("code"); found != value.end() && !found->is_null()) {
                code = errorCode(*found);
            }
            return ORErrorBody{code, optionalField(value, "message", text),
                               optionalField(value, "metadata", [](const json& metadata) {
                                   object(metadata);
                                   return ORErrorMetadata{optionalField(metadata, "provider_name", text)};
                               })};
        })};
    });
}

}  // namespace tessarin::engine
