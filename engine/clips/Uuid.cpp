#include "engine/clips/Uuid.hpp"

#include <sys/random.h>

#include <cerrno>
#include <system_error>

namespace tessarin::engine {

namespace {

constexpr std::size_t kTextLength = 36;

bool isDashPlace(std::size_t i) {
    return i == 8 || i == 13 || i == 18 || i == 23;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

Uuid Uuid::random() {
    Uuid uuid;
    std::size_t filled = 0;
    while (filled < uuid.bytes.size()) {
        const ssize_t got = getrandom(uuid.bytes.data() + filled, uuid.bytes.size() - filled, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        filled += static_cast<std::size_t>(got);
    }
    uuid.bytes[6] = static_cast<uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);
    uuid.bytes[8] = static_cast<uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);
    return uuid;
}

std::optional<Uuid> Uuid::fromText(std::string_view text) {
    if (text.size() != kTextLength) {
        return std::nullopt;
    }
    Uuid uuid;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < kTextLength;) {
        if (isDashPlace(i)) {
            if (text[i] != '-') {
                return std::nullopt;
            }
            ++i;
            continue;
        }
        const int high = hexValue(text[i]);
        const int low = hexValue(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        uuid.bytes[byte++] = static_cast<uint8_t>(high * 16 + low);
        i += 2;
    }
    return uuid;
}

std::string Uuid::text() const {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(kTextLength);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text.push_back('-');
        }
        text.push_back(kDigits[bytes[i] >> 4]);
        text.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return text;
}

}  // namespace tessarin::engine
