#include "engine/transcription/RequestBody.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "engine/clips/Uuid.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionError.hpp"

namespace tessarin::engine {

namespace {

void checkCancelled(const TranscriptionControl* control) {
    if (control != nullptr && control->isCancelled()) {
        throw TranscriptionError(TranscriptionError::Code::cancelled);
    }
}

// Printable ASCII without the quote and the backslash: such text is its own escaped form, which
// spares base64 a round through the writer. Eight bytes are tested at once (a byte below 0x20,
// with the high bit set, or equal to 0x7f, '"' or '\\'), as this runs over every byte of a
// hundred-megabyte upload.
bool needsNoEscaping(std::string_view text) {
    constexpr uint64_t kOnes = 0x0101010101010101ULL;
    constexpr uint64_t kHighs = 0x8080808080808080ULL;
    const auto hasZeroByte = [](uint64_t v) { return ((v - kOnes) & ~v & kHighs) != 0; };
    std::size_t index = 0;
    for (; index + 8 <= text.size(); index += 8) {
        uint64_t word = 0;
        std::memcpy(&word, text.data() + index, 8);
        // With no high bit set, every byte is below 0x80, which the below-0x20 test needs.
        if ((word & kHighs) != 0 || ((word - kOnes * 0x20) & ~word & kHighs) != 0 ||
            hasZeroByte(word ^ (kOnes * 0x7f)) || hasZeroByte(word ^ (kOnes * '"')) ||
            hasZeroByte(word ^ (kOnes * '\\'))) {
            return false;
        }
    }
    for (; index < text.size(); ++index) {
        const char c = text[index];
        if (c < 0x20 || c >= 0x7f || c == '"' || c == '\\') {
            return false;
        }
    }
    return true;
}

}  // namespace

std::string BodyTemplate::placeholder(JSONString value) {
    std::string id = Uuid::random().text();
    strings.emplace_back(id, std::move(value));
    return id;
}

std::string escapedJSONText(std::string_view text) {
    if (needsNoEscaping(text)) {
        return std::string(text);
    }
    try {
        // The writer's own escaping: a one-element list, without `["` and `"]`.
        const std::string list = nlohmann::json::array({std::string(text)}).dump();
        return list.substr(2, list.size() - 4);
    } catch (const nlohmann::json::exception&) {
        throw TranscriptionError(TranscriptionError::Code::badResponse);
    }
}

std::size_t sliceEnd(std::string_view text, std::size_t offset) {
    std::size_t end = std::min(text.size(), offset + RequestBody::kSliceBytes);
    const std::size_t limit = end;
    // Back over continuation bytes to the start of the sequence that would be cut (at most three).
    while (end < text.size() && end > offset && limit - end < 4 &&
           (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    if (end == offset || limit - end >= 4) {
        end = limit;  // not UTF-8 here anyway; the escaping refuses it
    }
    return end;
}

RequestBody::RequestBody(std::string bytes) : size_(bytes.size()) {
    segments_.emplace_back(std::move(bytes));
}

RequestBody RequestBody::splice(const BodyTemplate& body, const TranscriptionControl* control) {
    std::string text;
    try {
        text = body.document.dump();  // objects keep their keys sorted
    } catch (const nlohmann::json::exception&) {
        throw TranscriptionError(TranscriptionError::Code::badResponse);
    }
    struct Range {
        std::size_t start;
        std::size_t length;
        const JSONString* value;
    };
    std::vector<Range> ranges;
    for (const auto& [id, value] : body.strings) {
        const std::string quoted = '"' + id + '"';
        const std::size_t found = text.find(quoted);
        if (found == std::string::npos || text.find(quoted, found + 1) != std::string::npos ||
            (value.parts == nullptr) == (value.file == nullptr)) {
            throw TranscriptionError(TranscriptionError::Code::badResponse);
        }
        ranges.push_back(Range{found, quoted.size(), &value});
    }
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& a, const Range& b) { return a.start < b.start; });

    RequestBody out;
    std::size_t copied = 0;
    for (const Range& range : ranges) {
        checkCancelled(control);
        std::string literal =
            text.substr(copied, range.start - copied) + '"' + escapedJSONText(range.value->prefix);
        out.size_ += literal.size();
        out.segments_.emplace_back(std::move(literal));
        Spliced spliced{*range.value, {}};
        if (range.value->file != nullptr) {
            checkCancelled(control);
            out.size_ += range.value->file->encodedSize();  // base64 needs no escaping
        }
        static const std::vector<std::string> kNoParts;
        for (const std::string& part : range.value->parts ? *range.value->parts : kNoParts) {
            for (std::size_t offset = 0; offset < part.size();) {
                checkCancelled(control);
                const std::size_t end = sliceEnd(part, offset);
                const std::string_view slice = std::string_view(part).substr(offset, end - offset);
                const bool escapes = !needsNoEscaping(slice);
                out.size_ += escapes ? escapedJSONText(slice).size() : slice.size();
                spliced.escapes.push_back(escapes);
                offset = end;
            }
        }
        out.segments_.emplace_back(std::move(spliced));
        copied = range.start + range.length - 1;  // the placeholder's closing quote stays
    }
    out.size_ += text.size() - copied;
    out.segments_.emplace_back(text.substr(copied));
    return out;
}

std::string RequestBody::bytes() const {
    std::string out;
    out.reserve(static_cast<std::size_t>(size_));
    Reader all = reader(nullptr);
    char buffer[65'536];
    while (const std::size_t count = all.read(buffer, sizeof buffer)) {
        out.append(buffer, count);
    }
    return out;
}

bool RequestBody::Reader::fill() {
    while (segment_ < body_->segments_.size()) {
        const Segment& segment = body_->segments_[segment_];
        if (const auto* literal = std::get_if<std::string>(&segment)) {
            if (offset_ < literal->size()) {
                pending_ = std::string_view(*literal).substr(offset_);
                offset_ = literal->size();
                return true;
            }
        } else {
            const Spliced& spliced = std::get<Spliced>(segment);
            const JSONString& value = spliced.value;
            if (value.file != nullptr && part_ < value.file->sliceCount()) {
                if (control_ != nullptr && control_->isCancelled()) {
                    throw TranscriptionError(TranscriptionError::Code::cancelled);
                }
                value.file->slice(part_++, escaped_);
                pending_ = escaped_;
                return true;
            }
            static const std::vector<std::string> kNoParts;
            const std::vector<std::string>& parts = value.parts ? *value.parts : kNoParts;
            while (part_ < parts.size()) {
                const std::string& part = parts[part_];
                if (offset_ < part.size()) {
                    if (control_ != nullptr && control_->isCancelled()) {
                        throw TranscriptionError(TranscriptionError::Code::cancelled);
                    }
                    const std::size_t end = sliceEnd(part, offset_);
                    const std::string_view slice = std::string_view(part).substr(offset_, end - offset_);
                    if (spliced.escapes[slice_++]) {
                        escaped_ = escapedJSONText(slice);
                        pending_ = escaped_;
                    } else {
                        pending_ = slice;
                    }
                    offset_ = end;
                    return true;
                }
                ++part_;
                offset_ = 0;
            }
        }
        ++segment_;
        part_ = 0;
        slice_ = 0;
        offset_ = 0;
    }
    return false;
}

std::size_t RequestBody::Reader::read(char* buffer, std::size_t capacity) {
    std::size_t written = 0;
    while (written < capacity) {
        if (pending_.empty() && !fill()) {
            break;
        }
        const std::size_t count = std::min(capacity - written, pending_.size());
        std::memcpy(buffer + written, pending_.data(), count);
        pending_.remove_prefix(count);
        written += count;
    }
    return written;
}

}  // namespace tessarin::engine
