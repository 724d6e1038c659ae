#include "engine/transcription/TranscriptionOptions.hpp"

#include <algorithm>

#include "engine/text/UnicodeText.hpp"

namespace tessarin::engine {

namespace {

constexpr std::size_t kMaxVocabularyBytes = 20'500;
constexpr std::size_t kMaxNames = 50;
constexpr std::size_t kMaxNameCharacters = 100;

}  // namespace

std::string lowercasedText(std::string_view text) {
    return encodeUtf8(lowercased(decodeUtf8Lossy(text)));
}

std::vector<std::string> vocabularyNames(std::string_view vocabulary) {
    std::vector<std::string> names;
    std::size_t from = 0;
    while (from <= vocabulary.size()) {
        const auto newline = vocabulary.find('\n', from);
        const std::string_view line =
            vocabulary.substr(from, newline == std::string_view::npos ? vocabulary.npos
                                                                      : newline - from);
        const std::u32string scalars = decodeUtf8Lossy(line);
        const std::u32string_view name = trimmed(std::u32string_view(scalars), isWhitespaceOrNewline);
        if (!name.empty()) {
            names.push_back(encodeUtf8(name));
        }
        if (newline == std::string_view::npos) {
            break;
        }
        from = newline + 1;
    }
    return names;
}

bool needsSpecialModel(const TranscriptionOptions& options) {
    return options.format != TranscriptFormat::text || options.speakers ||
           !vocabularyNames(options.vocabulary).empty();
}

std::optional<std::string> vocabularyProblem(std::string_view vocabulary) {
    if (vocabulary.size() > kMaxVocabularyBytes) {
        return "The names list is too large. Remove extra text or blank lines.";
    }
    const std::vector<std::string> names = vocabularyNames(vocabulary);
    if (names.size() > kMaxNames) {
        return "Use up to 50 names or terms, one per line.";
    }
    for (const std::string& name : names) {
        if (characterCount(decodeUtf8Lossy(name)) > kMaxNameCharacters) {
            return "Keep each name or term within 100 characters.";
        }
    }
    for (const std::string& name : names) {
        const std::u32string scalars = decodeUtf8Lossy(name);
        if (std::any_of(scalars.begin(), scalars.end(), isControl)) {
            return "Remove control characters from the names list, or paste it as plain text.";
        }
    }
    return std::nullopt;
}

bool optionsAllowed(const TranscriptionOptions& options, std::string_view modelID) {
    if (needsSpecialModel(options) && lowercasedText(modelID) != kMaiTranscribe2) {
        return false;
    }
    return !vocabularyProblem(options.vocabulary);
}

}  // namespace tessarin::engine
