#include <gtest/gtest.h>
#include <sys/stat.h>

#include "engine/publish/OutputNames.hpp"
#include "engine/publish/Sweeps.hpp"
#include "tests/engine/publish/PublishTestSupport.hpp"

namespace tessarin::engine {
namespace {

using testing::entryNames;
using testing::setAge;
using testing::TempDir;
using testing::writeFile;
namespace fs = std::filesystem;

// A folder with one file in it, both of the given ages.
void makeAgedFolder(const fs::path& folder, int64_t folderAge, int64_t childAge) {
    fs::create_directory(folder);
    writeFile(folder / "palette.png", "x");
    setAge(folder / "palette.png", childAge);
    setAge(folder, folderAge);
}

TEST(SweepTemporaryDirectory, RemovesOnlyExactNamesOlderThanSixHours) {
    TempDir dir;
    const int64_t old = kStaleWorkFolderSeconds + 60;
    makeAgedFolder(dir / "tessarin-work-0a1b2c3d", old, old);
    makeAgedFolder(dir / "tessarin-work-11111111", 60, 60);          // fresh
    makeAgedFolder(dir / "tessarin-work-22222222", old, 60);         // fresh content
    makeAgedFolder(dir / "tessarin-work-3333333", old, old);         // 7 digits
    makeAgedFolder(dir / "tessarin-work-4444444x", old, old);        // not hex
    makeAgedFolder(dir / "tessarin-work-55555555-extra", old, old);  // longer
    writeFile(dir / "tessarin-work-66666666", "a file, not a folder");
    setAge(dir / "tessarin-work-66666666", old);
    fs::create_directory(dir / "target");
    makeAgedFolder(dir / "target" / "inner", old, old);
    ASSERT_EQ(::symlink((dir / "target").c_str(), (dir / "tessarin-work-77777777").c_str()), 0);
    setAge(dir / "tessarin-work-77777777", old);

    sweepTemporaryDirectory(dir.path());

    EXPECT_EQ(entryNames(dir.path()),
              (std::set<std::string>{"tessarin-work-11111111", "tessarin-work-22222222",
                                     "tessarin-work-3333333", "tessarin-work-4444444x",
                                     "tessarin-work-55555555-extra", "tessarin-work-66666666",
                                     "target", "tessarin-work-77777777"}));
    EXPECT_TRUE(fs::exists(dir / "target" / "inner" / "palette.png"));
}

TEST(SweepOutputFolder, RemovesStaleTemporaryFilesWorkFoldersAndScratches) {
    TempDir dir;
    const int64_t tenMinutes = kStaleTemporaryFileSeconds;
    writeFile(dir / ".converting-0a1b2c3d-a.mp4", "old");
    setAge(dir / ".converting-0a1b2c3d-a.mp4", tenMinutes);
    writeFile(dir / ".converting-1a1b2c3d-opt-a.gif", "old");
    setAge(dir / ".converting-1a1b2c3d-opt-a.gif", tenMinutes + 5);
    writeFile(dir / ".converting-2a1b2c3d-a.mp4", "fresh");
    setAge(dir / ".converting-2a1b2c3d-a.mp4", tenMinutes - 30);
    writeFile(dir / ".converting-3a1b2c3-a.mp4", "7 digits");
    setAge(dir / ".converting-3a1b2c3-a.mp4", tenMinutes * 2);
    fs::create_directory(dir / ".converting-4a1b2c3d-folder");
    setAge(dir / ".converting-4a1b2c3d-folder", tenMinutes * 2);
    writeFile(dir / "a.mp4", "the user's file");
    setAge(dir / "a.mp4", kStaleWorkFolderSeconds * 2);
    makeAgedFolder(dir / "tessarin-work-5a1b2c3d", tenMinutes + 1, tenMinutes + 1);
    makeAgedFolder(dir / "tessarin-work-6a1b2c3d", tenMinutes + 1, 10);
    const std::string oldScratch = newScratchName();
    const std::string youngScratch = newScratchName();
    makeAgedFolder(dir / oldScratch, kStaleWorkFolderSeconds, kStaleWorkFolderSeconds);
    makeAgedFolder(dir / youngScratch, kStaleWorkFolderSeconds, tenMinutes * 2);

    sweepOutputFolder(dir.path());

    EXPECT_EQ(entryNames(dir.path()),
              (std::set<std::string>{".converting-2a1b2c3d-a.mp4", ".converting-3a1b2c3-a.mp4",
                                     ".converting-4a1b2c3d-folder", "a.mp4",
                                     "tessarin-work-6a1b2c3d", youngScratch}));
}

}  // namespace
}  // namespace tessarin::engine
