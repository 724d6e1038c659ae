#include "engine/process/BoundedTailBuffer.hpp"

#include <algorithm>
#include <vector>

#include "engine/process/LineSplitter.hpp"

namespace tessarin::engine {

namespace {

constexpr std::string_view kTruncatedMarker = "\xE2\x80\xA6[truncated]\n";

bool isWhiteSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace

BoundedTailBuffer::BoundedTailBuffer(std::size_t capacity) : capacity_(capacity) {}

void BoundedTailBuffer::append(std::string_view bytes) {
    if (bytes.empty()) {
        return;
    }
    std::lock_guard lock(mutex_);
    if (storage_.size() < capacity_) {
        const std::size_t room = capacity_ - storage_.size();
        const std::size_t taken = std::min(room, bytes.size());
        storage_.append(bytes.substr(0, taken));
        bytes.remove_prefix(taken);
        if (bytes.empty()) {
            return;
        }
    }
    truncated_ = true;
    if (capacity_ == 0) {
        return;
    }
    if (bytes.size() >= capacity_) {
        storage_.assign(bytes.substr(bytes.size() - capacity_));
        start_ = 0;
        return;
    }
    // The ring is full: overwrite the oldest bytes, wrapping at the end of the storage.
    const std::size_t first = std::min(bytes.size(), capacity_ - start_);
    std::copy_n(bytes.data(), first, storage_.begin() + static_cast<std::ptrdiff_t>(start_));
    std::copy_n(bytes.data() + first, bytes.size() - first, storage_.begin());
    start_ = (start_ + bytes.size()) % capacity_;
}

std::string BoundedTailBuffer::dataLocked() const {
    if (start_ == 0) {
        return storage_;
    }
    std::string ordered;
    ordered.reserve(storage_.size());
    ordered.append(storage_, start_, std::string::npos);
    ordered.append(storage_, 0, start_);
    return ordered;
}

std::string BoundedTailBuffer::data() const {
    std::lock_guard lock(mutex_);
    return dataLocked();
}

bool BoundedTailBuffer::truncated() const {
    std::lock_guard lock(mutex_);
    return truncated_;
}

std::string BoundedTailBuffer::tail(std::size_t lines) const {
    std::string bytes;
    bool wasTruncated = false;
    {
        std::lock_guard lock(mutex_);
        bytes = dataLocked();
        wasTruncated = truncated_;
    }
    const std::string text = repairUtf8(bytes);

    // Line breaks are "\n", "\r\n" and a lone "\r" (ffmpeg redraws its status line with "\r").
    // Walk backwards collecting at most `lines` lines; empty lines count.
    std::size_t begin = text.size();
    std::size_t taken = 0;
    while (taken < lines) {
        std::size_t breakEnd = begin;
        while (breakEnd > 0 && text[breakEnd - 1] != '\n' && text[breakEnd - 1] != '\r') {
            --breakEnd;
        }
        ++taken;
        if (breakEnd == 0) {
            begin = 0;
            break;
        }
        if (taken == lines) {
            begin = breakEnd;
            break;
        }
        // Step over the break itself, treating "\r\n" as one.
        std::size_t next = breakEnd - 1;
        if (text[next] == '\n' && next > 0 && text[next - 1] == '\r') {
            --next;
        }
        begin = next;
    }

    std::size_t first = begin;
    std::size_t last = text.size();
    while (first < last && isWhiteSpace(text[first])) {
        ++first;
    }
    while (last > first && isWhiteSpace(text[last - 1])) {
        --last;
    }
    std::string result;
    std::string_view kept(text.data() + first, last - first);
    if (wasTruncated) {
        result.reserve(kTruncatedMarker.size() + kept.size());
        result.append(kTruncatedMarker);
    }
    // The lines are joined with "\n": a "\r\n" or lone "\r" between kept lines becomes "\n".
    for (std::size_t i = 0; i < kept.size(); ++i) {
        if (kept[i] == '\r') {
            if (i + 1 < kept.size() && kept[i + 1] == '\n') {
                ++i;
            }
            result.push_back('\n');
        } else {
            result.push_back(kept[i]);
        }
    }
    return result;
}

}  // namespace tessarin::engine
