// Arbitrary bytes as answers of the transcription service: every decoder gives its record or the
// closed error badResponse and nothing else; what it gives agrees with the JSON it read; the
// failure classification, the status mapping, the speech text and Retry-After keep their rules.
// The first byte picks the decoder; the rest is the body (or the header value).

#include <cmath>
#include <cstdint>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/OpenRouterWire.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using nlohmann::json;
using tessarin::engine::TranscriptionError;
using tessarin::fuzz::require;
using Code = TranscriptionError::Code;
namespace engine = tessarin::engine;

// Runs `decode`; true when it gave a record, false for badResponse; any other outcome aborts.
template <typename Decode>
bool decodes(Decode decode) {
    try {
        decode();
        return true;
    } catch (const TranscriptionError& error) {
        require(error.code() == Code::badResponse, "a decoder fails only with badResponse");
        return false;
    }
}

const json* member(const std::optional<json>& document, const char* key) {
    if (!document || !document->is_object() || !document->contains(key) ||
        (*document)[key].is_null()) {
        return nullptr;
    }
    return &(*document)[key];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::optional<json> document = tessarin::fuzz::parseStrictJson(body);
    const bool object = document && document->is_object();
    switch (data[0] % 8) {
        case 0: {
            engine::ORModelListResponse list;
            if (decodes([&] { list = engine::decodeModelList(body); })) {
                const json* models = member(document, "data");
                require(models != nullptr && models->is_array() && models->size() == list.data.size(),
                        "a model list has one record per element of data");
                for (std::size_t index = 0; index < list.data.size(); ++index) {
                    require((*models)[index]["id"] == list.data[index].id, "ids are kept");
                    if (list.data[index].pricing) {
                        for (const auto& [key, value] : list.data[index].pricing->values) {
                            require((*models)[index]["pricing"][key] == value,
                                    "only string prices are kept, as they stand");
                        }
                    }
                }
            }
            break;
        }
        case 1:
            if (decodes([&] { (void)engine::decodeModelEndpoints(body); })) {
                require(object && member(document, "data") != nullptr, "endpoints need data");
            }
            break;
        case 2:
            if (decodes([&] { (void)engine::decodeKeyInfo(body); })) {
                require(object && member(document, "data") != nullptr, "key info needs data");
            }
            break;
        case 3:
            if (decodes([&] { (void)engine::decodeChatResponse(body); })) {
                require(object, "a chat response is an object");
            }
            break;
        case 4: {
            std::string text;
            if (decodes([&] { text = engine::speechText(body); })) {
                require(object, "a speech answer is an object");
                const json* said = member(document, "text");
                const json* choices = member(document, "choices");
                require(said != nullptr || (choices != nullptr && !choices->empty()),
                        "text or choices are needed");
                if (said != nullptr && !said->get<std::string>().empty()) {
                    require(text == said->get<std::string>(), "a non-empty text wins");
                }
            }
            break;
        }
        case 5: {
            engine::ORErrorResponse response;
            if (decodes([&] { response = engine::decodeErrorResponse(body); })) {
                const json* error = member(document, "error");
                require((error != nullptr) == response.error.has_value(), "error is read when there");
                if (response.error && response.error->code) {
                    const json& code = (*error)["code"];
                    const std::string expected = code.is_string()           ? code.get<std::string>()
                                                 : code.is_number_unsigned() ? std::to_string(code.get<uint64_t>())
                                                 : code.is_number_integer()  ? std::to_string(code.get<int64_t>())
                                                                             : "";
                    require(response.error->code->value == expected,
                            "an error code is a string, an integer's text, or empty");
                }
            }
            break;
        }
        case 6: {
            const engine::FailureClass kind = engine::classifyFailureBody(body);
            if (body.empty() || body.size() > 65'536 || !object) {
                require(kind == engine::FailureClass::unknown, "unreadable bodies are unknown");
            }
            const long status = 100 + static_cast<long>(size % 500);
            const auto mapping = engine::mapStatus(status, body);
            require(mapping.has_value() == !(status >= 200 && status <= 299),
                    "only 2xx maps to no error");
            if (mapping && (status == 401 || status == 403)) {
                require(mapping->code == Code::unauthorized && !mapping->retryable, "401/403");
            }
            if (mapping && status == 429) {
                require(mapping->code == Code::rateLimited && mapping->retryable, "429");
            }
            if (mapping && mapping->retryable) {
                require(status == 429 || (status >= 500 && status <= 599),
                        "only 429 and 5xx are retried");
            }
            break;
        }
        default: {
            const auto seconds = engine::parseRetryAfter(body, std::time_t{1'700'000'000});
            require(!seconds || (std::isfinite(*seconds) && *seconds >= 0),
                    "Retry-After gives finite non-negative seconds");
            break;
        }
    }
    return 0;
}
