#include "engine/encoders/FileDigest.hpp"

#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace tessarin::engine {

std::string sha256Hex(int fd) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                          &EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is unavailable");
    }
    std::array<unsigned char, 65'536> chunk{};
    for (;;) {
        const ssize_t count = ::read(fd, chunk.data(), chunk.size());
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw std::system_error(errno, std::generic_category(), "read");
        }
        if (count == 0) {
            break;
        }
        if (EVP_DigestUpdate(context.get(), chunk.data(), static_cast<std::size_t>(count)) != 1) {
            throw std::runtime_error("SHA-256 update failed");
        }
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1) {
        throw std::runtime_error("SHA-256 final failed");
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (unsigned int index = 0; index < length; ++index) {
        text.push_back(kHex[digest[index] >> 4]);
        text.push_back(kHex[digest[index] & 0x0f]);
    }
    return text;
}

}  // namespace tessarin::engine
