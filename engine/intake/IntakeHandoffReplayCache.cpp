#include "engine/intake/IntakeHandoffReplayCache.hpp"

#include <time.h>

namespace tessarin::engine {

uint64_t IntakeHandoffReplayCache::monotonicNow() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000ULL + static_cast<uint64_t>(now.tv_nsec);
}

std::optional<IntakeHandoffReplayCache::Answer> IntakeHandoffReplayCache::answer(
    const Uuid& id, const IntakeHandoffRequest& request, uint64_t now,
    const std::function<IntakeHandoffResponse()>& make) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [now](const auto& entry) { return entry.second.expiresAt <= now; });
    if (const auto found = entries_.find(id); found != entries_.end()) {
        if (found->second.request == request) {
            return Answer{found->second.response, true};
        }
        return std::nullopt;
    }
    if (entries_.size() >= kCapacity) {
        return std::nullopt;
    }
    IntakeHandoffResponse response = make();
    entries_.emplace(id, Entry{request, response, now + kTTLNanoseconds});
    return Answer{std::move(response), false};
}

std::size_t IntakeHandoffReplayCache::size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

}  // namespace tessarin::engine
