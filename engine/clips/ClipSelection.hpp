// One named range of a source video, and the validation behind every multi-range feature:
// time texts, range order, clip names, equal splits, chapters as clips, joining and removing
// ranges, and the per-clip output suffix.
//
// Pure value logic with no media access: every function is safe from any thread. Range
// arithmetic is done in signed 64-bit microseconds; the seconds that leave here are
// microsecond text ("12.500000").
//
//   ClipSelection intro(Trim{"0", "1:30"}, "Intro & Credits");
//   intro.fileSuffix(2);  // "-clip-003-intro-credits"
//   ClipSelection::split(10.0, 3.0, std::nullopt);  // 0-3, 3-6, 6-9, 9-10
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clips/Uuid.hpp"
#include "engine/model/MediaTask.hpp"
#include "engine/model/Preset.hpp"
#include "engine/probe/MediaInfo.hpp"

namespace tessarin::engine {

class ClipSelection {
public:
    // The one failure of clip work: a fixed case, shown to the user as its sentence (what()).
    class Invalid : public std::exception {
    public:
        enum class Kind { time, range, name, join, chapters, duration, interval, syntax, count };

        explicit Invalid(Kind kind) noexcept : kind_(kind) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;
        [[nodiscard]] static std::string_view message(Kind kind) noexcept;

        bool operator==(const Invalid& other) const noexcept { return kind_ == other.kind_; }

    private:
        Kind kind_;
    };

    // At most this many clips anywhere: in a split, a chapter list, a join and its result.
    static constexpr std::size_t kClipLimit = 500;
    // A clip name holds at most this many user-perceived characters.
    static constexpr std::size_t kNameLimit = 80;
    // A file-name slug keeps at most this many characters.
    static constexpr std::size_t kSlugLimit = 48;
    // The smallest usable length, one microsecond, in seconds.
    static constexpr double kSmallestSeconds = 0.000001;

    // Validates and normalises, in this order: the time rule on `trim.start`, then on
    // `trim.end`, the range rule, the name rule. Stores the trimmed texts (an empty time text
    // becomes absent) and the trimmed name. Throws Invalid (time, range or name).
    ClipSelection(Uuid id, const Trim& trim, std::string_view name);
    // As above with a fresh random id.
    explicit ClipSelection(const Trim& trim, std::string_view name = {});

    [[nodiscard]] const Uuid& id() const { return id_; }
    [[nodiscard]] const Trim& trim() const { return trim_; }
    [[nodiscard]] const std::string& name() const { return name_; }

    // Clips are identified by their id alone.
    bool operator==(const ClipSelection& other) const { return id_ == other.id_; }

    // The time rule: `text` without surrounding spaces and tabs, or nothing when that is empty.
    // Throws Invalid(time) unless the text is SS, MM:SS or HH:MM:SS (components after the first
    // below 60, a decimal fraction on the last) with a finite value.
    [[nodiscard]] static std::optional<std::string> normalizeTime(std::string_view text);

    // One command-line `--segment` value, START,END or START,END,NAME; the name may hold commas
    // and either time may be empty to leave that side open. Throws Invalid (syntax, time, range,
    // name).
    [[nodiscard]] static ClipSelection fromSegment(std::string_view segment);

    // Equal pieces of a video `duration` seconds long, either `seconds` long each (the last one
    // shorter) or `count` of them; exactly one of the two is given. Named "Part 1", "Part 2"...
    // The boundaries land exactly on the total. Throws Invalid (duration, interval, count, or a
    // clip's own failure); nothing is returned on failure.
    [[nodiscard]] static std::vector<ClipSelection> split(std::optional<double> duration,
                                                          std::optional<double> seconds,
                                                          std::optional<int64_t> count);

    // One clip per chapter, keeping the chapter's own time texts. Chapters must be 1 to 500,
    // finite, in order, not overlapping (gaps are fine) and within `duration` when it is given.
    // Throws Invalid (chapters, or a clip's own failure such as time).
    [[nodiscard]] static std::vector<ClipSelection> fromChapters(
        std::span<const MediaChapter> chapters, std::optional<double> duration);

    // The clips' ranges sorted and merged (touching ranges merge too), or with `removing` what is
    // left of the video after taking them out. Every range has both sides as microsecond text.
    // Throws Invalid (join, or a clip's own failure); removing everything is `join`.
    [[nodiscard]] static std::vector<Trim> join(std::span<const ClipSelection> clips,
                                                std::optional<double> duration, bool removing);

    // The output-name suffix of this clip at zero-based `index`: "-clip-003", followed by "-" and
    // a slug of the name in a-z, 0-9 and "-" when the name has any such letters.
    [[nodiscard]] std::string fileSuffix(std::size_t index) const;

private:
    Uuid id_;
    Trim trim_;
    std::string name_;
};

// A count of microseconds (not negative) as whole seconds, a full stop and six digits:
// 12500000 -> "12.500000". Always acceptable to the time rule. A negative count is a programmer
// error and stops the process.
[[nodiscard]] std::string microsecondText(int64_t microseconds);

// `task` for one clip of a separate-files export: the copy's range is the clip's and the clip's
// file suffix is appended to the task's own output suffix. A join keeps its ranges and takes the
// suffix only; a fast cut, whose name is fixed, takes the range only.
[[nodiscard]] MediaTask taskForClip(const MediaTask& task, const ClipSelection& clip,
                                    std::size_t index);

}  // namespace tessarin::engine
