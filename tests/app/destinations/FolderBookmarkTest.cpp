#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "app/destinations/FolderBookmark.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

TEST(FolderBookmark, ResolvesTheSameFolderAsNotStale) {
    test::TempDir temp;
    const fs::path folder = temp / "Exports";
    fs::create_directory(folder);

    const FolderBookmark bookmark = FolderBookmark::make(folder);
    EXPECT_EQ(bookmark.path(), fs::canonical(folder));
    EXPECT_FALSE(bookmark.mountRoot());
    EXPECT_EQ(FolderBookmark::fromData(bookmark.data()), bookmark);

    EXPECT_EQ(FolderBookmark::resolve(bookmark.data()),
              (ResolvedBookmark{fs::canonical(folder), false}));
}

TEST(FolderBookmark, KeepsWhereSymbolicLinksLead) {
    test::TempDir temp;
    fs::create_directories(temp / "real" / "Exports");
    fs::create_directory_symlink(temp / "real", temp / "link");

    const FolderBookmark bookmark = FolderBookmark::make(temp / "link" / "." / "Exports");
    EXPECT_EQ(bookmark.path(), fs::canonical(temp / "real" / "Exports"));

    // ".." after a link climbs from where the link led, as the kernel's own lookup does.
    const FolderBookmark throughLink = FolderBookmark::make(temp / "link" / ".." / "link");
    EXPECT_EQ(throughLink.path(), fs::canonical(temp / "real"));
}

TEST(FolderBookmark, FolderReplacedAtTheSamePathIsStale) {
    test::TempDir temp;
    const fs::path folder = temp / "Exports";
    fs::create_directory(folder);
    const std::string data = FolderBookmark::make(folder).data();
    // Keep the old folder's inode in use so that the new one can't be given the same number.
    fs::rename(folder, temp / "Old Exports");
    fs::create_directory(folder);

    EXPECT_EQ(FolderBookmark::resolve(data), (ResolvedBookmark{fs::canonical(folder), true}));
}

TEST(FolderBookmark, FolderReachedThroughANewLinkIsStaleWithItsNewPath) {
    test::TempDir temp;
    fs::create_directories(temp / "Videos" / "Exports");
    const std::string data = FolderBookmark::make(temp / "Videos" / "Exports").data();
    fs::rename(temp / "Videos", temp / "Moved");
    fs::create_directory_symlink(temp / "Moved", temp / "Videos");

    EXPECT_EQ(FolderBookmark::resolve(data),
              (ResolvedBookmark{fs::canonical(temp / "Moved" / "Exports"), true}));
}

TEST(FolderBookmark, GoneOrNotAFolderDoesNotResolve) {
    test::TempDir temp;
    const fs::path folder = temp / "Exports";
    fs::create_directory(folder);
    const std::string data = FolderBookmark::make(folder).data();

    fs::remove(folder);
    EXPECT_EQ(FolderBookmark::resolve(data), std::nullopt);

    { std::ofstream file(folder); }
    EXPECT_EQ(FolderBookmark::resolve(data), std::nullopt);
}

TEST(FolderBookmark, MakeRefusesWhatIsNotAFolder) {
    test::TempDir temp;
    { std::ofstream file(temp / "clip.mov"); }
    EXPECT_THROW((void)FolderBookmark::make(temp / "clip.mov"), FolderBookmark::MakeError);
    EXPECT_THROW((void)FolderBookmark::make(temp / "missing"), FolderBookmark::MakeError);
    EXPECT_THROW((void)FolderBookmark::make("relative/folder"), FolderBookmark::MakeError);
    EXPECT_THROW((void)FolderBookmark::make(temp / "clip.mov" / "inside"),
                 FolderBookmark::MakeError);
}

TEST(FolderBookmark, UnreadableDataDoesNotResolve) {
    for (const char* data :
         {"", "not json", "[]", R"({"path":"/tmp"})", R"({"path":"relative","device":1,"inode":2})",
          R"({"path":"/tmp","device":-1,"inode":2})"}) {
        EXPECT_EQ(FolderBookmark::resolve(data), std::nullopt) << data;
    }
}

// A drive's own root folder leaves an empty mount point behind when the drive goes. Here a real
// mount root's bookmark is pointed at a plain folder, which is what such a path then shows.
TEST(FolderBookmark, RootOfAnUnmountedFileSystemDoesNotResolve) {
    const FolderBookmark mounted = FolderBookmark::make("/proc");
    ASSERT_TRUE(mounted.mountRoot());
    ASSERT_TRUE(FolderBookmark::resolve(mounted.data()));

    test::TempDir temp;
    const fs::path mountPoint = temp / "Drive";
    fs::create_directory(mountPoint);
    json data = json::parse(mounted.data());
    data["path"] = mountPoint.string();

    EXPECT_EQ(FolderBookmark::resolve(data.dump()), std::nullopt);
}

}  // namespace
}  // namespace tessarin::app
