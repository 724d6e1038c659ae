// Where transcripts go, resolved from a real settings file and real folders.
#include <gtest/gtest.h>

#include <filesystem>

#include "app/transcription/TranscriptDestination.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using Kind = TranscriptDestination::Resolution::Kind;

TEST(TranscriptDestination, ResolvesTheModeAndTheBookmarkedFolder) {
    test::TempDir home;
    engine::SettingsStore defaults(home / "settings.json");
    EXPECT_EQ(TranscriptDestination::resolve(defaults).kind, Kind::sameFolder);

    defaults.setString(TranscriptDestination::kModeKey, "customFolder");
    EXPECT_EQ(TranscriptDestination::resolve(defaults).kind, Kind::unavailable);  // no bookmark

    const fs::path folder = home / "Transcripts";
    fs::create_directory(folder);
    TranscriptDestination::chooseFolder(defaults, folder);
    const TranscriptDestination::Resolution chosen = TranscriptDestination::resolve(defaults);
    EXPECT_EQ(chosen.kind, Kind::folder);
    EXPECT_EQ(fs::canonical(chosen.folder), fs::canonical(folder));
    EXPECT_EQ(defaults.stringValue(TranscriptDestination::kPathKey),
              fs::canonical(folder).string());

    // Another folder now at the path: the bookmark is stale, made again, and the folder serves.
    fs::rename(folder, home / "Moved");
    EXPECT_EQ(TranscriptDestination::resolve(defaults).kind, Kind::unavailable);
    fs::create_directory(folder);
    const std::string before = *defaults.dataValue(TranscriptDestination::kBookmarkKey);
    EXPECT_EQ(TranscriptDestination::resolve(defaults).kind, Kind::folder);
    EXPECT_NE(*defaults.dataValue(TranscriptDestination::kBookmarkKey), before);

    defaults.setString(TranscriptDestination::kModeKey, "somewhereNew");
    EXPECT_EQ(TranscriptDestination::resolve(defaults).kind, Kind::sameFolder);
}

}  // namespace
}  // namespace tessarin::app
