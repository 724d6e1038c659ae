// Cuts a byte stream into lines at byte 10, bounding the memory any one line can take.
#pragma once

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessarin::engine {

// Thread-safe (one lock per splitter), though a stream is normally fed from one thread.
// A line longer than `maximumLineBytes` (without its line break) is dropped whole, also when
// it arrives over many feeds; the line after it is delivered normally. Lines are returned
// without the "\n" and with invalid UTF-8 repaired; a "\r" before the "\n" is kept.
class LineSplitter {
public:
    explicit LineSplitter(std::size_t maximumLineBytes);
    LineSplitter(const LineSplitter&) = delete;
    LineSplitter& operator=(const LineSplitter&) = delete;

    // The lines completed by `bytes`, in order.
    [[nodiscard]] std::vector<std::string> feed(std::string_view bytes);

    // The unterminated rest, if any and not being discarded; resets the splitter.
    [[nodiscard]] std::optional<std::string> flush();

private:
    const std::size_t maximumLineBytes_;
    std::mutex mutex_;
    std::string pending_;
    bool discarding_ = false;
};

// Decodes UTF-8, replacing each maximal invalid subsequence with U+FFFD.
[[nodiscard]] std::string repairUtf8(std::string_view bytes);

}  // namespace tessarin::engine
