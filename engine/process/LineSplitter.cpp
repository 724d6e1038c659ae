#include "engine/process/LineSplitter.hpp"

#include <cstdint>

namespace tessarin::engine {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// Length of the well-formed sequence starting at `bytes[i]`, or 0 with `invalidLength` set to
// the maximal subpart to replace (at least 1), following the Unicode recommendation for
// substituting U+FFFD.
std::size_t validSequenceLength(std::string_view bytes, std::size_t i, std::size_t& invalidLength) {
    const auto byteAt = [&](std::size_t k) { return static_cast<std::uint8_t>(bytes[k]); };
    const std::uint8_t lead = byteAt(i);
    invalidLength = 1;
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    std::uint8_t low = 0x80;
    std::uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) {
            low = 0xA0;
        } else if (lead == 0xED) {
            high = 0x9F;  // no surrogates
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) {
            low = 0x90;
        } else if (lead == 0xF4) {
            high = 0x8F;
        }
    } else {
        return 0;
    }
    for (std::size_t k = 1; k < length; ++k) {
        if (i + k >= bytes.size()) {
            invalidLength = k;
            return 0;
        }
        const std::uint8_t b = byteAt(i + k);
        const std::uint8_t lo = k == 1 ? low : 0x80;
        const std::uint8_t hi = k == 1 ? high : 0xBF;
        if (b < lo || b > hi) {
            invalidLength = k;
            return 0;
        }
    }
    return length;
}

}  // namespace

std::string repairUtf8(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    std::size_t i = 0;
    std::size_t runStart = 0;
    while (i < bytes.size()) {
        // ASCII fast path: most tool output is plain ASCII.
        if (static_cast<std::uint8_t>(bytes[i]) < 0x80) {
            ++i;
            continue;
        }
        std::size_t invalidLength = 0;
        const std::size_t length = validSequenceLength(bytes, i, invalidLength);
        if (length > 0) {
            i += length;
            continue;
        }
        out.append(bytes.substr(runStart, i - runStart));
        out.append(kReplacement);
        i += invalidLength;
        runStart = i;
    }
    out.append(bytes.substr(runStart));
    return out;
}

LineSplitter::LineSplitter(std::size_t maximumLineBytes) : maximumLineBytes_(maximumLineBytes) {}

std::vector<std::string> LineSplitter::feed(std::string_view bytes) {
    std::vector<std::string> lines;
    std::lock_guard lock(mutex_);
    std::size_t position = 0;
    for (std::size_t newline = bytes.find('\n', position); newline != std::string_view::npos;
         newline = bytes.find('\n', position)) {
        const std::string_view piece = bytes.substr(position, newline - position);
        if (!discarding_ && pending_.size() + piece.size() <= maximumLineBytes_) {
            if (pending_.empty()) {
                lines.push_back(repairUtf8(piece));
            } else {
                pending_.append(piece);
                lines.push_back(repairUtf8(pending_));
            }
        }
        pending_.clear();
        discarding_ = false;
        position = newline + 1;
    }
    if (discarding_) {
        return lines;
    }
    const std::string_view rest = bytes.substr(position);
    if (pending_.size() + rest.size() <= maximumLineBytes_) {
        pending_.append(rest);
    } else {
        pending_.clear();
        pending_.shrink_to_fit();
        discarding_ = true;
    }
    return lines;
}

std::optional<std::string> LineSplitter::flush() {
    std::lock_guard lock(mutex_);
    std::optional<std::string> rest;
    if (!discarding_ && !pending_.empty()) {
        rest = repairUtf8(pending_);
    }
    pending_.clear();
    discarding_ = false;
    return rest;
}

}  // namespace tessarin::engine
