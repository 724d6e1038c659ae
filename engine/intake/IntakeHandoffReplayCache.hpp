// Makes handoff retries idempotent: the answer given to a request id is given again, for 15
// seconds, to the same request, and to nothing else.
//
// Thread-safe; one lock, under which the response of a new id is also made, so that two racing
// retries of one id can't mint twice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

#include "engine/clips/Uuid.hpp"
#include "engine/intake/HandoffMessages.hpp"

namespace tessarin::engine {

class IntakeHandoffReplayCache {
public:
    static constexpr std::size_t kCapacity = 128;
    static constexpr uint64_t kTTLNanoseconds = 15'000'000'000ULL;

    struct Entry {
        IntakeHandoffRequest request;
        IntakeHandoffResponse response;
        uint64_t expiresAt = 0;  // monotonic nanoseconds
    };

    struct Answer {
        IntakeHandoffResponse response;
        bool replayed = false;  // the stored answer of an earlier, equal request
    };

    // The monotonic clock in nanoseconds.
    [[nodiscard]] static uint64_t monotonicNow();

    // First drops every entry whose expiresAt is not after `now`. Then: a stored equal request
    // gets its stored response (replayed); a stored different request gets nothing (the caller
    // closes without an answer); an unknown id gets make()'s response, stored until now + 15 s,
    // unless 128 entries are live, which gets nothing. `make` runs under the cache's lock.
    [[nodiscard]] std::optional<Answer> answer(
        const Uuid& id, const IntakeHandoffRequest& request, uint64_t now,
        const std::function<IntakeHandoffResponse()>& make);

    [[nodiscard]] std::size_t size() const;

private:
    mutable std::mutex mutex_;
    std::map<Uuid, Entry> entries_;  // guarded by mutex_
};

}  // namespace tessarin::engine
