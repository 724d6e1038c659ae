// Where transcripts go, as the user set it: beside each source, or in one chosen folder kept as a
// bookmark. Settings keys "transcriptOutputMode" ("sameFolder" or "customFolder"),
// "transcriptFolderBookmark" (the bookmark's data) and "transcriptFolderPath" (its path, for
// display).
#pragma once

#include <filesystem>
#include <string_view>

namespace tessarin::engine {
class SettingsStore;
}

namespace tessarin::app {

enum class TranscriptOutputMode { sameFolder, customFolder };

// "sameFolder" or "customFolder"; anything else (or nothing stored) reads as sameFolder.
[[nodiscard]] std::string_view rawValue(TranscriptOutputMode mode);
[[nodiscard]] TranscriptOutputMode transcriptOutputModeFromRaw(std::string_view raw);

struct TranscriptDestination {
    static constexpr const char* kModeKey = "transcriptOutputMode";
    static constexpr const char* kBookmarkKey = "transcriptFolderBookmark";
    static constexpr const char* kPathKey = "transcriptFolderPath";

    struct Resolution {
        enum class Kind { folder, sameFolder, unavailable };
        Kind kind = Kind::sameFolder;
        std::filesystem::path folder;  // for Kind::folder

        bool operator==(const Resolution&) const = default;
    };

    // sameFolder for that mode; for customFolder the bookmarked folder, or unavailable when no
    // bookmark is stored or it no longer leads to a folder. A stale bookmark (the folder was
    // moved or replaced at its path) gives the folder now at the path and is made again and
    // stored. Blocking (file-system lookups); never mounts anything.
    [[nodiscard]] static Resolution resolve(engine::SettingsStore& defaults);

    // Chooses `folder` for transcripts: stores its bookmark and path and the customFolder mode.
    // Throws FolderBookmark::MakeError when no bookmark can be made of it, and what the settings
    // store throws.
    static void chooseFolder(engine::SettingsStore& defaults, const std::filesystem::path& folder);
};

}  // namespace tessarin::app
