#include "engine/process/Tools.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <system_error>

namespace tessarin::engine {

namespace {

constexpr std::array<const char*, 3> kToolNames = {"ffmpeg", "ffprobe", "gifsicle"};

enum class ToolState { ok, missing, notExecutable };

ToolState inspect(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return ToolState::missing;
    }
    if (!S_ISREG(info.st_mode) || ::access(path.c_str(), X_OK) != 0) {
        return ToolState::notExecutable;
    }
    return ToolState::ok;
}

// "" when all three tools are fine, otherwise "ffmpeg missing, gifsicle not executable".
std::string problems(const std::filesystem::path& directory) {
    std::string text;
    for (const char* name : kToolNames) {
        const ToolState state = inspect(directory / name);
        if (state == ToolState::ok) {
            continue;
        }
        if (!text.empty()) {
            text += ", ";
        }
        text += name;
        text += state == ToolState::missing ? " missing" : " not executable";
    }
    return text;
}

std::optional<Tools> toolsIn(const std::filesystem::path& directory) {
    if (!problems(directory).empty()) {
        return std::nullopt;
    }
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(directory, error);
    if (error) {
        absolute = directory;
    }
    Tools tools;
    tools.ffmpeg = absolute / "ffmpeg";
    tools.ffprobe = absolute / "ffprobe";
    tools.gifsicle = absolute / "gifsicle";
    return tools;
}

const char* environmentDirectory() {
    const char* value = std::getenv("CONVERTER_TOOLS_DIR");
    return value != nullptr && value[0] != '\0' ? value : nullptr;
}

std::string statusLine(const std::string& label, const std::filesystem::path& directory) {
    const std::string found = problems(directory);
    if (found.empty()) {
        return label + " (" + directory.string() + "): OK";
    }
    return label + " (" + directory.string() + "): " + found;
}

std::string describe(const std::vector<std::string>& checked) {
    std::string text = "ffmpeg/ffprobe/gifsicle not found. Checked:\n";
    for (std::size_t i = 0; i < checked.size(); ++i) {
        if (i > 0) {
            text += '\n';
        }
        text += "  \xE2\x80\xA2 ";
        text += checked[i];
    }
    return text;
}

}  // namespace

std::optional<Tools> Tools::fromEnvironment() {
    const char* directory = environmentDirectory();
    if (directory == nullptr) {
        return std::nullopt;
    }
    return toolsIn(directory);
}

std::optional<Tools> Tools::inBundle(const std::filesystem::path& helperDirectory) {
    return toolsIn(helperDirectory);
}

std::filesystem::path Tools::bundledHelperDirectory() {
    std::error_code error;
    const std::filesystem::path executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return {};
    }
    return (executable.parent_path() / ".." / "libexec" / "tessarin").lexically_normal();
}

Tools Tools::locate() {
    if (auto tools = inBundle(bundledHelperDirectory())) {
        return *std::move(tools);
    }
    const std::string report = searchReport();
    std::vector<std::string> checked;
    std::size_t start = 0;
    for (std::size_t end = report.find('\n'); end != std::string::npos;
         end = report.find('\n', start)) {
        checked.push_back(report.substr(start, end - start));
        start = end + 1;
    }
    checked.push_back(report.substr(start));
    throw ToolsError(std::move(checked));
}

std::string Tools::searchReport() {
    std::string report;
    if (const char* directory = environmentDirectory()) {
        report = statusLine("CONVERTER_TOOLS_DIR", directory);
    } else {
        report = "CONVERTER_TOOLS_DIR: not set";
    }
    const std::filesystem::path bundled = bundledHelperDirectory();
    const std::string bundledProblems = problems(bundled);
    report += '\n';
    report += bundledProblems.empty()
                  ? std::string("bundled Helpers: OK")
                  : "bundled Helpers (" + bundled.string() + "): " + bundledProblems;
    return report;
}

ToolsError::ToolsError(std::vector<std::string> checked)
    : std::runtime_error(describe(checked)), checked(std::move(checked)) {}

}  // namespace tessarin::engine
