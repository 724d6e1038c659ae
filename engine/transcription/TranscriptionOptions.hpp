// The extra transcript options (subtitle formats, speaker labels, a names list) and their check.
// Only one model takes them; everything else saves plain text.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/transcription/Transcript.hpp"

namespace tessarin::engine {

// The one model that takes the extra options, lower-cased.
inline constexpr std::string_view kMaiTranscribe2 = "microsoft/mai-transcribe-2";

// Stored under the keys `format`, `speakers`, `vocabulary`.
struct TranscriptionOptions {
    TranscriptFormat format = TranscriptFormat::text;
    bool speakers = false;
    std::string vocabulary;  // one name or term a line

    bool operator==(const TranscriptionOptions&) const = default;
};

// The vocabulary's names: lines trimmed of white space, empty ones dropped.
[[nodiscard]] std::vector<std::string> vocabularyNames(std::string_view vocabulary);

// Whether the options need the one model that takes them.
[[nodiscard]] bool needsSpecialModel(const TranscriptionOptions& options);

// The sentence that says what is wrong with the names list, or nothing when it passes: at most
// 20,500 bytes, 50 names of 100 characters each, no control characters (checked in that order).
[[nodiscard]] std::optional<std::string> vocabularyProblem(std::string_view vocabulary);

// Whether `options` may go with `modelID`: the names list passes, and options that need the
// special model come with that model.
[[nodiscard]] bool optionsAllowed(const TranscriptionOptions& options, std::string_view modelID);

// `text` in lower case (full Unicode mapping).
[[nodiscard]] std::string lowercasedText(std::string_view text);

}  // namespace tessarin::engine
