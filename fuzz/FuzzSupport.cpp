#include "fuzz/FuzzSupport.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace tessarin::fuzz {

void require(bool holds, std::string_view claim) {
    if (!holds) {
        std::fprintf(stderr, "contract broken: %.*s\n", static_cast<int>(claim.size()),
                     claim.data());
        std::abort();
    }
}

ChunkedInput chunkedInput(const std::uint8_t* data, std::size_t size) {
    ChunkedInput input;
    std::size_t used = 0;
    if (size > 0) {
        const std::size_t count = std::min<std::size_t>(data[0] % 8, size - 1);
        for (std::size_t i = 1; i <= count; ++i) {
            input.pieceSizes.push_back(std::size_t{data[i]} + 1);
        }
        used = 1 + count;
    }
    if (input.pieceSizes.empty()) {
        input.pieceSizes.push_back(1);
    }
    input.payload = std::string_view(reinterpret_cast<const char*>(data) + used, size - used);
    return input;
}

std::vector<std::string_view> pieces(std::string_view payload,
                                     const std::vector<std::size_t>& pieceSizes) {
    std::vector<std::string_view> result;
    for (std::size_t at = 0, turn = 0; at < payload.size(); ++turn) {
        const std::size_t length = pieceSizes[turn % pieceSizes.size()];
        result.push_back(payload.substr(at, length));
        at += length;
    }
    return result;
}

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
        const unsigned char lead = byte(i);
        std::size_t length = 0;
        char32_t scalar = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        }
        if ((lead & 0xE0) == 0xC0) {
            length = 2;
            scalar = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3;
            scalar = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4;
            scalar = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if ((byte(i + k) & 0xC0) != 0x80) {
                return false;
            }
            scalar = (scalar << 6) | (byte(i + k) & 0x3F);
        }
        constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (scalar < kSmallest[length] || scalar > 0x10FFFF ||
            (scalar >= 0xD800 && scalar <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

std::optional<nlohmann::json> parseStrictJson(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    nlohmann::json value = nlohmann::json::parse(text, nullptr, false);
    if (value.is_discarded()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace tessarin::fuzz
