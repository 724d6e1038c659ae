// The sentences of output destinations: what an item fails with, and what the drop panel and
// the settings view show.
#pragma once

#include <cstddef>
#include <string_view>

namespace tessarin::app {

// The `unavailable` sentences of a custom folder.
inline constexpr std::string_view kNoOutputFolderSentence =
    "No output folder is set. Choose one in Settings ▸ General ▸ Output.";
inline constexpr std::string_view kOutputFolderUnavailableSentence =
    "The output folder is no longer available (was the drive disconnected?). Choose a new one in "
    "Settings ▸ General ▸ Output.";

// Shown when a chosen folder can't be remembered.
inline constexpr std::string_view kFolderChoiceFailedSentence =
    "Couldn’t save that folder choice — the previous folder is still in use.";

// The folder panel of the settings action.
inline constexpr std::string_view kChooseOutputFolderMessage =
    "Choose a folder for converted videos";
inline constexpr std::string_view kChooseOutputFolderPrompt = "Choose";

// The folder panel of a window drop under "Ask each time".
inline constexpr std::string_view kDropPanelMessageOne = "Choose where to save this conversion";
inline constexpr std::string_view kDropPanelMessageMany = "Choose where to save these conversions";

[[nodiscard]] constexpr std::string_view dropPanelMessage(std::size_t fileCount) {
    return fileCount == 1 ? kDropPanelMessageOne : kDropPanelMessageMany;
}

// The settings view.
inline constexpr std::string_view kOutputModeLabel = "Save converted files:";
inline constexpr std::string_view kSameFolderChoice = "Same folder as the original";
inline constexpr std::string_view kCustomFolderChoice = "Custom folder…";
inline constexpr std::string_view kAskEachTimeChoice = "Ask each time";
inline constexpr std::string_view kChooseFolderButton = "Choose Folder…";
inline constexpr std::string_view kOutputSettingsNote =
    "Files from subfolders are saved together in the chosen folder (the folder structure is "
    "flattened; same-named files get a “-2” suffix). File-manager actions and tessarin:// links "
    "follow this setting; “Ask each time” applies to window drops only.";
inline constexpr std::string_view kNoFolderChosenSentence =
    "No folder chosen — pick one, or conversions will fail.";
inline constexpr std::string_view kFolderMissingSentence =
    "Not available right now — conversions to it will fail until it’s back.";

}  // namespace tessarin::app
