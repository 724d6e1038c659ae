// What a transcript is made of: its formats, the timed words and segments a service returns, and
// what remains of a finished run. Plain values.
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace tessarin::engine {

enum class TranscriptFormat { text, srt, vtt };

// "txt", "srt", "vtt".
[[nodiscard]] std::string_view fileExtension(TranscriptFormat format);
// "text", "srt", "vtt": the stored name of the format.
[[nodiscard]] std::string_view rawValue(TranscriptFormat format);
[[nodiscard]] std::optional<TranscriptFormat> transcriptFormat(std::string_view rawValue);

// One word with its times in seconds. Wire keys `word`, `start`, `end`, `speaker`; `part` is set
// by the program (the chunk number from 1 when a run has several), never read from the wire.
struct TranscriptWord {
    std::string word;
    double start = 0;
    double end = 0;
    std::optional<int> speaker = std::nullopt;
    std::optional<int> part = std::nullopt;

    bool operator==(const TranscriptWord&) const = default;
};

// One timed stretch of text. JSON keys `start`, `end`, `text`, `speaker`, `part`.
struct TranscriptSegment {
    double start = 0;
    double end = 0;
    std::string text;
    std::optional<int> speaker = std::nullopt;
    std::optional<int> part = std::nullopt;

    bool operator==(const TranscriptSegment&) const = default;
};

// A word list from JSON: an array of objects with a string `word`, numbers `start` and `end` and
// an optional integer `speaker`; elements that are not such objects are left out. Not an array:
// nothing.
[[nodiscard]] std::optional<std::vector<TranscriptWord>> decodeWords(const nlohmann::json& value);

// What remains of a finished run: enough to render it again in another format.
struct TranscriptExport {
    std::string text;
    std::vector<TranscriptSegment> segments;
    bool speakerLabels = false;
};

// Segments whose times can't make cues (not finite, negative, or not increasing in whole
// milliseconds), or a speaker or part number that can't be shown.
class TranscriptFormattingError : public std::exception {
public:
    enum class Code { invalidTiming };
    [[nodiscard]] Code code() const noexcept { return Code::invalidTiming; }
    [[nodiscard]] const char* what() const noexcept override { return "invalidTiming"; }
};

}  // namespace tessarin::engine
