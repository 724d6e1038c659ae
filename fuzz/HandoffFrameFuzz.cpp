// Handoff frames from a socket peer: a header is accepted only for a body of 1 to 524,288
// bytes, and a request body that decodes encodes back to one that decodes to the same request.
//
// The input is a frame: 4 header bytes, then the body.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "engine/intake/HandoffMessages.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using namespace tessarin::engine;
using tessarin::fuzz::isValidUtf8;
using tessarin::fuzz::parseStrictJson;
using tessarin::fuzz::require;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 4) {
        return 0;
    }
    unsigned char header[4];
    std::memcpy(header, data, 4);
    const uint32_t announced = (uint32_t{header[0]} << 24) | (uint32_t{header[1]} << 16) |
                               (uint32_t{header[2]} << 8) | uint32_t{header[3]};
    const std::optional<uint32_t> length = requestBodyLength(header);
    require(length.has_value() == (announced >= 1 && announced <= kHandoffRequestLimit),
            "a header is accepted exactly for 1 to 524,288 bytes");

    const std::string_view body(reinterpret_cast<const char*>(data) + 4, size - 4);
    if (const auto request = decodeRequest(body)) {
        require(isValidUtf8(body) && parseStrictJson(body).has_value(),
                "only strict UTF-8 JSON decodes");
        const std::string again = encodeRequest(*request);
        require(parseStrictJson(again).has_value(), "an encoded request is JSON");
        require(decodeRequest(again) == request, "a request survives encoding");
        const auto framed = frame(again, UINT32_MAX);
        require(framed && framed->size() == again.size() + 4 &&
                    std::string_view(*framed).substr(4) == again,
                "a frame is its length and its body");
    }
    if (const auto response = decodeResponse(body)) {
        require(decodeResponse(encodeResponse(*response)) == response,
                "a response survives encoding");
    }
    return 0;
}
