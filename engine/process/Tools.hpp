// Where the three media tools live. The application only ever uses the helper folder beside
// its own executable (`locate`); `CONVERTER_TOOLS_DIR` is for the command line and development.
// There is deliberately no search of PATH.
#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/model/ExternalSoftwareHEVCToolchain.hpp"

namespace tessarin::engine {

// Paths of the tools a job runs. A plain value; safe to copy between threads.
struct Tools {
    std::filesystem::path ffmpeg;
    std::filesystem::path ffprobe;
    std::filesystem::path gifsicle;
    // Present only when ffmpeg and ffprobe point at a user-chosen toolchain; never set by the
    // functions below.
    std::optional<ExternalSoftwareHEVCToolchain> externalSoftwareHEVCIdentity;

    bool operator==(const Tools&) const = default;

    // The folder named by CONVERTER_TOOLS_DIR, if it is set and holds all three tools, each an
    // executable file. Paths are made absolute. Never throws for a bad folder.
    [[nodiscard]] static std::optional<Tools> fromEnvironment();

    // The three tools in `helperDirectory`, if all three are executable files.
    [[nodiscard]] static std::optional<Tools> inBundle(
        const std::filesystem::path& helperDirectory);

    // <folder of /proc/self/exe>/../libexec/tessarin, lexically normalised.
    [[nodiscard]] static std::filesystem::path bundledHelperDirectory();

    // inBundle(bundledHelperDirectory()); throws ToolsError carrying searchReport() otherwise.
    [[nodiscard]] static Tools locate();

    // Two lines joined by "\n": what CONVERTER_TOOLS_DIR holds, then what the helper folder
    // holds, e.g. "CONVERTER_TOOLS_DIR: not set\nbundled Helpers: OK".
    [[nodiscard]] static std::string searchReport();
};

// The tools could not be found. `checked` holds one line per place looked at; what() is
// "ffmpeg/ffprobe/gifsicle not found. Checked:\n" and those lines, each after "  • ".
class ToolsError : public std::runtime_error {
public:
    explicit ToolsError(std::vector<std::string> checked);

    std::vector<std::string> checked;
};

}  // namespace tessarin::engine
