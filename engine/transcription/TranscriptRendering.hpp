// Renders a transcript as plain text, SubRip (SRT) or WebVTT, and groups timed words into cues.
// Pure functions, safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/transcription/Transcript.hpp"

namespace tessarin::engine {

// The file's text for `format`.
// - text: `text` as it stands; with `speakers` and segments, one paragraph a segment with its
//   label ("Speaker 2: …", "Part 1, Speaker 2: …").
// - srt, vtt: numbered cues of the segments (empty ones skipped), text cleaned line by line,
//   "&", "<", ">" escaped for vtt only, labels when `speakers`. No cue at all and an empty text
//   give "" for srt and "WEBVTT\n\n" for vtt.
// Throws TranscriptFormattingError for srt and vtt when a segment has unusable times or numbers,
// or when there is text but no segment to time it.
[[nodiscard]] std::string render(TranscriptFormat format, const std::string& text,
                                 const std::vector<TranscriptSegment>& segments, bool speakers);

// "01:01:01,500" for 3661.5 s: whole milliseconds, `separator` before them.
[[nodiscard]] std::string cueTime(double seconds, char separator);

// Cues of at most 6 s and fewer than 85 characters, a new cue at each change of speaker or part,
// each wrapped into lines below 43 characters. Words of blank text are skipped. Nothing when the
// times of a word are unusable or go backwards: the list is not used then.
[[nodiscard]] std::optional<std::vector<TranscriptSegment>> cuesFromWords(
    const std::vector<TranscriptWord>& words);

}  // namespace tessarin::engine
