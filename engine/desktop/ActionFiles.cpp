#include "engine/desktop/ActionFiles.hpp"

#include <fmt/format.h>

#include "engine/model/Preset.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kMarkerKey = "X-Tessarin-Action=";
constexpr std::string_view kMimeTypes = "video/*;";
constexpr std::size_t kReadLimit = 64 * 1024;

// A word for a POSIX shell: single quotes, a quote inside written as '\''.
std::string shellQuoted(std::string_view text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

// An argument of a desktop entry's Exec key: "%" written "%%" (a literal percent, not a field
// code); quoted when it holds a reserved character, with `"`, `` ` ``, `$` and `\` escaped inside
// the quotes; then `\` doubled again, since the value is a string of the file format.
std::string execArgument(std::string_view raw) {
    std::string percents;
    for (const char c : raw) {
        percents += c == '%' ? std::string("%%") : std::string(1, c);
    }
    const std::string_view text = percents;
    constexpr std::string_view kReserved = " \t\n\"'\\><~|&;$*?#()`%";
    std::string argument;
    if (text.find_first_of(kReserved) == std::string_view::npos) {
        argument = text;
    } else {
        argument = "\"";
        for (const char c : text) {
            if (c == '"' || c == '`' || c == '$' || c == '\\') {
                argument += '\\';
            }
            argument += c;
        }
        argument += "\"";
    }
    std::string escaped;
    for (const char c : argument) {
        if (c == '\\') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

// The first word of an Exec value, undoing execArgument.
std::optional<std::string> firstExecArgument(std::string_view value) {
    std::string unescaped;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) {
            ++i;
        }
        unescaped += value[i];
    }
    if (unescaped.empty()) {
        return std::nullopt;
    }
    std::string word;
    if (unescaped.front() != '"') {
        word = unescaped.substr(0, unescaped.find(' '));
    } else {
        bool closed = false;
        for (std::size_t i = 1; i < unescaped.size() && !closed; ++i) {
            if (unescaped[i] == '\\' && i + 1 < unescaped.size()) {
                word += unescaped[++i];
            } else if (unescaped[i] == '"') {
                closed = true;
            } else {
                word += unescaped[i];
            }
        }
        if (!closed) {
            return std::nullopt;
        }
    }
    // "%%" is a literal percent.
    std::string plain;
    for (std::size_t i = 0; i < word.size(); ++i) {
        plain += word[i];
        if (word[i] == '%' && i + 1 < word.size() && word[i + 1] == '%') {
            ++i;
        }
    }
    return plain;
}

// The word of a shell line `exec 'helper' …` as written by shellQuoted.
std::optional<std::string> firstShellWord(std::string_view line) {
    if (line.empty() || line.front() != '\'') {
        return std::nullopt;
    }
    std::string word;
    std::size_t i = 1;
    while (i < line.size()) {
        if (line[i] != '\'') {
            word += line[i++];
            continue;
        }
        if (line.substr(i, 4) == "'\\''") {
            word += '\'';
            i += 4;
            continue;
        }
        return word;
    }
    return std::nullopt;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.back() == '\r' || text.back() == ' ')) {
        text.remove_suffix(1);
    }
    return text;
}

}  // namespace

std::string_view fileManagerTitle(FileManager manager) {
    switch (manager) {
        case FileManager::nautilus: return "Nautilus";
        case FileManager::dolphin: return "Dolphin";
        case FileManager::nemo: return "Nemo";
    }
    return "";
}

std::string_view fileManagerKey(FileManager manager) {
    switch (manager) {
        case FileManager::nautilus: return "nautilus";
        case FileManager::dolphin: return "dolphin";
        case FileManager::nemo: return "nemo";
    }
    return "";
}

std::string actionMenuName(const HelperAction& action) {
    if (const Preset* preset = Preset::builtin(action.presetID)) {
        return preset->displayName;
    }
    return "Transcribe speech to text";
}

fs::path actionFilePath(const fs::path& dataHome, FileManager manager,
                        const HelperAction& action) {
    switch (manager) {
        case FileManager::nautilus:
            return dataHome / "nautilus" / "scripts" / std::string(kActionMenuTitle) /
                   actionMenuName(action);
        case FileManager::dolphin:
            return dataHome / "kio" / "servicemenus" /
                   fmt::format("com.tessarin.Tessarin.{}.desktop", action.name);
        case FileManager::nemo:
            return dataHome / "nemo" / "actions" /
                   fmt::format("com.tessarin.Tessarin.{}.nemo_action", action.name);
    }
    return {};
}

std::string actionFileText(FileManager manager, const HelperAction& action,
                           const fs::path& helper) {
    const std::string name = actionMenuName(action);
    switch (manager) {
        case FileManager::nautilus:
            // Nautilus passes the selected local files as arguments.
            return fmt::format(
                "#!/bin/sh\n# {}{}\n# Made by Tessarin; `tessarin actions remove` removes it.\n"
                "exec {} {} \"$@\"\n",
                kMarkerKey, action.name, shellQuoted(helper.string()), shellQuoted(action.name));
        case FileManager::dolphin:
            return fmt::format(
                "[Desktop Entry]\nType=Service\nName={}\nX-KDE-ServiceTypes=KonqPopupMenu/Plugin\n"
                "MimeType={}\nActions=convert;\nX-KDE-Submenu={}\n{}{}\n\n"
                "[Desktop Action convert]\nName={}\nIcon=com.tessarin.Tessarin\nExec={} {} %F\n",
                kActionMenuTitle, kMimeTypes, kActionMenuTitle, kMarkerKey, action.name, name,
                execArgument(helper.string()), action.name);
        case FileManager::nemo:
            return fmt::format(
                "[Nemo Action]\nName={}: {}\nComment={}\nIcon-Name=com.tessarin.Tessarin\n"
                "Exec={} {} %F\nSelection=notnone\nMimetypes={}\n{}{}\n",
                kActionMenuTitle, name, name, execArgument(helper.string()), action.name,
                kMimeTypes, kMarkerKey, action.name);
    }
    return {};
}

bool actionFileMustBeExecutable(FileManager manager) {
    return manager != FileManager::nemo;
}

ActionFileReading readActionFile(FileManager manager, std::string_view text) {
    text = text.substr(0, kReadLimit);
    ActionFileReading reading;
    const std::string_view marker =
        manager == FileManager::nautilus ? std::string_view("# X-Tessarin-Action=") : kMarkerKey;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        const std::string_view line = trimmed(text.substr(start, end - start));
        start = end + 1;
        if (line.starts_with(marker) && !reading.action) {
            reading.action = std::string(line.substr(marker.size()));
        } else if (manager == FileManager::nautilus && line.starts_with("exec ") &&
                   !reading.helper) {
            if (auto word = firstShellWord(line.substr(5))) {
                reading.helper = fs::path(*word);
            }
        } else if (manager != FileManager::nautilus && line.starts_with("Exec=") &&
                   !reading.helper) {
            if (auto word = firstExecArgument(line.substr(5))) {
                reading.helper = fs::path(*word);
            }
        }
    }
    return reading;
}

}  // namespace tessarin::engine
