// Random media bytes spliced into the three request bodies: the body is valid JSON, its length
// is what was announced, it reads the same in any piece sizes, and the media it carries decodes
// to the input exactly, whether held as base64 parts or encoded from a file while read. Text given as a long JSON string (the instruction's kind of text, with
// quotes, controls and non-ASCII) comes back unchanged, or is refused with badResponse when it
// isn't UTF-8.

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "engine/transcription/Base64Parts.hpp"
#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/RequestBody.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using nlohmann::json;
using tessarin::fuzz::require;
namespace engine = tessarin::engine;

std::string readInPieces(const engine::RequestBody& body, const std::vector<std::size_t>& sizes) {
    engine::RequestBody::Reader reader = body.reader(nullptr);
    std::string out;
    std::vector<char> buffer(257);
    for (std::size_t turn = 0;; ++turn) {
        const std::size_t count = reader.read(buffer.data(), sizes[turn % sizes.size()]);
        if (count == 0) {
            return out;
        }
        out.append(buffer.data(), count);
    }
}

// Checks the body and returns it parsed.
json checked(const engine::RequestBody& body, const std::vector<std::size_t>& sizes) {
    const std::string bytes = body.bytes();
    require(bytes.size() == body.size(), "the announced length is the body's length");
    require(readInPieces(body, sizes) == bytes, "pieces read give the same body");
    const std::optional<json> parsed = tessarin::fuzz::parseStrictJson(bytes);
    require(parsed.has_value() && parsed->is_object(), "the body is one JSON object");
    return *parsed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const tessarin::fuzz::ChunkedInput input = tessarin::fuzz::chunkedInput(data, size);
    const std::string media(input.payload);

    // Media as base64 parts cut at multiples of three, as a file read in pieces would give.
    auto parts = std::make_shared<std::vector<std::string>>();
    std::size_t turn = 0;
    for (std::size_t offset = 0; offset < media.size(); ++turn) {
        const std::size_t length =
            std::min(media.size() - offset, 3 * input.pieceSizes[turn % input.pieceSizes.size()]);
        parts->push_back(engine::base64Encoded(std::string_view(media).substr(offset, length)));
        offset += length;
    }
    const engine::MediaBodyRequest request{"microsoft/mai-transcribe-2", {parts, ""},
                                           std::vector<std::string>{"language", "temperature"},
                                           0.5};

    const json speech = checked(
        engine::OpenRouterClient::speechBody(request, "flac", {}, "en", nullptr), input.pieceSizes);
    require(engine::base64Decoded(speech["input_audio"]["data"].get<std::string>()) == media,
            "the speech body's media decodes to the input");

    const json audio = checked(
        engine::OpenRouterClient::audioChatBody(request, "Say \"what\" was said", "m4a", nullptr),
        input.pieceSizes);
    require(engine::base64Decoded(
                audio["messages"][0]["content"][1]["input_audio"]["data"].get<std::string>()) ==
                media,
            "the audio chat body's media decodes to the input");
    require(!audio.contains("language"), "no language on a chat route");

    const json video = checked(
        engine::OpenRouterClient::videoChatBody(request, std::nullopt, "video/mp4", nullptr),
        input.pieceSizes);
    const std::string url =
        video["messages"][0]["content"][0]["video_url"]["url"].get<std::string>();
    const std::string prefix = "data:video/mp4;base64,";
    require(url.starts_with(prefix) && engine::base64Decoded(url.substr(prefix.size())) == media,
            "the video body's data URL holds the input");

    // The same media from a file, encoded while the body is read: the very same body.
    static const std::filesystem::path kFile =
        std::filesystem::temp_directory_path() / ("fuzz-request-body-" + std::to_string(getpid()));
    {
        std::ofstream out(kFile, std::ios::binary | std::ios::trunc);
        out.write(media.data(), static_cast<std::streamsize>(media.size()));
    }
    engine::MediaBodyRequest streamed = request;
    streamed.media = engine::JSONString{nullptr, "", engine::Base64FileSource::open(kFile)};
    require(engine::OpenRouterClient::speechBody(streamed, "flac", {}, "en", nullptr).bytes() ==
                engine::OpenRouterClient::speechBody(request, "flac", {}, "en", nullptr).bytes(),
            "a file's body equals the parts' body");

    // The same bytes as text: kept exactly when UTF-8, refused otherwise.
    engine::BodyTemplate text;
    text.document = {{"text", text.placeholder({std::make_shared<const std::vector<std::string>>(
                                                    std::vector<std::string>{media}),
                                                ""})}};
    const bool utf8 = tessarin::fuzz::isValidUtf8(media);
    try {
        const engine::RequestBody body = engine::RequestBody::splice(text, nullptr);
        require(utf8, "text that isn't UTF-8 is refused");
        require(checked(body, input.pieceSizes)["text"] == media, "text comes back unchanged");
    } catch (const engine::TranscriptionError& error) {
        require(!utf8 && error.code() == engine::TranscriptionError::Code::badResponse,
                "only text that isn't UTF-8 is refused, with badResponse");
    }
    return 0;
}
