#include "engine/transcription/TranscriptMerge.hpp"

#include <unicode/uchar.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>

#include "engine/text/UnicodeText.hpp"

namespace tessarin::engine {

namespace {

// How close a cut word's end must lie to the chunk boundary: a millisecond, plus what the
// arithmetic of shifted times may add.
constexpr double kBoundaryTolerance = 0.001 + 1e-9;

std::u32string token(const std::string& word) {
    const std::u32string scalars = decodeUtf8Lossy(word);
    return lowercased(trimmed(std::u32string_view(scalars), [](char32_t scalar) {
        return isWhitespaceOrNewline(scalar) || u_ispunct(static_cast<UChar32>(scalar));
    }));
}

bool same(const std::u32string& a, const std::u32string& b) {
    return !a.empty() && !b.empty() && a == b;
}

// Knuth-Morris-Pratt border table: border[i] is the length of the longest proper border of
// pattern[0..i].
std::vector<std::size_t> borders(const std::vector<std::u32string>& pattern) {
    std::vector<std::size_t> border(pattern.size(), 0);
    std::size_t k = 0;
    for (std::size_t i = 1; i < pattern.size(); ++i) {
        while (k > 0 && !same(pattern[i], pattern[k])) {
            k = border[k - 1];
        }
        if (same(pattern[i], pattern[k])) {
            ++k;
        }
        border[i] = k;
    }
    return border;
}

bool overlapInTime(const TranscriptWord& a, const TranscriptWord& b) {
    return a.start < b.end && b.start < a.end;
}

// The longest prefix of the pattern that ends `accumulated[0..count)` and whose first matched word
// really overlaps in time with the new chunk's first word.
std::size_t overlapLength(const std::vector<TranscriptWord>& accumulated, std::size_t count,
                          const std::vector<std::u32string>& pattern,
                          const std::vector<std::size_t>& border, const TranscriptWord& first) {
    const std::size_t m = pattern.size();
    if (m == 0 || count == 0) {
        return 0;
    }
    std::size_t k = 0;
    for (std::size_t index = 0; index < count; ++index) {
        const std::u32string current = token(accumulated[index].word);
        while (k > 0 && (k == m || !same(pattern[k], current))) {
            k = border[k - 1];
        }
        if (same(pattern[k], current)) {
            ++k;
        }
    }
    while (k > 0 && !overlapInTime(accumulated[count - k], first)) {
        k = border[k - 1];
    }
    return k;
}

}  // namespace

void mergeWords(std::vector<TranscriptWord>& accumulated, std::vector<TranscriptWord> words,
                double shift, std::optional<double> boundary, std::optional<int> part) {
    for (TranscriptWord& word : words) {
        word.start += shift;
        word.end += shift;
        word.part = part;
    }
    std::size_t window = 0;
    if (boundary) {
        window = static_cast<std::size_t>(
            std::count_if(words.begin(), words.end(),
                          [&](const TranscriptWord& word) { return word.start < *boundary; }));
    }
    const std::size_t m = std::min(window, accumulated.size());
    std::size_t k = 0;
    if (m > 0) {
        std::vector<std::u32string> pattern;
        pattern.reserve(m);
        for (std::size_t index = 0; index < m; ++index) {
            pattern.push_back(token(words[index].word));
        }
        const std::vector<std::size_t> border = borders(pattern);
        k = overlapLength(accumulated, accumulated.size(), pattern, border, words.front());

        const TranscriptWord& last = accumulated.back();
        if (!last.word.empty() && last.word.back() == '-' &&
            std::fabs(last.end - *boundary) <= kBoundaryTolerance) {
            const std::size_t withoutCut =
                overlapLength(accumulated, accumulated.size() - 1, pattern, border, words.front());
            if (withoutCut > k) {
                accumulated.pop_back();  // the new chunk holds the whole of the cut word
                k = withoutCut;
            }
        }
    }
    accumulated.insert(accumulated.end(), std::make_move_iterator(words.begin() + k),
                       std::make_move_iterator(words.end()));
}

void mergeSegments(std::vector<TranscriptSegment>& accumulated,
                   std::vector<TranscriptSegment> segments, double shift,
                   std::optional<double> boundary, std::optional<int> part) {
    for (TranscriptSegment& segment : segments) {
        segment.start += shift;
        segment.end += shift;
        segment.part = part;
        if (boundary && segment.end <= *boundary) {
            continue;
        }
        accumulated.push_back(std::move(segment));
    }
}

}  // namespace tessarin::engine
