// Arbitrary service answers as the timed words of consecutive overlapping chunks, merged and
// rendered as the pipeline does: merging only ever appends (what was merged stays as it was, and
// what is appended is the end of the new chunk's words, shifted by its start); cues made of the
// words keep every word in order, are never empty and never go back in time; the SRT and WebVTT
// files of those cues say the same, cue by cue.
//
// The payload is a JSON array of answer bodies (strings), one per chunk; anything else is one body.

#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "engine/transcription/OpenRouterWire.hpp"
#include "engine/transcription/TranscriptMerge.hpp"
#include "engine/transcription/TranscriptRendering.hpp"
#include "engine/transcription/TranscriptionError.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

namespace engine = tessarin::engine;
using nlohmann::json;
using tessarin::fuzz::require;

constexpr double kChunk = 30.0;
constexpr double kOverlap = 2.0;

std::vector<std::string> tokens(std::string_view text) {
    std::vector<std::string> out;
    std::string current;
    for (const char c : text) {
        if (c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == '\f' || c == '\v') {
            if (!current.empty()) {
                out.push_back(std::move(current));
                current.clear();
            }
        } else {
            current += c;
        }
    }
    if (!current.empty()) {
        out.push_back(std::move(current));
    }
    return out;
}

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

long long timeValue(std::string_view text) {
    // "HH:MM:SS,mmm" (at least two hour digits)
    const std::size_t colon = text.find(':');
    require(colon != std::string_view::npos && text.size() >= colon + 10, "a cue time is well formed");
    const long long hours = std::stoll(std::string(text.substr(0, colon)));
    const long long minutes = std::stoll(std::string(text.substr(colon + 1, 2)));
    const long long seconds = std::stoll(std::string(text.substr(colon + 4, 2)));
    const long long millis = std::stoll(std::string(text.substr(colon + 7, 3)));
    require(minutes < 60 && seconds < 60, "minutes and seconds stay below 60");
    return ((hours * 60 + minutes) * 60 + seconds) * 1000 + millis;
}

// Checks a cue file against the cues it was made of.
void checkCueFile(const std::string& file, const std::vector<engine::TranscriptSegment>& cues,
                  bool vtt, const std::vector<std::string>& expectedTokens) {
    std::string body = file;
    if (vtt) {
        require(body.rfind("WEBVTT\n\n", 0) == 0, "a WebVTT file starts with its header");
        body.erase(0, 8);
    }
    if (cues.empty()) {
        require(body.empty(), "no cues give no cue text");
        return;
    }
    require(!body.empty() && body.back() == '\n', "a cue file ends with one newline");
    body.pop_back();
    std::vector<std::string> blocks;
    for (std::size_t start = 0;;) {
        const std::size_t end = body.find("\n\n", start);
        blocks.push_back(body.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) {
            break;
        }
        start = end + 2;
    }
    require(blocks.size() == cues.size(), "one block per cue");
    long long previousStart = -1;
    long long previousEnd = -1;
    std::vector<std::string> seen;
    for (std::size_t index = 0; index < blocks.size(); ++index) {
        const std::string& block = blocks[index];
        const std::size_t first = block.find('\n');
        require(first != std::string::npos, "a cue has a time line");
        require(block.substr(0, first) == std::to_string(index + 1), "cues are numbered from 1");
        const std::size_t second = block.find('\n', first + 1);
        require(second != std::string::npos, "a cue has text");
        const std::string timing = block.substr(first + 1, second - first - 1);
        const std::size_t arrow = timing.find(" --> ");
        require(arrow != std::string::npos, "a time line has an arrow");
        const long long start = timeValue(timing.substr(0, arrow));
        const long long end = timeValue(timing.substr(arrow + 5));
        require(timing[arrow - 4] == (vtt ? '.' : ','), "the millisecond separator fits the format");
        require(start < end, "a cue ends after it starts");
        require(start >= previousStart && end >= previousEnd, "cue times never go back");
        previousStart = start;
        previousEnd = end;
        std::string text = block.substr(second + 1);
        require(!tokens(text).empty(), "no cue is empty");
        if (vtt) {
            require(text.find('<') == std::string::npos && text.find('>') == std::string::npos,
                    "WebVTT cue text has no markup characters");
            replaceAll(text, "&gt;", ">");
            replaceAll(text, "&lt;", "<");
            replaceAll(text, "&amp;", "&");
        }
        for (std::string& token : tokens(text)) {
            seen.push_back(std::move(token));
        }
    }
    require(seen == expectedTokens, "the cue files keep every word in order");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view payload(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> bodies;
    const std::optional<json> document = tessarin::fuzz::parseStrictJson(payload);
    if (document && document->is_array() && document->size() <= 8) {
        for (const json& element : *document) {
            if (element.is_string()) {
                bodies.push_back(element.get<std::string>());
            }
        }
    } else {
        bodies.emplace_back(payload);
    }

    std::vector<engine::TranscriptWord> merged;
    const bool several = bodies.size() > 1;
    for (std::size_t index = 0; index < bodies.size(); ++index) {
        std::vector<engine::TranscriptWord> words;
        try {
            const engine::ORTranscriptionResponse decoded = engine::decodeTranscriptionResponse(bodies[index]);
            if (!decoded.words) {
                continue;
            }
            words = *decoded.words;
        } catch (const engine::TranscriptionError& error) {
            require(error.code() == engine::TranscriptionError::Code::badResponse,
                    "a bad answer is badResponse");
            continue;
        }
        const double shift = static_cast<double>(index) * (kChunk - kOverlap);
        // The end of the chunk before, in the source.
        const std::optional<double> boundary =
            index > 0 ? std::optional<double>(shift - (kChunk - kOverlap) + kChunk) : std::nullopt;
        const std::optional<int> part = several ? std::optional<int>(static_cast<int>(index) + 1)
                                                : std::nullopt;
        const std::vector<engine::TranscriptWord> before = merged;
        engine::mergeWords(merged, words, shift, boundary, part);
        require(merged.size() >= before.size() && merged.size() <= before.size() + words.size(),
                "merging appends at most the new words");
        for (std::size_t kept = 0; kept < before.size(); ++kept) {
            require(merged[kept] == before[kept], "merging never changes what was merged");
        }
        const std::size_t added = merged.size() - before.size();
        for (std::size_t offset = 0; offset < added; ++offset) {
            const engine::TranscriptWord& appended = merged[before.size() + offset];
            const engine::TranscriptWord& source = words[words.size() - added + offset];
            require(appended.word == source.word && appended.part == part,
                    "what is appended is the end of the new words, with its part");
            const double expected = source.start + shift;
            require((std::isnan(expected) && std::isnan(appended.start)) ||
                        appended.start == expected,
                    "appended words are shifted by the chunk's start");
        }
    }

    const std::optional<std::vector<engine::TranscriptSegment>> cues = engine::cuesFromWords(merged);
    if (!cues) {
        return 0;
    }
    std::vector<std::string> expectedTokens;
    for (const engine::TranscriptWord& word : merged) {
        for (std::string& token : tokens(word.word)) {
            expectedTokens.push_back(std::move(token));
        }
    }
    std::vector<std::string> cueTokens;
    for (const engine::TranscriptSegment& cue : *cues) {
        require(!tokens(cue.text).empty(), "cues from words are never empty");
        for (std::string& token : tokens(cue.text)) {
            cueTokens.push_back(std::move(token));
        }
    }
    require(cueTokens == expectedTokens, "cues keep every word in order");

    for (const bool vtt : {false, true}) {
        std::string file;
        try {
            file = engine::render(vtt ? engine::TranscriptFormat::vtt : engine::TranscriptFormat::srt,
                                  "", *cues, false);
        } catch (const engine::TranscriptFormattingError&) {
            bool unshowable = false;
            for (const engine::TranscriptSegment& cue : *cues) {
                unshowable = unshowable || (cue.speaker && *cue.speaker < 0) ||
                             (cue.part && *cue.part <= 0);
            }
            require(unshowable, "only unshowable numbers keep cues from words out of a file");
            return 0;
        }
        checkCueFile(file, *cues, vtt, expectedTokens);
    }
    return 0;
}
