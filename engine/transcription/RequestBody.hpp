// A request body whose long JSON strings (base64 media, often a hundred megabytes) are spliced in
// by pieces rather than passed through the JSON writer in one piece, and read out by pieces too:
// the whole body never stands in memory as one buffer. Only the strings' parts are held, shared
// with whoever made them.
//
//   JSONString audio{std::make_shared<const std::vector<std::string>>(base64Parts)};
//   BodyTemplate body;
//   body.document = {{"model", id}, {"input_audio", {{"data", body.placeholder(audio)}}}};
//   RequestBody bytes = RequestBody::splice(body, control);   // throws badResponse, cancelled
//   RequestBody::Reader reader = bytes.reader(control);       // hand out with reader.read(...)
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "engine/transcription/Base64Parts.hpp"

namespace tessarin::engine {

class TranscriptionControl;

// A very long JSON string: `prefix` followed by the concatenation of `parts`, in order, or,
// when `file` is set instead, by that file's base64, made only while the body is read. The
// prefix ("data:video/mp4;base64,") spares copying shared parts to put a few bytes before them.
struct JSONString {
    std::shared_ptr<const std::vector<std::string>> parts = nullptr;
    std::string prefix = {};
    std::shared_ptr<const Base64FileSource> file = nullptr;
};

// A JSON document in which each JSONString is stood for by a fresh UUID text (placeholder()).
struct BodyTemplate {
    nlohmann::json document;
    std::vector<std::pair<std::string, JSONString>> strings;

    // Remembers `value` and returns the placeholder to put where its string belongs.
    [[nodiscard]] std::string placeholder(JSONString value);
};

class RequestBody {
public:
    // Escaped pieces hold at most this many bytes of a part's text before escaping: a multiple of
    // three, so that base64 parts slice on whole groups, and small enough to stay cheap.
    static constexpr std::size_t kSliceBytes = 49'152;

    RequestBody() = default;
    // A body of these bytes as they stand.
    explicit RequestBody(std::string bytes);

    // Serialises `body.document` with sorted keys, finds each placeholder with its quotes exactly
    // once, and arranges for the parts to be escaped in its place, slice by slice. Throws
    // TranscriptionError badResponse when a placeholder isn't found exactly once or the document
    // can't be written (text that isn't UTF-8), cancelled when `control` is cancelled before a
    // range or a slice. Every slice is escaped once here to learn the body's length.
    [[nodiscard]] static RequestBody splice(const BodyTemplate& body,
                                            const TranscriptionControl* control);

    // The body's length in bytes.
    [[nodiscard]] uint64_t size() const { return size_; }
    // The whole body in one string: for small bodies and tests only.
    [[nodiscard]] std::string bytes() const;

    // Hands the body out in order; one reader per transfer. Not thread-safe; the body must
    // outlive it.
    class Reader {
    public:
        // Copies up to `capacity` bytes into `buffer`; 0 at the end. Throws TranscriptionError
        // cancelled when `control` is cancelled before a slice.
        std::size_t read(char* buffer, std::size_t capacity);

    private:
        friend class RequestBody;
        Reader(const RequestBody& body, const TranscriptionControl* control)
            : body_(&body), control_(control) {}
        bool fill();

        const RequestBody* body_;
        const TranscriptionControl* control_;
        std::size_t segment_ = 0;
        std::size_t part_ = 0;
        std::size_t slice_ = 0;   // slices handed out of the current segment
        std::size_t offset_ = 0;  // in the current part's text, or in the current literal
        // What is not yet handed out: a view into the body itself (literals, and slices that need
        // no escaping, such as base64) or into `escaped_`.
        std::string_view pending_;
        std::string escaped_;
    };
    [[nodiscard]] Reader reader(const TranscriptionControl* control) const {
        return Reader(*this, control);
    }

private:
    // A long string in the body, with what the splice learned of each of its slices, in order:
    // whether it needs escaping, so that reading never scans the text again.
    struct Spliced {
        JSONString value;
        std::vector<bool> escapes;
    };
    using Segment = std::variant<std::string, Spliced>;
    std::vector<Segment> segments_;
    uint64_t size_ = 0;
};

// `text` as the inside of a JSON string (no quotes), exactly as the JSON writer escapes it.
// Throws TranscriptionError badResponse when `text` isn't UTF-8.
[[nodiscard]] std::string escapedJSONText(std::string_view text);

// The end of the slice of `text` that starts at `offset`: at most kSliceBytes further, moved back
// so that no UTF-8 sequence is cut.
[[nodiscard]] std::size_t sliceEnd(std::string_view text, std::size_t offset);

}  // namespace tessarin::engine
