// Turns the command line's files and range options into the jobs to run, one task each.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/FastCut.hpp"
#include "engine/model/MediaTask.hpp"

namespace tessarin::cli {

// A command line that asks for something impossible; what() is the sentence to print.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct PlannedJob {
    std::filesystem::path source;
    engine::MediaTask task;
    std::string label;  // what the job does, for progress and events ("mp4-h264", "clip 2")
    std::optional<engine::FastCut::Plan> fastCutPlan = std::nullopt;  // a fastCut task's plan
};

struct RangeOptions {
    std::optional<std::string> trim;                // START,END
    std::vector<std::string> segments;              // START,END[,NAME] each
    std::optional<std::filesystem::path> clipList;  // a clip list file, in place of segments
    std::optional<std::string> join;                // "keep" or "remove"
    // The clips read from `clipList` (loadClipList fills them in); they stand for segments.
    std::vector<engine::ClipSelection> listedClips = {};
};

// The rules every command with ranges follows: one of --trim, --segment and --clip-list, --join
// only with segments or a list, and a list for one file only. Throws UsageError; which --join
// values are offered is the command's own rule.
void checkRangeOptions(const RangeOptions& ranges, std::size_t fileCount);

// Reads --clip-list, when given, for the one source in `files` into ranges.listedClips. Throws
// UsageError for a bad combination, ClipListFile::Invalid (a list of another or a changed
// source...), ClipSelection::Invalid or std::filesystem::filesystem_error.
void loadClipList(RangeOptions& ranges, const std::vector<std::filesystem::path>& files);

// --trim's range. Throws UsageError.
[[nodiscard]] engine::Trim parseTrim(const std::string& text);

// The clips of the --segment values, in the order given, or the listed clips. Throws UsageError.
[[nodiscard]] std::vector<engine::ClipSelection> parseSegments(const RangeOptions& ranges);

// Jobs for a preset: the whole file, its --trim, one job per --segment, or one joined job.
// Throws UsageError for unknown ids and ranges the clip rules refuse.
[[nodiscard]] std::vector<PlannedJob> planConversions(
    const engine::Preset& preset, const std::vector<std::filesystem::path>& files,
    const RangeOptions& ranges);

// Jobs that extract the first audio track, whole or within --trim.
[[nodiscard]] std::vector<PlannedJob> planAudioExtractions(
    const std::string& codec, const std::vector<std::filesystem::path>& files,
    const std::optional<std::string>& trim);

}  // namespace tessarin::cli
