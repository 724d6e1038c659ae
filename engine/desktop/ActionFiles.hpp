// The files through which Linux file managers offer "Convert with Tessarin": a Nautilus script,
// a Dolphin service menu and a Nemo action for each helper action, each running
// `tessarin-action NAME FILES…`. What is written, where, and how a file found there is read back.
//
// Every file carries the marker `X-Tessarin-Action=NAME` (a comment line in a script, a key in the
// .desktop-style files); a file without it was not made by Tessarin and is never touched.
#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "engine/intake/HelperActions.hpp"

namespace tessarin::engine {

enum class FileManager { nautilus, dolphin, nemo };

inline constexpr std::array<FileManager, 3> kFileManagers{FileManager::nautilus,
                                                           FileManager::dolphin, FileManager::nemo};

// "Nautilus", "Dolphin", "Nemo"; and the lower-case word used in settings and --json.
[[nodiscard]] std::string_view fileManagerTitle(FileManager manager);
[[nodiscard]] std::string_view fileManagerKey(FileManager manager);

// The submenu (Nautilus folder, Dolphin submenu) and prefix (Nemo) of every entry.
inline constexpr std::string_view kActionMenuTitle = "Convert with Tessarin";

// The menu text of one action: the built-in preset's display name, or
// "Transcribe speech to text".
[[nodiscard]] std::string actionMenuName(const HelperAction& action);

// Where the file of `action` lies for `manager` under `dataHome` ($XDG_DATA_HOME):
// nautilus/scripts/Convert with Tessarin/<menu name>, kio/servicemenus/com.tessarin.Tessarin.<name>.desktop,
// nemo/actions/com.tessarin.Tessarin.<name>.nemo_action.
[[nodiscard]] std::filesystem::path actionFilePath(const std::filesystem::path& dataHome,
                                                   FileManager manager,
                                                   const HelperAction& action);

// The exact text Tessarin writes for `action`, running `helper` (an absolute path).
[[nodiscard]] std::string actionFileText(FileManager manager, const HelperAction& action,
                                         const std::filesystem::path& helper);

// Whether the file manager shows the file only when it is executable (Nautilus scripts, Dolphin
// service menus).
[[nodiscard]] bool actionFileMustBeExecutable(FileManager manager);

// What a file found at an action's place says about itself. `action` is absent when the marker is
// missing (a foreign file); `helper` is the program its command runs, when it can be read.
struct ActionFileReading {
    std::optional<std::string> action;
    std::optional<std::filesystem::path> helper;
};

// Reads back at most the first 64 KiB of `text`; never throws.
[[nodiscard]] ActionFileReading readActionFile(FileManager manager, std::string_view text);

}  // namespace tessarin::engine
