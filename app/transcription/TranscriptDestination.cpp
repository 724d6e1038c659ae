#include "app/transcription/TranscriptDestination.hpp"

#include "app/destinations/FolderBookmark.hpp"
#include "engine/log/Log.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::app {

namespace {

const engine::Logger& log() {
    static const engine::Logger logger("com.tessarin.transcription", "destination");
    return logger;
}

}  // namespace

std::string_view rawValue(TranscriptOutputMode mode) {
    return mode == TranscriptOutputMode::customFolder ? "customFolder" : "sameFolder";
}

TranscriptOutputMode transcriptOutputModeFromRaw(std::string_view raw) {
    return raw == "customFolder" ? TranscriptOutputMode::customFolder
                                 : TranscriptOutputMode::sameFolder;
}

TranscriptDestination::Resolution TranscriptDestination::resolve(engine::SettingsStore& defaults) {
    using Kind = Resolution::Kind;
    if (transcriptOutputModeFromRaw(defaults.stringValue(kModeKey).value_or("")) !=
        TranscriptOutputMode::customFolder) {
        return {Kind::sameFolder, {}};
    }
    const std::optional<std::string> data = defaults.dataValue(kBookmarkKey);
    const std::optional<ResolvedBookmark> found =
        data ? FolderBookmark::resolve(*data) : std::nullopt;
    if (!found) {
        log().notice(engine::logLine({{"event", "transcript-folder-unavailable"}}));
        return {Kind::unavailable, {}};
    }
    if (found->stale) {
        try {
            defaults.setData(kBookmarkKey, FolderBookmark::make(found->path).data());
            defaults.setString(kPathKey, found->path.string());
        } catch (const std::exception&) {
            // The folder still serves this run; the stale bookmark is made again next time.
            log().error(engine::logLine({{"event", "transcript-bookmark-refresh-failed"}}));
        }
    }
    return {Kind::folder, found->path};
}

void TranscriptDestination::chooseFolder(engine::SettingsStore& defaults,
                                         const std::filesystem::path& folder) {
    const FolderBookmark bookmark = FolderBookmark::make(folder);
    defaults.setData(kBookmarkKey, bookmark.data());
    defaults.setString(kPathKey, bookmark.path().string());
    defaults.setString(kModeKey, rawValue(TranscriptOutputMode::customFolder));
}

}  // namespace tessarin::app
