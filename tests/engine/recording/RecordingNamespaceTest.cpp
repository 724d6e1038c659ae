#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "engine/recording/RecordingError.hpp"
#include "engine/recording/RecordingNamespace.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using Case = RecordingError::Case;
using test::TempDir;

Case caseOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const RecordingError& error) {
        return error.kind;
    }
    ADD_FAILURE() << "no RecordingError";
    return Case::timedOut;
}

int runSetfacl(const std::string& entry, const fs::path& path) {
    const std::string command = "setfacl -m '" + entry + "' '" + path.string() + "' 2>/dev/null";
    return std::system(command.c_str());
}

TEST(RecordingNamespace, TakeFoldersArePrivateAndOnlyPrivateOnesAreUsed) {
    const TempDir temp;
    const fs::path root = temp / "data/tessarin/Tessarin Recording Recovery";
    RecordingNamespace::validateRoot(root);
    { const FileDescriptor fd = RecordingNamespace::openPrivate(root, true); }
    struct stat st {};
    ASSERT_EQ(::stat(root.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);

    // A root whose mode was loosened is repaired on creation.
    ::chmod(root.c_str(), 0755);
    { const FileDescriptor fd = RecordingNamespace::openPrivate(root, true); }
    ASSERT_EQ(::stat(root.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);

    const fs::path take = RecordingNamespace::createTakeFolder(root);
    EXPECT_TRUE(RecordingNamespace::takeId(take.filename().string()).has_value());
    { std::ofstream(take / "take.json") << "{}"; }
    EXPECT_TRUE(RecordingNamespace::isUnfinishedTake(take));

    // A take whose mode was changed to 0755 is not offered, and is not opened as private.
    ::chmod(take.c_str(), 0755);
    EXPECT_FALSE(RecordingNamespace::isUnfinishedTake(take));
    EXPECT_THROW((void)RecordingNamespace::acquire(take), std::system_error);
    ::chmod(take.c_str(), 0700);

    // ACL entries that grant a named user anything fail the test; entries granting nothing pass.
    if (runSetfacl("u:nobody:---", take) == 0) {
        EXPECT_TRUE(RecordingNamespace::isUnfinishedTake(take));
        ASSERT_EQ(runSetfacl("u:nobody:r-x", take), 0);
        EXPECT_FALSE(RecordingNamespace::isUnfinishedTake(take));
    } else {
        GTEST_LOG_(INFO) << "setfacl unavailable here; ACL cases not run";
    }

    // A link planted in the path to the root is refused.
    const fs::path elsewhere = temp / "elsewhere";
    fs::create_directories(elsewhere);
    ::chmod(elsewhere.c_str(), 0777);
    fs::create_directory_symlink(elsewhere, temp / "linked");
    EXPECT_EQ(caseOf([&] { RecordingNamespace::validateRoot(temp / "linked/root"); }),
              Case::unsupportedRecordingStorage);
    EXPECT_THROW((void)RecordingNamespace::openPrivate(temp / "linked", false), std::system_error);
}

TEST(RecordingNamespace, LeaseExcludesOthersUntilItsHolderDiesEvenByKill) {
    const TempDir temp;
    const fs::path root = temp / "root";
    { const FileDescriptor fd = RecordingNamespace::openPrivate(root, true); }
    const fs::path take = RecordingNamespace::createTakeFolder(root);
    { std::ofstream(take / "take.json") << "{}"; }

    {
        const RecordingNamespace::Lease held = RecordingNamespace::acquire(take);
        EXPECT_EQ(caseOf([&] { (void)RecordingNamespace::acquire(take); }), Case::recordingInUse);
        EXPECT_FALSE(RecordingNamespace::isUnfinishedTake(take));
    }
    EXPECT_TRUE(RecordingNamespace::isUnfinishedTake(take));

    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        try {
            const RecordingNamespace::Lease lease = RecordingNamespace::acquire(take);
            (void)!::write(ready[1], "y", 1);
            ::pause();
        } catch (...) {
            (void)!::write(ready[1], "n", 1);
        }
        ::_exit(0);
    }
    ::close(ready[1]);
    char answer = 0;
    ASSERT_EQ(::read(ready[0], &answer, 1), 1);
    ::close(ready[0]);
    ASSERT_EQ(answer, 'y');
    EXPECT_EQ(caseOf([&] { (void)RecordingNamespace::acquire(take); }), Case::recordingInUse);
    EXPECT_FALSE(RecordingNamespace::isUnfinishedTake(take));

    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_NO_THROW((void)RecordingNamespace::acquire(take));
    EXPECT_TRUE(RecordingNamespace::isUnfinishedTake(take));
}

TEST(RecordingNamespace, DestinationIdentityTellsAReplacedFolderApart) {
    const TempDir temp;
    const fs::path folder = temp / "Recordings";
    fs::create_directory(folder);
    const auto stored = RecordingNamespace::destinationIdentity(folder);
    EXPECT_TRUE(RecordingNamespace::matches(stored, folder));

    fs::remove(folder);
    EXPECT_FALSE(RecordingNamespace::matches(stored, folder));
    fs::create_directory(folder);
    EXPECT_FALSE(RecordingNamespace::matches(stored, folder));
    fs::remove(folder);
    fs::create_directory_symlink(temp.path(), folder);
    EXPECT_FALSE(RecordingNamespace::matches(stored, folder));

    // By the rules alone: a stored volume UUID outranks the device number, which changes between
    // mounts; without one the device number decides.
    RecordingNamespace::DestinationIdentity now{"0B5E2A6C-1F7D-4C8E-9A3B-2D4F6E8A0C1E", 7, 42, 10, 5};
    auto withUuid = now;
    withUuid.device = 8;
    EXPECT_TRUE(RecordingNamespace::matches(withUuid, now));
    withUuid.volumeUUID = "1B5E2A6C-1F7D-4C8E-9A3B-2D4F6E8A0C1E";
    EXPECT_FALSE(RecordingNamespace::matches(withUuid, now));
    auto withoutUuid = now;
    withoutUuid.volumeUUID.reset();
    EXPECT_TRUE(RecordingNamespace::matches(withoutUuid, now));
    withoutUuid.device = 8;
    EXPECT_FALSE(RecordingNamespace::matches(withoutUuid, now));
    auto otherBirth = now;
    otherBirth.birthNanoseconds = 6;
    EXPECT_FALSE(RecordingNamespace::matches(otherBirth, now));

    const auto json = toJson(now);
    EXPECT_EQ(destinationIdentityFromJson(json), now);
}

TEST(RecordingNamespace, DestinationCheckLeavesNothingBehind) {
    const TempDir temp;
    const fs::path folder = temp / "Recordings";
    fs::create_directory(folder);
    RecordingNamespace::checkDestination(folder);
    EXPECT_TRUE(fs::is_empty(folder));
    EXPECT_EQ(caseOf([&] { RecordingNamespace::checkDestination(temp / "missing"); }),
              Case::destinationUnavailable);
}

}  // namespace
}  // namespace tessarin::engine
