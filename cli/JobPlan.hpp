// Turns the command line's files and range options into the jobs to run, one task each.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

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
};

struct RangeOptions {
    std::optional<std::string> trim;    // START,END
    std::vector<std::string> segments;  // START,END[,NAME] each
    std::optional<std::string> join;    // "keep" or "remove"
};

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
