#include "engine/intake/IntakeTokenStore.hpp"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cmath>

#include "engine/clips/Uuid.hpp"

namespace tessarin::engine {

namespace {

constexpr std::string_view kBase64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::optional<IntakeTokenStore::Key> drawKey() {
    IntakeTokenStore::Key key{};
    if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1) {
        return std::nullopt;
    }
    return key;
}

std::optional<std::array<unsigned char, 32>> hmac(const IntakeTokenStore::Key& key,
                                                  std::string_view message) {
    std::array<unsigned char, 32> code{};
    unsigned int length = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(message.data()), message.size(), code.data(),
             &length) == nullptr ||
        length != code.size()) {
        return std::nullopt;
    }
    return code;
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        uint32_t group = 0;
        for (std::size_t j = 0; j < 3; ++j) {
            group = (group << 8) | (j < n ? static_cast<unsigned char>(bytes[i + j]) : 0U);
        }
        for (std::size_t j = 0; j < 4; ++j) {
            out.push_back(j <= n ? kBase64Alphabet[(group >> (18 - 6 * j)) & 0x3F] : '=');
        }
    }
    return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string out;
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        uint32_t group = 0;
        int padding = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            const char c = text[i + j];
            uint32_t value = 0;
            if (c == '=') {
                // Padding only at the end of the last group, at most two.
                if (!last || j < 2) {
                    return std::nullopt;
                }
                ++padding;
            } else {
                if (padding > 0) {
                    return std::nullopt;
                }
                const std::size_t at = kBase64Alphabet.find(c);
                if (at == std::string_view::npos) {
                    return std::nullopt;
                }
                value = static_cast<uint32_t>(at);
            }
            group = (group << 6) | value;
        }
        // Bits under the padding must be zero, so each text has one reading.
        if ((padding == 1 && (group & 0xFF) != 0) || (padding == 2 && (group & 0xFFFF) != 0)) {
            return std::nullopt;
        }
        for (int j = 0; j < 3 - padding; ++j) {
            out.push_back(static_cast<char>((group >> (16 - 8 * j)) & 0xFF));
        }
    }
    return out;
}

IntakeTokenStore& IntakeTokenStore::process() {
    static IntakeTokenStore store(drawKey());
    return store;
}

double IntakeTokenStore::systemNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

IntakeTokenStore::IntakeTokenStore(std::optional<Key> key, Clock clock,
                                   std::chrono::milliseconds purgeDelay)
    : key_(key), clock_(std::move(clock)), purgeDelay_(purgeDelay) {}

IntakeTokenStore::~IntakeTokenStore() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (purger_.joinable()) {
        purger_.join();
    }
}

std::optional<std::string> IntakeTokenStore::mint(std::string presetID, IntakeActionKind kind,
                                                  int64_t fileCount,
                                                  std::vector<std::string> files) {
    if (!key_ || fileCount < 1 || fileCount > kIntakeMaximumFileCount ||
        (!files.empty() && files.size() != static_cast<std::size_t>(fileCount))) {
        return std::nullopt;
    }
    IntakeToken token;
    token.nonce = Uuid::random().text();
    token.createdAt = clock_();
    token.presetID = std::move(presetID);
    token.fileCount = fileCount;
    token.actionKind = kind;
    token.filesFingerprint = files.empty() ? std::string() : fingerprint(files);
    token.handoffFiles = std::move(files);
    token.authenticationVersion = kIntakeTokenAuthenticationVersion;
    std::optional<std::string> signature = tag(token);
    if (!signature) {
        return std::nullopt;
    }
    token.authenticationTag = std::move(*signature);
    std::string nonce = token.nonce;
    store(std::move(token));
    return nonce;
}

void IntakeTokenStore::store(IntakeToken token) {
    {
        std::lock_guard lock(mutex_);
        std::string nonce = token.nonce;
        claims_.insert_or_assign(std::move(nonce), std::move(token));
        purgesDue_.push_back(std::chrono::steady_clock::now() + purgeDelay_);
        if (!purger_.joinable() && !stopping_) {
            purger_ = std::thread([this] { purgeLoop(); });
        }
    }
    wake_.notify_all();
}

void IntakeTokenStore::purgeLoop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (purgesDue_.empty()) {
            wake_.wait(lock);
            continue;
        }
        const auto next = *std::min_element(purgesDue_.begin(), purgesDue_.end());
        if (wake_.wait_until(lock, next) == std::cv_status::no_timeout) {
            continue;  // woken: a new purge or a stop; look again
        }
        const auto now = std::chrono::steady_clock::now();
        std::erase_if(purgesDue_, [now](auto due) { return due <= now; });
        lock.unlock();
        (void)purgeExpired(clock_());
        lock.lock();
    }
}

std::size_t IntakeTokenStore::purgeExpired(double now) {
    std::lock_guard lock(mutex_);
    return std::erase_if(claims_, [now](const auto& claim) {
        return std::fabs(now - claim.second.createdAt) > kIntakeTokenLifetimeSeconds;
    });
}

std::optional<IntakeToken> IntakeTokenStore::consume(std::string_view nonce) {
    if (!isPlausibleNonce(nonce) || !key_) {
        return std::nullopt;
    }
    std::optional<IntakeToken> token;
    {
        std::lock_guard lock(mutex_);
        const auto claim = claims_.find(std::string(nonce));
        if (claim == claims_.end()) {
            return std::nullopt;
        }
        token = std::move(claim->second);
        claims_.erase(claim);
    }
    if (token->authenticationVersion != kIntakeTokenAuthenticationVersion) {
        return std::nullopt;
    }
    const std::optional<std::string> presented = base64Decode(token->authenticationTag);
    if (!presented || presented->size() != 32) {
        return std::nullopt;
    }
    const auto expected = hmac(*key_, signingMessage(*token));
    if (!expected || CRYPTO_memcmp(expected->data(), presented->data(), expected->size()) != 0) {
        return std::nullopt;
    }
    return token;
}

std::optional<std::string> IntakeTokenStore::tag(const IntakeToken& token) const {
    if (!key_) {
        return std::nullopt;
    }
    const auto code = hmac(*key_, signingMessage(token));
    if (!code) {
        return std::nullopt;
    }
    return base64Encode(std::string_view(reinterpret_cast<const char*>(code->data()), code->size()));
}

std::size_t IntakeTokenStore::size() const {
    std::lock_guard lock(mutex_);
    return claims_.size();
}

}  // namespace tessarin::engine
