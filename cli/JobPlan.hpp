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
    std::optional<std::string> trim;    // START,END
    std::vector<std::string> segments;  // START,END[,NAME] each
    std::optional<std::string> join;    // "keep" or "remove"
};

// The rules every command with ranges follows: --trim or --segment, not both, and --join only
// with segments. Throws UsageError; which --join values are offered is the command's own rule.
void checkRangeOptions(const RangeOptions& ranges);

// --trim's range. Throws UsageError.
[[nodiscard]] engine::Trim parseTrim(const std::string& text);

// The clips of the --segment values, in the order given. Throws UsageError.
[[nodiscard]] std::vector<engine::ClipSelection> parseSegments(
    const std::vector<std::string>& segments);

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
