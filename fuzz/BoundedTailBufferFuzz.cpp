// A child's output kept in a bounded ring: whatever is appended, in whatever pieces, the buffer
// holds exactly the newest `capacity` bytes of a plain model, never more, says truncated exactly
// when bytes were dropped, and its tail is the model's last lines.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/process/BoundedTailBuffer.hpp"
#include "engine/process/LineSplitter.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::BoundedTailBuffer;
using tessarin::fuzz::require;

bool isWhiteSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// The last `count` lines of `kept` as the contract words it: repaired, split at "\r\n", "\r" and
// "\n" keeping empty lines, joined with "\n", trimmed, marked when something was dropped.
std::string modelTail(std::string_view kept, bool truncated, std::size_t count) {
    const std::string text = tessarin::engine::repairUtf8(kept);
    std::vector<std::string> lines(1);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' || text[i] == '\n') {
            if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
                ++i;
            }
            lines.emplace_back();
        } else {
            lines.back().push_back(text[i]);
        }
    }
    std::string joined;
    const std::size_t first = lines.size() - std::min(count, lines.size());
    for (std::size_t i = first; i < lines.size(); ++i) {
        if (i > first) {
            joined.push_back('\n');
        }
        joined += lines[i];
    }
    const auto begin = std::find_if_not(joined.begin(), joined.end(), isWhiteSpace);
    const auto end = std::find_if_not(joined.rbegin(), joined.rend(), isWhiteSpace).base();
    const std::string trimmed = begin < end ? std::string(begin, end) : std::string();
    return truncated ? "\xE2\x80\xA6[truncated]\n" + trimmed : trimmed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    // The first byte picks the capacity (0 to 255) and the second how many tail lines to ask for.
    const std::size_t capacity = data[0];
    const std::size_t lines = data[1] % 16;
    const tessarin::fuzz::ChunkedInput input = tessarin::fuzz::chunkedInput(data + 2, size - 2);

    BoundedTailBuffer buffer(capacity);
    std::string all;
    for (const std::string_view piece : tessarin::fuzz::pieces(input.payload, input.pieceSizes)) {
        buffer.append(piece);
        all += piece;
        const std::string kept = buffer.data();
        require(kept.size() <= capacity, "the buffer never holds more than its capacity");
        require(kept == std::string_view(all).substr(all.size() - std::min(all.size(), capacity)),
                "the buffer holds the newest bytes, oldest first");
        require(buffer.truncated() == (all.size() > capacity),
                "truncated exactly when bytes were dropped");
    }
    const std::string tail = buffer.tail(lines);
    require(tessarin::fuzz::isValidUtf8(tail), "the tail is UTF-8");
    require(tail == modelTail(buffer.data(), buffer.truncated(), lines),
            "the tail is the model's last lines");
    return 0;
}
