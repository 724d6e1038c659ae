#include "engine/transcription/TranscriptRendering.hpp"

#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "engine/text/UnicodeText.hpp"

namespace tessarin::engine {

namespace {

constexpr double kMaxCueSeconds = 6.0;
constexpr std::size_t kMaxCueCharacters = 85;  // a cue stays below this
constexpr std::size_t kMaxLineCharacters = 43;  // a line stays below this

// Whole milliseconds, or nothing when the value can't be a time of a cue (an hour count beyond
// any real recording included, so that the arithmetic below stays in range).
std::optional<int64_t> milliseconds(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0 || seconds > 1e12) {
        return std::nullopt;
    }
    return static_cast<int64_t>(std::llround(seconds * 1000));
}

std::string trimmedSpaces(std::string_view line) {
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = line.find_last_not_of(" \t\r");
    return std::string(line.substr(first, last - first + 1));
}

std::string trimmedText(std::string_view text) {
    return encodeUtf8(trimmed(std::u32string_view(decodeUtf8Lossy(text)), isWhitespaceOrNewline));
}

std::size_t characters(std::string_view text) {
    return characterCount(decodeUtf8Lossy(text));
}

std::string label(const TranscriptSegment& segment, const std::string& text) {
    if (!segment.speaker) {
        return text;
    }
    const int64_t shown = int64_t{*segment.speaker} + 1;
    if (segment.part) {
        return fmt::format("Part {}, Speaker {}: {}", *segment.part, shown, text);
    }
    return fmt::format("Speaker {}: {}", shown, text);
}

std::string cleanedCueText(std::string_view text, TranscriptFormat format) {
    std::string joined;
    std::size_t from = 0;
    while (from <= text.size()) {
        const auto newline = text.find('\n', from);
        const auto line =
            trimmedSpaces(text.substr(from, newline == std::string_view::npos ? text.npos
                                                                              : newline - from));
        if (!line.empty()) {
            if (!joined.empty()) {
                joined += '\n';
            }
            joined += line;
        }
        if (newline == std::string_view::npos) {
            break;
        }
        from = newline + 1;
    }
    if (format != TranscriptFormat::vtt) {
        return joined;
    }
    std::string escaped;
    escaped.reserve(joined.size());
    for (const char c : joined) {
        switch (c) {
            case '&': escaped += "&amp;"; break;
            case '<': escaped += "&lt;"; break;
            case '>': escaped += "&gt;"; break;
            default: escaped += c;
        }
    }
    return escaped;
}

std::string plainText(const std::string& text, const std::vector<TranscriptSegment>& segments,
                      bool speakers) {
    if (!speakers || segments.empty()) {
        return text;
    }
    std::string out;
    for (const TranscriptSegment& segment : segments) {
        if (!out.empty()) {
            out += "\n\n";
        }
        out += label(segment, segment.text);
    }
    return out;
}

std::string cueFile(TranscriptFormat format, const std::string& text,
                    const std::vector<TranscriptSegment>& segments, bool speakers) {
    const char separator = format == TranscriptFormat::srt ? ',' : '.';
    std::string out = format == TranscriptFormat::vtt ? "WEBVTT\n\n" : "";
    std::size_t number = 0;
    for (const TranscriptSegment& segment : segments) {
        if (trimmedText(segment.text).empty()) {
            continue;
        }
        const auto start = milliseconds(segment.start);
        const auto end = milliseconds(segment.end);
        if (!start || !end || *start >= *end || (segment.speaker && *segment.speaker < 0) ||
            (segment.part && *segment.part <= 0)) {
            throw TranscriptFormattingError();
        }
        std::string cueText = cleanedCueText(segment.text, format);
        if (speakers) {
            cueText = label(segment, cueText);
        }
        if (number > 0) {
            out += "\n\n";
        }
        ++number;
        out += fmt::format("{}\n{} --> {}\n{}", number, cueTime(segment.start, separator),
                           cueTime(segment.end, separator), cueText);
    }
    if (number == 0) {
        if (!trimmedText(text).empty()) {
            throw TranscriptFormattingError();  // text without any timing can't become cues
        }
        return out;
    }
    return out + "\n";
}

}  // namespace

std::string cueTime(double seconds, char separator) {
    const int64_t total = milliseconds(seconds).value_or(0);
    return fmt::format("{:02}:{:02}:{:02}{}{:03}", total / 3'600'000, total / 60'000 % 60,
                       total / 1000 % 60, separator, total % 1000);
}

std::string render(TranscriptFormat format, const std::string& text,
                   const std::vector<TranscriptSegment>& segments, bool speakers) {
    if (format == TranscriptFormat::text) {
        return plainText(text, segments, speakers);
    }
    return cueFile(format, text, segments, speakers);
}

std::optional<std::vector<TranscriptSegment>> cuesFromWords(
    const std::vector<TranscriptWord>& words) {
    struct Running {
        std::vector<const TranscriptWord*> words;
        std::vector<std::string> texts;
        std::size_t characters = 0;
    };
    std::vector<TranscriptSegment> cues;
    Running running;

    const auto close = [&] {
        if (running.words.empty()) {
            return;
        }
        std::string wrapped;
        std::size_t lineCharacters = 0;
        for (const std::string& text : running.texts) {
            const std::size_t length = characters(text);
            if (lineCharacters > 0 && lineCharacters + 1 + length >= kMaxLineCharacters) {
                wrapped += '\n';
                lineCharacters = 0;
            } else if (lineCharacters > 0) {
                wrapped += ' ';
                ++lineCharacters;
            }
            wrapped += text;
            lineCharacters += length;
        }
        const TranscriptWord& first = *running.words.front();
        cues.push_back(TranscriptSegment{first.start, running.words.back()->end,
                                         std::move(wrapped), first.speaker, first.part});
        running = Running{};
    };

    std::optional<int64_t> previousStart;
    std::optional<int64_t> previousEnd;
    for (const TranscriptWord& word : words) {
        std::string text = trimmedText(word.word);
        if (text.empty()) {
            continue;
        }
        const auto start = milliseconds(word.start);
        const auto end = milliseconds(word.end);
        if (!start || !end || *start >= *end || (previousStart && *start < *previousStart) ||
            (previousEnd && *end < *previousEnd)) {
            return std::nullopt;
        }
        previousStart = start;
        previousEnd = end;

        const std::size_t length = characters(text);
        if (!running.words.empty()) {
            const TranscriptWord& first = *running.words.front();
            if (word.speaker != first.speaker || word.part != first.part ||
                word.end - first.start > kMaxCueSeconds ||
                running.characters + length + 1 >= kMaxCueCharacters) {
                close();
            }
        }
        running.characters += running.words.empty() ? length : length + 1;
        running.words.push_back(&word);
        running.texts.push_back(std::move(text));
    }
    close();
    return cues;
}

}  // namespace tessarin::engine
