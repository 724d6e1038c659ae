// Clip ranges from the command line, from splits, from chapters and from joins. Whatever the
// input, a failure is ClipSelection::Invalid of a kind the operation documents, and every clip
// that comes out obeys the time, range and name rules; a join's ranges are sorted, disjoint
// microsecond ranges within the video, and keeping and removing the same clips tile it.

#include <fmt/format.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "engine/clips/ClipSelection.hpp"
#include "engine/model/TimeText.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::ClipSelection;
using tessarin::engine::MediaChapter;
using tessarin::engine::microsecondText;
using tessarin::engine::parseTimeSeconds;
using tessarin::engine::Trim;
using tessarin::fuzz::isValidUtf8;
using tessarin::fuzz::require;
using Kind = ClipSelection::Invalid::Kind;

// Runs `body`; a failure must be Invalid of one of `allowed`. Returns whether it succeeded.
template <typename Body>
bool succeeds(std::initializer_list<Kind> allowed, Body body) {
    try {
        body();
        return true;
    } catch (const ClipSelection::Invalid& invalid) {
        bool listed = false;
        for (const Kind kind : allowed) {
            listed = listed || kind == invalid.kind();
        }
        require(listed, "a failure is of a kind the operation documents");
        require(std::strlen(invalid.what()) > 0, "a failure carries its sentence");
        return false;
    }
}

bool isSlugCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
}

void checkTimeText(const std::string& text) {
    const std::optional<double> seconds = parseTimeSeconds(text);
    require(seconds && std::isfinite(*seconds), "a stored time reads as a finite time");
    require(ClipSelection::normalizeTime(text) == text, "a stored time is already normal");
}

void checkClip(const ClipSelection& clip, std::size_t index) {
    const Trim& trim = clip.trim();
    if (trim.start) {
        checkTimeText(*trim.start);
    }
    if (trim.end) {
        checkTimeText(*trim.end);
        const double end = *parseTimeSeconds(*trim.end);
        const double start = trim.start ? *parseTimeSeconds(*trim.start) : 0;
        require(end > start, "a clip ends after it starts");
    }
    require(isValidUtf8(clip.name()), "a clip name is UTF-8");
    const std::string name = clip.name();
    require(name.empty() || (name.front() != ' ' && name.front() != '\t' && name.back() != ' ' &&
                             name.back() != '\t'),
            "a clip name is trimmed");

    const std::string suffix = clip.fileSuffix(index);
    const std::string numbered = fmt::format("-clip-{:03d}", index + 1);
    require(suffix.starts_with(numbered), "a suffix begins with the clip's number");
    const std::string slug = suffix.substr(numbered.size());
    if (!slug.empty()) {
        require(slug.size() >= 2 && slug.size() <= 1 + ClipSelection::kSlugLimit &&
                    slug[0] == '-' && slug[1] != '-',
                "a slug follows one dash and is cut to the limit");
        for (const char c : slug) {
            require(isSlugCharacter(c), "a slug holds a-z, 0-9 and dashes");
        }
    }
}

std::optional<double> anyDuration(FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0:
            return std::nullopt;
        case 1: {
            const uint64_t bits = input.ConsumeIntegral<uint64_t>();
            double value = 0;
            std::memcpy(&value, &bits, sizeof value);
            return value;
        }
        case 2:
            return input.ConsumeFloatingPointInRange(0.0, 10000.0);
        default:
            return static_cast<double>(input.ConsumeIntegralInRange<int64_t>(0, 4'000'000'000)) /
                   1e6;
    }
}

// A time text as a person or a tool writes it: usually microsecond text, sometimes anything.
std::string anyTimeText(FuzzedDataProvider& input) {
    if (input.ConsumeBool()) {
        return microsecondText(input.ConsumeIntegralInRange<int64_t>(0, 20'000'000));
    }
    return input.ConsumeRandomLengthString(24);
}

void fuzzSegment(FuzzedDataProvider& input) {
    const std::string segment = input.ConsumeRemainingBytesAsString();
    std::optional<ClipSelection> clip;
    if (succeeds({Kind::syntax, Kind::time, Kind::range, Kind::name},
                 [&] { clip.emplace(ClipSelection::fromSegment(segment)); })) {
        require(segment.find(',') != std::string::npos, "a segment has a comma");
        checkClip(*clip, 0);
        checkClip(*clip, 999);
    }
}

void fuzzTimeRule(FuzzedDataProvider& input) {
    const std::string text = input.ConsumeRemainingBytesAsString();
    std::optional<std::string> stored;
    if (succeeds({Kind::time}, [&] { stored = ClipSelection::normalizeTime(text); }) && stored) {
        checkTimeText(*stored);
        require(text.find(*stored) != std::string::npos, "the stored text is the typed one");
    }
}

void fuzzSplit(FuzzedDataProvider& input) {
    const std::optional<double> duration = anyDuration(input);
    const std::optional<double> seconds = input.ConsumeBool() ? anyDuration(input) : std::nullopt;
    const std::optional<int64_t> count =
        input.ConsumeBool() ? std::optional(input.ConsumeIntegralInRange<int64_t>(-2, 600))
                            : std::nullopt;
    std::vector<ClipSelection> clips;
    // Ranges of microsecond texts beyond 2^53 microseconds may read as equal doubles, a clip's
    // own range failure.
    if (!succeeds({Kind::duration, Kind::interval, Kind::count, Kind::range},
                  [&] { clips = ClipSelection::split(duration, seconds, count); })) {
        return;
    }
    require(!clips.empty() && clips.size() <= ClipSelection::kClipLimit, "1 to 500 pieces");
    if (count) {
        require(clips.size() == static_cast<std::size_t>(*count), "count pieces when counted");
    }
    const int64_t total = static_cast<int64_t>(std::floor(*duration * 1e6));
    require(clips.front().trim().start == "0.000000", "the first piece starts at zero");
    require(clips.back().trim().end == microsecondText(total), "the last piece ends at the total");
    for (std::size_t k = 0; k < clips.size(); ++k) {
        checkClip(clips[k], k);
        require(clips[k].name() == fmt::format("Part {}", k + 1), "pieces are named in order");
        if (k > 0) {
            require(clips[k].trim().start == clips[k - 1].trim().end, "pieces share boundaries");
        }
    }
}

void fuzzChapters(FuzzedDataProvider& input) {
    std::vector<MediaChapter> chapters(input.ConsumeIntegralInRange<std::size_t>(0, 6));
    for (MediaChapter& chapter : chapters) {
        if (input.ConsumeIntegralInRange(0, 7) != 0) {
            chapter.start = anyTimeText(input);
        }
        if (input.ConsumeIntegralInRange(0, 7) != 0) {
            chapter.end = anyTimeText(input);
        }
        if (input.ConsumeBool()) {
            chapter.title = input.ConsumeRandomLengthString(120);
        }
    }
    const std::optional<double> duration = anyDuration(input);
    std::vector<ClipSelection> clips;
    // The chapters' own texts become clips, so a clip's time rule may refuse one.
    if (!succeeds({Kind::chapters, Kind::time},
                  [&] { clips = ClipSelection::fromChapters(chapters, duration); })) {
        return;
    }
    require(clips.size() == chapters.size(), "one clip per chapter");
    for (std::size_t i = 0; i < clips.size(); ++i) {
        checkClip(clips[i], i);
        require(
            clips[i].trim().start == chapters[i].start && clips[i].trim().end == chapters[i].end,
            "chapter texts are kept as they came");
        require(!clips[i].name().empty(), "every chapter clip has a name");
    }
}

struct MicrosecondRange {
    int64_t start;
    int64_t end;
};

std::vector<MicrosecondRange> checkJoined(const std::vector<Trim>& trims, int64_t total) {
    require(!trims.empty() && trims.size() <= ClipSelection::kClipLimit, "1 to 500 ranges");
    std::vector<MicrosecondRange> ranges;
    for (const Trim& trim : trims) {
        require(trim.start && trim.end, "joined ranges are closed");
        checkTimeText(*trim.start);
        checkTimeText(*trim.end);
        // Both sides are microsecond text: "<seconds>.<six digits>".
        const auto micros = [](const std::string& text) {
            const std::size_t point = text.find('.');
            require(point != std::string::npos && text.size() - point == 7,
                    "joined bounds are microsecond text");
            return std::stoll(text.substr(0, point)) * 1'000'000 +
                   std::stoll(text.substr(point + 1));
        };
        ranges.push_back({micros(*trim.start), micros(*trim.end)});
        require(ranges.back().start < ranges.back().end, "a joined range is not empty");
        require(ranges.back().start >= 0 && ranges.back().end <= total,
                "a joined range lies within the video");
        if (ranges.size() > 1) {
            require(ranges[ranges.size() - 2].end < ranges.back().start,
                    "joined ranges are sorted, apart and not touching");
        }
    }
    return ranges;
}

void fuzzJoin(FuzzedDataProvider& input) {
    std::vector<ClipSelection> clips;
    const std::size_t wanted = input.ConsumeIntegralInRange<std::size_t>(0, 8);
    for (std::size_t i = 0; i < wanted && input.remaining_bytes() > 0; ++i) {
        const std::string start = input.ConsumeBool() ? anyTimeText(input) : std::string();
        const std::string end = input.ConsumeBool() ? anyTimeText(input) : std::string();
        succeeds({Kind::syntax, Kind::time, Kind::range, Kind::name},
                 [&] { clips.push_back(ClipSelection::fromSegment(start + "," + end)); });
    }
    const std::optional<double> duration = anyDuration(input);

    std::vector<Trim> kept;
    std::vector<Trim> removed;
    const bool keeping =
        succeeds({Kind::join}, [&] { kept = ClipSelection::join(clips, duration, false); });
    const bool removing =
        succeeds({Kind::join}, [&] { removed = ClipSelection::join(clips, duration, true); });
    if (!keeping && !removing) {
        return;
    }
    const int64_t total = static_cast<int64_t>(std::floor(*duration * 1e6));
    std::vector<MicrosecondRange> all;
    if (keeping) {
        const std::vector<MicrosecondRange> ranges = checkJoined(kept, total);
        all.insert(all.end(), ranges.begin(), ranges.end());
    }
    if (removing) {
        const std::vector<MicrosecondRange> ranges = checkJoined(removed, total);
        all.insert(all.end(), ranges.begin(), ranges.end());
    }
    if (keeping && removing) {
        std::sort(all.begin(), all.end(), [](const MicrosecondRange& a, const MicrosecondRange& b) {
            return a.start < b.start;
        });
        require(all.front().start == 0 && all.back().end == total,
                "kept and removed ranges cover the video");
        for (std::size_t i = 1; i < all.size(); ++i) {
            require(all[i - 1].end == all[i].start, "kept and removed ranges tile the video");
        }
    }
}

void fuzzMicrosecondText(FuzzedDataProvider& input) {
    const int64_t count =
        input.ConsumeIntegralInRange<int64_t>(0, std::numeric_limits<int64_t>::max());
    const std::string text = microsecondText(count);
    checkTimeText(text);
    // Below 2^50 microseconds a double still holds every microsecond of the text.
    if (count < (int64_t{1} << 50)) {
        require(std::llround(*parseTimeSeconds(text) * 1e6) == count,
                "microsecond text reads back to its count");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    switch (input.ConsumeIntegralInRange(0, 5)) {
        case 0:
            fuzzTimeRule(input);
            break;
        case 1:
            fuzzSegment(input);
            break;
        case 2:
            fuzzSplit(input);
            break;
        case 3:
            fuzzChapters(input);
            break;
        case 4:
            fuzzJoin(input);
            break;
        default:
            fuzzMicrosecondText(input);
            break;
    }
    return 0;
}
