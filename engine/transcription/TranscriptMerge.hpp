// Joins the timed words of overlapping chunks into one list: the words a chunk repeats from the
// overlap with the chunk before are found (by their text and their times) and dropped once.
#pragma once

#include <optional>
#include <vector>

#include "engine/transcription/Transcript.hpp"

namespace tessarin::engine {

// Appends one chunk's `words` (times relative to the chunk) to `accumulated` (times relative to
// the source). `shift` is the chunk's start in the source (its start in the prepared audio plus
// the trim's start); `boundary` is the end, in the source, of the chunk before (nothing for the
// first chunk); `part` is stored in each appended word. Pure apart from `accumulated`.
void mergeWords(std::vector<TranscriptWord>& accumulated, std::vector<TranscriptWord> words,
                double shift, std::optional<double> boundary, std::optional<int> part);

// The same for provider segments, used when a response has no words: segments of the new chunk
// that end inside the overlap with the chunk before are dropped.
void mergeSegments(std::vector<TranscriptSegment>& accumulated,
                   std::vector<TranscriptSegment> segments, double shift,
                   std::optional<double> boundary, std::optional<int> part);

}  // namespace tessarin::engine
