#include "engine/clips/ClipSelection.hpp"

#include <fmt/format.h>
#include <locale.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <type_traits>
#include <variant>

#include "engine/model/NumberText.hpp"
#include "engine/model/TimeText.hpp"
#include "engine/text/UnicodeText.hpp"

namespace tessarin::engine {

namespace {

using Kind = ClipSelection::Invalid::Kind;

constexpr int64_t kMicrosecondsPerSecond = 1'000'000;
// 2^63, exactly representable as a double; a product at or above it does not fit in int64_t.
constexpr double kInt64Limit = 9223372036854775808.0;

struct Message {
    Kind kind;
    const char* text;
};

constexpr Message kMessages[] = {
    {Kind::time, "Use a finite time in SS, MM:SS or HH:MM:SS format."},
    {Kind::range, "Clip end must be after start."},
    {Kind::name, "Clip names must be at most 80 characters without control characters."},
    {Kind::join,
     "Joining needs valid ranges within a known video length and must leave some video to "
     "export, with at most 500 kept ranges."},
    {Kind::chapters,
     "No usable chapter list. Chapters need finite, ordered, non-overlapping bounds within the "
     "source and at most 500 entries."},
    {Kind::duration, "Splitting needs a known, finite video length of at least one microsecond."},
    {Kind::interval, "Split length must be finite and at least 0.000001 seconds."},
    {Kind::syntax, "Use START,END or START,END,NAME for each --segment."},
    {Kind::count, "Choose between 1 and 500 clips."},
};

[[noreturn]] void fail(Kind kind) {
    throw ClipSelection::Invalid(kind);
}

bool isAsciiDigit(char c) {
    return c >= '0' && c <= '9';
}

// The pattern ^\d+(:[0-5]?\d){0,2}(\.\d+)?$, matched by hand: a component after a colon is one
// digit, or two when the first is 0 to 5.
bool matchesTimePattern(std::string_view t) {
    std::size_t i = 0;
    const auto digitsFrom = [&](std::size_t from) {
        std::size_t end = from;
        while (end < t.size() && isAsciiDigit(t[end])) {
            ++end;
        }
        return end;
    };
    i = digitsFrom(0);
    if (i == 0) {
        return false;
    }
    for (int colons = 0; colons < 2 && i < t.size() && t[i] == ':'; ++colons) {
        ++i;
        if (i >= t.size() || !isAsciiDigit(t[i])) {
            return false;
        }
        const bool twoDigits = t[i] <= '5' && i + 1 < t.size() && isAsciiDigit(t[i + 1]);
        i += twoDigits ? 2 : 1;
    }
    if (i < t.size() && t[i] == '.') {
        const std::size_t fractionEnd = digitsFrom(i + 1);
        if (fractionEnd == i + 1) {
            return false;
        }
        i = fractionEnd;
    }
    return i == t.size();
}

// A plain decimal number of the whole text in the C locale (sign, exponent and hexadecimal
// forms included), refusing a leading blank; nothing unless finite.
std::optional<double> parsePlainDecimal(const std::optional<std::string>& value) {
    return value ? parseFiniteDouble(*value) : std::nullopt;
}

// Floor of seconds * 10^6 when the seconds are finite, at least one microsecond, and the
// product fits; nothing otherwise. The bound is tested before any conversion.
std::optional<int64_t> floorMicroseconds(std::optional<double> seconds) {
    if (!seconds || !std::isfinite(*seconds) || !(*seconds >= ClipSelection::kSmallestSeconds)) {
        return std::nullopt;
    }
    const double product = *seconds * static_cast<double>(kMicrosecondsPerSecond);
    if (!(product < kInt64Limit)) {
        return std::nullopt;
    }
    return static_cast<int64_t>(std::floor(product));
}

// Rounded to nearest, halves away from zero; the caller guarantees the product fits.
int64_t roundedMicroseconds(double seconds) {
    return static_cast<int64_t>(
        std::llround(seconds * static_cast<double>(kMicrosecondsPerSecond)));
}

std::optional<double> seconds(const std::optional<std::string>& timeText) {
    return timeText ? parseTimeSeconds(*timeText) : std::nullopt;
}

std::optional<std::string> normalizedSide(const std::optional<std::string>& side) {
    return side ? ClipSelection::normalizeTime(*side) : std::nullopt;
}

std::string normalizedName(std::string_view name) {
    const std::optional<std::u32string> scalars = decodeUtf8(name);
    if (!scalars) {
        fail(Kind::name);
    }
    const std::u32string_view kept = trimmed(*scalars, isBlank);
    if (std::any_of(kept.begin(), kept.end(), isControl) ||
        characterCount(kept) > ClipSelection::kNameLimit) {
        fail(Kind::name);
    }
    return encodeUtf8(kept);
}

// Control characters become blanks; what is left after trimming is cut to the name limit, or
// the chapter's one-based position names it.
std::string chapterName(const std::optional<std::string>& title, std::size_t index) {
    std::optional<std::u32string> scalars = title ? decodeUtf8(*title) : std::nullopt;
    if (scalars) {
        std::replace_if(scalars->begin(), scalars->end(), isControl, U' ');
        const std::u32string_view kept = trimmed(*scalars, isWhitespaceOrNewline);
        if (!kept.empty()) {
            return encodeUtf8(characterPrefix(kept, ClipSelection::kNameLimit));
        }
    }
    return fmt::format("Chapter {}", index + 1);
}

struct MicrosecondRange {
    int64_t start;
    int64_t end;
};

}  // namespace

const char* ClipSelection::Invalid::what() const noexcept {
    return message(kind_).data();
}

std::string_view ClipSelection::Invalid::message(Kind kind) noexcept {
    for (const Message& row : kMessages) {
        if (row.kind == kind) {
            return row.text;
        }
    }
    return "Invalid clip.";
}

ClipSelection::ClipSelection(Uuid id, const Trim& trim, std::string_view name) : id_(id) {
    trim_.start = normalizedSide(trim.start);
    trim_.end = normalizedSide(trim.end);
    if (const std::optional<double> end = seconds(trim_.end)) {
        const std::optional<double> start = seconds(trim_.start);
        if (start ? !(*end > *start) : !(*end > 0)) {
            fail(Kind::range);
        }
    }
    name_ = normalizedName(name);
}

ClipSelection::ClipSelection(const Trim& trim, std::string_view name)
    : ClipSelection(Uuid::random(), trim, name) {}

std::optional<std::string> ClipSelection::normalizeTime(std::string_view timeText) {
    const std::optional<std::u32string> scalars = decodeUtf8(timeText);
    if (!scalars) {
        fail(Kind::time);
    }
    const std::u32string_view kept = trimmed(*scalars, isBlank);
    if (kept.empty()) {
        return std::nullopt;
    }
    std::string result = encodeUtf8(kept);
    if (!matchesTimePattern(result)) {
        fail(Kind::time);
    }
    const std::optional<double> value = parseTimeSeconds(result);
    if (!value || !std::isfinite(*value)) {
        fail(Kind::time);
    }
    return result;
}

ClipSelection ClipSelection::fromSegment(std::string_view segment) {
    const std::size_t firstComma = segment.find(',');
    if (firstComma == std::string_view::npos) {
        fail(Kind::syntax);
    }
    const std::string_view start = segment.substr(0, firstComma);
    const std::string_view rest = segment.substr(firstComma + 1);
    const std::size_t secondComma = rest.find(',');
    const std::string_view end = rest.substr(0, secondComma);
    const std::string_view name =
        secondComma == std::string_view::npos ? std::string_view() : rest.substr(secondComma + 1);
    return ClipSelection(Trim{std::string(start), std::string(end)}, name);
}

std::vector<ClipSelection> ClipSelection::split(std::optional<double> duration,
                                                std::optional<double> seconds,
                                                std::optional<int64_t> count) {
    const std::optional<int64_t> total = floorMicroseconds(duration);
    if (!total) {
        fail(Kind::duration);
    }
    int64_t n = 0;
    int64_t length = 0;
    if (!seconds) {
        if (!count || *count < 1 || *count > static_cast<int64_t>(kClipLimit) || *count > *total) {
            fail(Kind::count);
        }
        n = *count;
    } else {
        if (count || !floorMicroseconds(seconds)) {
            fail(Kind::interval);
        }
        length = roundedMicroseconds(*seconds);
        n = (*total - 1) / length + 1;
        if (n > static_cast<int64_t>(kClipLimit)) {
            fail(Kind::count);
        }
    }

    const auto boundary = [&](int64_t k) -> int64_t {
        if (length == 0) {
            // Spreads the remainder evenly; at k = n this is exactly the total.
            return (*total / n) * k + ((*total % n) * k) / n;
        }
        return k == n ? *total : length * k;
    };
    std::vector<ClipSelection> clips;
    clips.reserve(static_cast<std::size_t>(n));
    for (int64_t k = 0; k < n; ++k) {
        clips.emplace_back(Trim{microsecondText(boundary(k)), microsecondText(boundary(k + 1))},
                           fmt::format("Part {}", k + 1));
    }
    return clips;
}

std::vector<ClipSelection> ClipSelection::fromChapters(std::span<const MediaChapter> chapters,
                                                       std::optional<double> duration) {
    if (chapters.empty() || chapters.size() > kClipLimit) {
        fail(Kind::chapters);
    }
    std::vector<ClipSelection> clips;
    clips.reserve(chapters.size());
    double previousEnd = 0;
    for (std::size_t i = 0; i < chapters.size(); ++i) {
        const MediaChapter& chapter = chapters[i];
        const std::optional<double> start = parsePlainDecimal(chapter.start);
        const std::optional<double> end = parsePlainDecimal(chapter.end);
        if (!start || !end || !(previousEnd <= *start) || !(*start < *end)) {
            fail(Kind::chapters);
        }
        if (duration && (!std::isfinite(*duration) || !(*end <= *duration))) {
            fail(Kind::chapters);
        }
        previousEnd = *end;
        clips.emplace_back(Trim{chapter.start, chapter.end}, chapterName(chapter.title, i));
    }
    return clips;
}

std::vector<Trim> ClipSelection::join(std::span<const ClipSelection> clips,
                                      std::optional<double> duration, bool removing) {
    const std::optional<int64_t> total = floorMicroseconds(duration);
    if (!total || clips.empty() || clips.size() > kClipLimit) {
        fail(Kind::join);
    }
    std::vector<MicrosecondRange> ranges;
    ranges.reserve(clips.size());
    for (const ClipSelection& clip : clips) {
        const ClipSelection checked(clip.id(), clip.trim(), clip.name());
        const double start = seconds(checked.trim().start).value_or(0);
        const double end = seconds(checked.trim().end).value_or(*duration);
        if (!(start < end) || !(end <= *duration)) {
            fail(Kind::join);
        }
        // end <= duration, so both products stay below 2^63.
        const int64_t s = roundedMicroseconds(start);
        const int64_t e = std::min(roundedMicroseconds(end), *total);
        if (!(e > s)) {
            fail(Kind::join);
        }
        ranges.push_back({s, e});
    }
    std::stable_sort(
        ranges.begin(), ranges.end(),
        [](const MicrosecondRange& a, const MicrosecondRange& b) { return a.start < b.start; });

    std::vector<MicrosecondRange> merged;
    for (const MicrosecondRange& range : ranges) {
        if (!merged.empty() && range.start <= merged.back().end) {
            merged.back().end = std::max(merged.back().end, range.end);
        } else {
            merged.push_back(range);
        }
    }

    std::vector<MicrosecondRange> result;
    if (removing) {
        int64_t cursor = 0;
        for (const MicrosecondRange& range : merged) {
            if (cursor < range.start) {
                result.push_back({cursor, range.start});
            }
            cursor = range.end;
        }
        if (cursor < *total) {
            result.push_back({cursor, *total});
        }
    } else {
        result = std::move(merged);
    }
    if (result.empty() || result.size() > kClipLimit) {
        fail(Kind::join);
    }

    std::vector<Trim> trims;
    trims.reserve(result.size());
    for (const MicrosecondRange& range : result) {
        trims.push_back(Trim{microsecondText(range.start), microsecondText(range.end)});
    }
    return trims;
}

std::string ClipSelection::fileSuffix(std::size_t index) const {
    std::string slug;
    // The name is valid UTF-8: the constructor refused anything else.
    const std::u32string lower = lowercased(decodeUtf8(name_).value_or(U""));
    for (char32_t c : lower) {
        if ((c >= U'a' && c <= U'z') || (c >= U'0' && c <= U'9')) {
            slug.push_back(static_cast<char>(c));
        } else if (slug.empty() || slug.back() != '-') {
            slug.push_back('-');
        }
    }
    const std::size_t first = slug.find_first_not_of('-');
    slug = first == std::string::npos ? std::string() : slug.substr(first);
    while (!slug.empty() && slug.back() == '-') {
        slug.pop_back();
    }

    std::string suffix = fmt::format("-clip-{:03d}", index + 1);
    if (!slug.empty()) {
        suffix += '-';
        suffix += slug.substr(0, kSlugLimit);
    }
    return suffix;
}

std::string microsecondText(int64_t microseconds) {
    if (microseconds < 0) {
        std::fprintf(stderr, "tessarin: programmer error: negative microsecond count %lld\n",
                     static_cast<long long>(microseconds));
        std::abort();
    }
    return fmt::format("{}.{:06d}", microseconds / kMicrosecondsPerSecond,
                       microseconds % kMicrosecondsPerSecond);
}

MediaTask taskForClip(const MediaTask& task, const ClipSelection& clip, std::size_t index) {
    const std::string suffix = clip.fileSuffix(index);
    MediaTask copy = task;
    std::visit(
        [&](auto& kind) {
            using Alternative = std::decay_t<decltype(kind)>;
            if constexpr (std::is_same_v<Alternative, MediaTask::Convert>) {
                kind.preset.options.trim = clip.trim();
                kind.preset.filenameSuffix += suffix;
            } else if constexpr (std::is_same_v<Alternative, MediaTask::Join>) {
                kind.preset.filenameSuffix += suffix;
            } else if constexpr (std::is_same_v<Alternative, MediaTask::ExtractAudio>) {
                kind.options.trim = clip.trim();
                kind.options.naming.filenameSuffix += suffix;
            } else {
                kind.trim = clip.trim();
            }
        },
        copy.kind);
    return copy;
}

}  // namespace tessarin::engine
