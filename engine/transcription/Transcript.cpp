#include "engine/transcription/Transcript.hpp"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

namespace tessarin::engine {

std::string_view fileExtension(TranscriptFormat format) {
    switch (format) {
        case TranscriptFormat::text: return "txt";
        case TranscriptFormat::srt: return "srt";
        case TranscriptFormat::vtt: return "vtt";
    }
    return "txt";
}

std::string_view rawValue(TranscriptFormat format) {
    return format == TranscriptFormat::text ? "text" : fileExtension(format);
}

std::optional<TranscriptFormat> transcriptFormat(std::string_view raw) {
    for (const TranscriptFormat format :
         {TranscriptFormat::text, TranscriptFormat::srt, TranscriptFormat::vtt}) {
        if (raw == rawValue(format)) {
            return format;
        }
    }
    return std::nullopt;
}

std::optional<std::vector<TranscriptWord>> decodeWords(const nlohmann::json& value) {
    if (!value.is_array()) {
        return std::nullopt;
    }
    std::vector<TranscriptWord> words;
    for (const nlohmann::json& element : value) {
        if (!element.is_object()) {
            continue;
        }
        const auto word = element.find("word");
        const auto start = element.find("start");
        const auto end = element.find("end");
        if (word == element.end() || !word->is_string() || start == element.end() ||
            !start->is_number() || end == element.end() || !end->is_number()) {
            continue;
        }
        TranscriptWord decoded{word->get<std::string>(), start->get<double>(), end->get<double>(),
                               std::nullopt, std::nullopt};
        if (const auto speaker = element.find("speaker");
            speaker != element.end() && speaker->is_number_integer()) {
            const auto number = speaker->get<int64_t>();
            if (number >= std::numeric_limits<int>::min() &&
                number <= std::numeric_limits<int>::max()) {
                decoded.speaker = static_cast<int>(number);
            }
        }
        words.push_back(std::move(decoded));
    }
    return words;
}

}  // namespace tessarin::engine
