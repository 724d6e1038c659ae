// The subcommands of `tessarin`. Each returns the process exit status (ExitStatus.hpp).
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tessarin::cli {

// `tessarin probe FILE`: the facts of FILE as one JSON object on stdout.
int runProbe(const std::filesystem::path& file);

// `tessarin presets`: the built-in presets, one per line, with the reason a preset can't run here.
int runPresets();

struct ConvertRequest {
    std::string presetId;
    std::vector<std::filesystem::path> files;
    std::optional<std::filesystem::path> outputDirectory;
};

// `tessarin convert --preset ID FILE...`: converts the files one at a time and prints each
// published path on stdout.
int runConvert(const ConvertRequest& request);

}  // namespace tessarin::cli
