// Keeps the newest `capacity` bytes of a stream and remembers whether anything was dropped.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace tessarin::engine {

// Thread-safe: every member may be called from any thread; each call holds the buffer's own
// lock only for its duration. Memory never exceeds `capacity` bytes of payload.
class BoundedTailBuffer {
public:
    explicit BoundedTailBuffer(std::size_t capacity);
    BoundedTailBuffer(const BoundedTailBuffer&) = delete;
    BoundedTailBuffer& operator=(const BoundedTailBuffer&) = delete;

    // Adds at the end; when the total exceeds capacity, the oldest bytes go and `truncated`
    // becomes true.
    void append(std::string_view bytes);

    // The last `lines` lines as UTF-8 (invalid sequences repaired): split on line breaks
    // keeping empty lines, joined with "\n", white space trimmed at both ends, and
    // "…[truncated]\n" in front when bytes were dropped.
    [[nodiscard]] std::string tail(std::size_t lines) const;

    // A copy of the kept bytes, oldest first.
    [[nodiscard]] std::string data() const;
    [[nodiscard]] bool truncated() const;
    [[nodiscard]] std::size_t capacity() const { return capacity_; }

private:
    [[nodiscard]] std::string dataLocked() const;

    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::string storage_;    // grows to capacity_, then used as a ring
    std::size_t start_ = 0;  // index of the oldest byte once the ring is full
    bool truncated_ = false;
};

}  // namespace tessarin::engine
