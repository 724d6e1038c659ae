// Mints, keeps and consumes intake tokens. One store per process (process()), whose signing key
// is 32 bytes from OpenSSL's RAND_bytes drawn at first use and kept only in memory; if the random
// source fails there is no key, and no token can be minted or verified for the life of the
// process.
//
//   auto nonce = IntakeTokenStore::process().mint("mp4-h264", IntakeActionKind::convert, 2, files);
//   ... the link carries *nonce ...
//   std::optional<IntakeToken> token = IntakeTokenStore::process().consume(nonceFromLink);
//
// Thread-safe: every member may be called from any thread. Claims are guarded by one mutex,
// held only for map work. A claim not consumed is purged 31 seconds after it was stored, by a
// thread of the store's own that sleeps until the next purge is due.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "engine/intake/IntakeToken.hpp"

namespace tessarin::engine {

class IntakeTokenStore {
public:
    using Key = std::array<uint8_t, 32>;
    using Clock = std::function<double()>;  // seconds since 1970

    // The process's store, made (and its key drawn) at the first call.
    [[nodiscard]] static IntakeTokenStore& process();
    // The wall clock, as seconds since 1970.
    [[nodiscard]] static double systemNow();

    // A store with `key`, or without one (as when the random source failed); `clock` gives the
    // time tokens are stamped with and purged by. For tests and for process().
    explicit IntakeTokenStore(std::optional<Key> key, Clock clock = &systemNow,
                              std::chrono::milliseconds purgeDelay = std::chrono::seconds(31));
    // Stops the purge thread.
    ~IntakeTokenStore();
    IntakeTokenStore(const IntakeTokenStore&) = delete;
    IntakeTokenStore& operator=(const IntakeTokenStore&) = delete;

    [[nodiscard]] bool hasKey() const { return key_.has_value(); }

    // Builds a token with a new UUID as nonce, stamped now, with the fingerprint of `files` when
    // there are any, signs and stores it; returns its nonce. Nothing without a key, when
    // `fileCount` is outside 1 to 500, or when `files` is neither empty nor `fileCount` long.
    [[nodiscard]] std::optional<std::string> mint(std::string presetID, IntakeActionKind kind,
                                                  int64_t fileCount,
                                                  std::vector<std::string> files);

    // claims[nonce] = token, and a purge due after the purge delay.
    void store(IntakeToken token);

    // Removes every claim with |now − createdAt| > 30 s; returns how many went.
    std::size_t purgeExpired(double now);

    // The verified token of `nonce`, spent by this call whatever the outcome: nothing for an
    // implausible nonce (never looked up), without a key, for an unknown nonce, a wrong version,
    // a tag that isn't base64 or doesn't authenticate the token's signing message. The token's
    // age is the caller's to check.
    [[nodiscard]] std::optional<IntakeToken> consume(std::string_view nonce);

    // The base64 HMAC-SHA-256 of the token's signing message, or nothing without a key.
    [[nodiscard]] std::optional<std::string> tag(const IntakeToken& token) const;

    // How many claims are held now.
    [[nodiscard]] std::size_t size() const;

private:
    void purgeLoop();

    const std::optional<Key> key_;
    const Clock clock_;
    const std::chrono::milliseconds purgeDelay_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::map<std::string, IntakeToken> claims_;                     // guarded by mutex_
    std::vector<std::chrono::steady_clock::time_point> purgesDue_;  // guarded by mutex_
    bool stopping_ = false;                                         // guarded by mutex_
    std::thread purger_;                                            // started by the first store
};

// Standard base64 with padding, and its strict inverse (nothing on any other text).
[[nodiscard]] std::string base64Encode(std::string_view bytes);
[[nodiscard]] std::optional<std::string> base64Decode(std::string_view text);

}  // namespace tessarin::engine
