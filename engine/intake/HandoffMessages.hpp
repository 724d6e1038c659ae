// The wire format of the handoff socket: frames of a 4-byte big-endian length and UTF-8 JSON,
// one request and one response per connection.
//
// Pure functions over plain values; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clips/Uuid.hpp"
#include "engine/intake/IntakeToken.hpp"

namespace tessarin::engine {

// A request body may be 1 to 512 KiB, a response body 1 to 4 KiB.
inline constexpr uint32_t kHandoffRequestLimit = 524'288;
inline constexpr uint32_t kHandoffResponseLimit = 4'096;

struct IntakeHandoffRequest {
    std::string presetID;  // empty for a transcription
    int64_t fileCount = 0;
    std::vector<std::string> files;  // absolute paths, or empty (the paths come by link)
    std::string actionKind;          // "convert" or "transcribe" on a valid request
    std::optional<std::string> requestID;

    bool operator==(const IntakeHandoffRequest&) const = default;
};

struct IntakeHandoffResponse {
    std::optional<std::string> nonce;
    std::optional<bool> delivered;

    bool operator==(const IntakeHandoffResponse&) const = default;
};

// The body length a frame header announces, or nothing for 0 or more than `limit`.
[[nodiscard]] std::optional<uint32_t> frameBodyLength(const unsigned char (&header)[4],
                                                      uint32_t limit);
// The same for a request (limit kHandoffRequestLimit).
[[nodiscard]] std::optional<uint32_t> requestBodyLength(const unsigned char (&header)[4]);

// The 4-byte header and the body, or nothing when the body is empty or longer than `limit`.
[[nodiscard]] std::optional<std::string> frame(std::string_view body, uint32_t limit);

// A request body as JSON with the keys in the order of the format: presetID, fileCount, files,
// actionKind, requestID (left out when absent).
[[nodiscard]] std::string encodeRequest(const IntakeHandoffRequest& request);
// The request in `body`, or nothing when it isn't UTF-8 JSON of that shape (a missing or
// wrongly typed key, a fileCount beyond 64 bits). The values themselves are not judged here:
// `actionKind` may be any string and `requestID` any string.
[[nodiscard]] std::optional<IntakeHandoffRequest> decodeRequest(std::string_view body);

// The response as JSON ("nonce" and "delivered", each only when present), and its reading.
[[nodiscard]] std::string encodeResponse(const IntakeHandoffResponse& response);
[[nodiscard]] std::optional<IntakeHandoffResponse> decodeResponse(std::string_view body);

// The query of a tessarin:// link for a delivery: preset and token for a conversion,
// action=transcribe and token for a transcription. Each value percent-encoded.
[[nodiscard]] std::string deliveryURL(IntakeActionKind kind, std::string_view presetID,
                                      std::string_view nonce);

// A link that hands `files` over without a token: "tessarin://convert?preset=…&file=…" (or
// "action=transcribe&file=…"); the receiver asks the user before it converts, and never
// transcribes from it.
[[nodiscard]] std::string plainIntakeURL(IntakeActionKind kind, std::string_view presetID,
                                         const std::vector<std::string>& files);

// `text` with every byte outside the unreserved set of RFC 3986 written as %XX.
[[nodiscard]] std::string percentEncode(std::string_view text);

}  // namespace tessarin::engine
