#include <acl/libacl.h>
#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

#include "engine/model/JobFailure.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "tests/engine/publish/PublishTestSupport.hpp"

namespace tessarin::engine {
namespace {

using testing::isRoot;
using testing::TempDir;
namespace fs = std::filesystem;

constexpr uid_t kNobody = 65534;

void makeFolder(const fs::path& path, mode_t mode) {
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0) << path;
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

void setAcl(const fs::path& path, acl_type_t type, const char* text) {
    acl_t acl = acl_from_text(text);
    ASSERT_NE(acl, nullptr) << text;
    ASSERT_EQ(acl_set_file(path.c_str(), type, acl), 0) << std::strerror(errno);
    acl_free(acl);
}

// The number of entries of an ACL of `path`; 3 for an access ACL that only mirrors the mode.
int aclEntries(const fs::path& path, acl_type_t type) {
    acl_t acl = acl_get_file(path.c_str(), type);
    if (acl == nullptr) {
        return -1;
    }
    const int entries = acl_entries(acl);
    acl_free(acl);
    return entries;
}

int makePrivateFolderError(const fs::path& path) {
    try {
        makePrivateFolder(path);
        return 0;
    } catch (const std::system_error& error) {
        return error.code().value();
    }
}

TEST(MakePrivateFolder, CreatesAnOwnerOnlyFolderWithoutInheritedAclEntries) {
    TempDir dir;
    const fs::path parent = dir / "parent";
    makeFolder(parent, 0755);
    setAcl(parent, ACL_TYPE_DEFAULT, "u::rwx,g::rwx,o::rwx,u:65534:rwx,m::rwx");

    const fs::path folder = parent / newWorkFolderName();
    makePrivateFolder(folder);

    struct stat st {};
    ASSERT_EQ(::lstat(folder.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    EXPECT_EQ(st.st_uid, ::geteuid());
    EXPECT_EQ(aclEntries(folder, ACL_TYPE_ACCESS), 3);
    EXPECT_EQ(aclEntries(folder, ACL_TYPE_DEFAULT), 0);
    // A second folder of the same name is refused rather than reused.
    EXPECT_EQ(makePrivateFolderError(folder), EEXIST);
}

TEST(MakePrivateFolder, RefusedUnderParentsOthersCanChange) {
    TempDir dir;
    const fs::path open = dir / "world-writable";
    makeFolder(open, 0777);
    EXPECT_FALSE(isProtectedDirectory(open));
    EXPECT_EQ(makePrivateFolderError(open / "tessarin-work-00000000"), EACCES);
    EXPECT_FALSE(fs::exists(open / "tessarin-work-00000000"));

    const fs::path groupWritable = dir / "group-writable";
    makeFolder(groupWritable, 0775);
    EXPECT_EQ(makePrivateFolderError(groupWritable / "w"), EACCES);

    // Sticky, like /tmp: others may add names but never remove or replace ours.
    const fs::path sticky = dir / "sticky";
    makeFolder(sticky, 01777);
    EXPECT_TRUE(isProtectedDirectory(sticky));
    EXPECT_EQ(makePrivateFolderError(sticky / "w"), 0);

    const fs::path aclWritable = dir / "acl-writable";
    makeFolder(aclWritable, 0755);
    setAcl(aclWritable, ACL_TYPE_ACCESS, "u::rwx,g::r-x,o::r-x,u:65534:rwx,m::r-x");
    EXPECT_FALSE(isProtectedDirectory(aclWritable));  // the named entry carries write
    const fs::path aclReadOnly = dir / "acl-read-only";
    makeFolder(aclReadOnly, 0755);
    setAcl(aclReadOnly, ACL_TYPE_ACCESS, "u::rwx,g::r-x,o::r-x,u:65534:r-x,m::r-x");
    EXPECT_TRUE(isProtectedDirectory(aclReadOnly));

    EXPECT_FALSE(isProtectedDirectory(dir / "missing"));
}

TEST(MakePrivateFolder, RefusedUnderAParentOwnedByAnotherUser) {
    if (!isRoot()) {
        GTEST_SKIP() << "chown to nobody needs root";
    }
    TempDir dir;
    const fs::path foreign = dir / "foreign";
    makeFolder(foreign, 0755);
    ASSERT_EQ(::chown(foreign.c_str(), kNobody, kNobody), 0);
    EXPECT_FALSE(isProtectedDirectory(foreign));
    EXPECT_EQ(makePrivateFolderError(foreign / "w"), EACCES);
}

TEST(MakePrivateFolder, RefusesSymbolicLinksPlantedInThePath) {
    TempDir dir;
    const fs::path open = dir / "open";
    makeFolder(open, 0777);
    const fs::path safe = dir / "safe";
    makeFolder(safe, 0755);

    // The parent is a link to a folder others can change.
    ASSERT_EQ(::symlink(open.c_str(), (dir / "link-to-open").c_str()), 0);
    EXPECT_FALSE(isProtectedDirectory(dir / "link-to-open"));
    EXPECT_EQ(makePrivateFolderError(dir / "link-to-open" / "w"), EACCES);

    // The folder's own name is taken by a link: nothing is created through it.
    ASSERT_EQ(::symlink(open.c_str(), (safe / "w").c_str()), 0);
    EXPECT_EQ(makePrivateFolderError(safe / "w"), EEXIST);
    EXPECT_TRUE(testing::entryNames(open).empty());

    if (isRoot()) {
        // A link planted by another user, even to a protected folder.
        ASSERT_EQ(::symlink(safe.c_str(), (dir / "foreign-link").c_str()), 0);
        ASSERT_EQ(::lchown((dir / "foreign-link").c_str(), kNobody, kNobody), 0);
        EXPECT_FALSE(isProtectedDirectory(dir / "foreign-link"));
        EXPECT_EQ(makePrivateFolderError(dir / "foreign-link" / "x"), EACCES);
    }
    // A link of our own to a protected folder is fine.
    ASSERT_EQ(::symlink(safe.c_str(), (dir / "own-link").c_str()), 0);
    EXPECT_TRUE(isProtectedDirectory(dir / "own-link"));
}

TEST(MakeScratch, MakesASealedHiddenFolderInAProtectedDestination) {
    TempDir dir;
    const fs::path destination = dir / "out";
    makeFolder(destination, 0755);
    setAcl(destination, ACL_TYPE_DEFAULT, "u::rwx,g::r-x,o::r-x,u:65534:rwx,m::rwx");
    const fs::path scratch = makeScratch(destination);
    EXPECT_EQ(scratch.parent_path(), destination);
    EXPECT_TRUE(isScratchName(scratch.filename().string()));
    struct stat st {};
    ASSERT_EQ(::lstat(scratch.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    EXPECT_EQ(aclEntries(scratch, ACL_TYPE_ACCESS), 3);
    EXPECT_EQ(aclEntries(scratch, ACL_TYPE_DEFAULT), 0);
}

TEST(MakeScratch, RefusesUnprotectedAndUnsuitableDestinations) {
    TempDir dir;
    const fs::path open = dir / "open";
    makeFolder(open, 0777);
    try {
        (void)makeScratch(open);
        FAIL() << "an unprotected destination was accepted";
    } catch (const JobFailure& failure) {
        EXPECT_EQ(failure, JobFailure("scratch", EACCES, std::string(kNoProtectedNamespace)));
    }
    EXPECT_TRUE(testing::entryNames(open).empty());

    const fs::path good = dir / "good";
    makeFolder(good, 0755);
    for (const VolumeFacts facts :
         {VolumeFacts{false, false, false}, VolumeFacts{true, true, true}}) {
        VolumeOverrides overrides;
        overrides.volumeFactsOverride = [&](const fs::path&) { return facts; };
        try {
            (void)makeScratch(good, overrides);
            FAIL() << "an unsuitable volume was accepted";
        } catch (const JobFailure& failure) {
            EXPECT_EQ(failure, JobFailure("destination", EOPNOTSUPP,
                                          std::string(kCannotProtectUnfinishedMedia)));
        }
    }
    EXPECT_TRUE(testing::entryNames(good).empty());
}

TEST(TemporaryRoot, TakesTmpdirOnlyWhenItIsSafe) {
    TempDir dir;
    const fs::path safe = dir / "safe";
    makeFolder(safe, 0700);
    const fs::path open = dir / "open";
    makeFolder(open, 0777);
    const fs::path fallback = "/tmp";
    EXPECT_EQ(temporaryRoot({}), fallback);
    EXPECT_EQ(temporaryRoot({{"TMPDIR", safe.string()}}), safe);
    EXPECT_EQ(temporaryRoot({{"TMPDIR", "relative/folder"}}), fallback);
    EXPECT_EQ(temporaryRoot({{"TMPDIR", (dir / "missing").string()}}), fallback);
    EXPECT_EQ(temporaryRoot({{"TMPDIR", open.string()}}), fallback);
    if (isRoot()) {
        const fs::path foreign = dir / "foreign";
        makeFolder(foreign, 0700);
        ASSERT_EQ(::chown(foreign.c_str(), kNobody, kNobody), 0);
        EXPECT_EQ(temporaryRoot({{"TMPDIR", foreign.string()}}), fallback);
    }
}

}  // namespace
}  // namespace tessarin::engine
