// What every fuzz target shares: stopping on a broken contract, cutting an input into pieces the
// way a pipe would deliver it, and an independent check of UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <vector>

namespace tessarin::fuzz {

// Prints `claim` and aborts when `holds` is false, so that libFuzzer keeps the input as a crash.
// A plain "no crash" would let a wrong answer pass.
void require(bool holds, std::string_view claim);

// An input read as a chunking and a payload: the first byte says how many of the next bytes
// (0 to 7) are piece sizes, each byte giving 1 to 256; the rest is the payload.
struct ChunkedInput {
    std::vector<std::size_t> pieceSizes;  // never empty: {1} when the input gave none
    std::string_view payload;
};

[[nodiscard]] ChunkedInput chunkedInput(const std::uint8_t* data, std::size_t size);

// The payload in successive pieces whose sizes cycle through `pieceSizes`; the last piece may be
// shorter. An empty payload gives no pieces.
[[nodiscard]] std::vector<std::string_view> pieces(std::string_view payload,
                                                   const std::vector<std::size_t>& pieceSizes);

// Well-formed UTF-8 as Unicode defines it (no overlong forms, surrogates or values above
// U+10FFFF), written apart from the code under test.
[[nodiscard]] bool isValidUtf8(std::string_view text);

// `text` as one JSON value, or nothing when it is not a JSON text. Stricter than nlohmann's own
// reading, which takes a NUL byte for the end of the input: JSON has no raw NUL anywhere.
[[nodiscard]] std::optional<nlohmann::json> parseStrictJson(std::string_view text);

}  // namespace tessarin::fuzz
