#include <acl/libacl.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/model/JobFailure.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/Publish.hpp"
#include "tests/engine/publish/PublishTestSupport.hpp"

namespace tessarin::engine {
namespace {

using testing::entryNames;
using testing::readFile;
using testing::ScopedMount;
using testing::TempDir;
using testing::writeFile;
namespace fs = std::filesystem;

const OutputNaming kNaming{"-h264_crf33", "mp4"};

JobFailure publishFailure(const std::function<void()>& run) {
    try {
        run();
    } catch (const JobFailure& failure) {
        return failure;
    }
    return JobFailure::sentence("none", "published");
}

std::string aclText(const fs::path& path) {
    acl_t acl = acl_get_file(path.c_str(), ACL_TYPE_ACCESS);
    if (acl == nullptr) {
        return "<none>";
    }
    char* text = acl_to_any_text(acl, nullptr, ',', TEXT_NUMERIC_IDS);
    std::string result = text != nullptr ? text : "<unprintable>";
    acl_free(text);
    acl_free(acl);
    return result;
}

// A destination folder "out", a private encode folder on the same volume (as the job's scratch)
// and a shared folder (whose files can't simply be renamed into place).
class PublishTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::mkdir(out().c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(privateFolder().c_str(), 0700), 0);
        ASSERT_EQ(::mkdir(sharedFolder().c_str(), 0755), 0);
    }
    fs::path out() const { return dir_ / "out"; }
    fs::path privateFolder() const { return dir_ / "encode"; }
    fs::path sharedFolder() const { return dir_ / "shared"; }
    fs::path naming() const { return dir_ / "clip.mov"; }

    fs::path encoded(const fs::path& folder, const std::string& content) {
        const fs::path file = folder / newConvertingName("clip-h264_crf33.mp4");
        writeFile(file, content);
        return file;
    }
    // Entries of `out` other than the user's own files: scratch folders, temporaries.
    std::set<std::string> hiddenEntries() const {
        std::set<std::string> hidden;
        for (const std::string& name : entryNames(out())) {
            if (name.starts_with(".")) {
                hidden.insert(name);
            }
        }
        return hidden;
    }

    TempDir dir_;
};

int noClone(int, int) {
    return EOPNOTSUPP;
}

TEST_F(PublishTest, MovesAPrivateEncodeIntoPlaceWithTheFolderDefaults) {
    const fs::path source = encoded(privateFolder(), "movie bytes");
    ASSERT_EQ(::chmod(source.c_str(), 0600), 0);
    struct stat before {};
    ASSERT_EQ(::stat(source.c_str(), &before), 0);

    const fs::path published = publishUnderFreeName(
        source, naming(), kNaming, out(), [] { return false; }, noClone);
    EXPECT_EQ(published, out() / "clip-h264_crf33.mp4");
    EXPECT_EQ(readFile(published), "movie bytes");
    EXPECT_FALSE(fs::exists(source));
    EXPECT_TRUE(hiddenEntries().empty());

    struct stat after {};
    ASSERT_EQ(::stat(published.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "a private encode on the same volume is renamed";
    const mode_t umask = ::umask(022);
    ::umask(umask);
    EXPECT_EQ(after.st_mode & 07777, 0644u & ~umask);
}

TEST_F(PublishTest, CopiesASharedFileAndDeletesTheSource) {
    const fs::path source = encoded(sharedFolder(), std::string(5'000'000, 'z'));
    const fs::path published =
        publishUnderFreeName(source, naming(), kNaming, out(), [] { return false; });
    EXPECT_EQ(readFile(published), std::string(5'000'000, 'z'));
    EXPECT_FALSE(fs::exists(source));
    EXPECT_TRUE(hiddenEntries().empty());
}

TEST_F(PublishTest, NeverReplacesAFileThatAppearsAfterTheNameWasChosen) {
    const fs::path source = encoded(privateFolder(), "mine");
    int renames = 0;
    const RenameFunction plantFirst = [&](int fromDir, const char* from, int toDir,
                                          const char* to) {
        if (renames++ == 0) {
            const int fd = ::openat(toDir, to, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
            EXPECT_GE(fd, 0);
            EXPECT_EQ(::write(fd, "theirs", 6), 6);
            ::close(fd);
        }
        return renameExclusive(fromDir, from, toDir, to);
    };
    const fs::path published =
        publishUnderFreeName(source, naming(), kNaming, out(), {}, cloneFileContents, plantFirst);
    EXPECT_EQ(published, out() / "clip-h264_crf33-2.mp4");
    EXPECT_EQ(readFile(out() / "clip-h264_crf33.mp4"), "theirs");
    EXPECT_EQ(readFile(published), "mine");
    EXPECT_EQ(renames, 2);
}

TEST_F(PublishTest, SixtyFourLostRacesFail) {
    for (const fs::path& folder : {privateFolder(), sharedFolder()}) {
        const fs::path source = encoded(folder, "kept");
        int renames = 0;
        const RenameFunction alwaysTaken = [&](int, const char*, int, const char*) {
            ++renames;
            return EEXIST;
        };
        EXPECT_EQ(publishFailure([&] {
                      (void)publishUnderFreeName(source, naming(), kNaming, out(), {},
                                                 cloneFileContents, alwaysTaken);
                  }),
                  JobFailure::sentence("publish", "could not find a free output name (64 tries)"));
        EXPECT_EQ(renames, 64);
        EXPECT_EQ(readFile(source), "kept");
        EXPECT_TRUE(entryNames(out()).empty());
    }
}

TEST_F(PublishTest, AFolderReplacedBetweenStepsIsStale) {
    const fs::path source = encoded(privateFolder(), "bytes");
    // Replaced right before the exclusive rename: the file lands in the old folder, and the
    // publication is reported as failed because the path no longer leads there.
    const RenameFunction replaceFolder = [&](int fromDir, const char* from, int toDir,
                                             const char* to) {
        fs::rename(out(), dir_ / "old-out");
        fs::create_directory(out());
        return renameExclusive(fromDir, from, toDir, to);
    };
    EXPECT_EQ(publishFailure([&] {
                  (void)publishUnderFreeName(source, naming(), kNaming, out(), {},
                                             cloneFileContents, replaceFolder);
              }),
              JobFailure("publish", ESTALE,
                         fmt::format("could not save to the destination (errno {})", ESTALE)));
    EXPECT_TRUE(entryNames(out()).empty());

    // Replaced before any work: nothing is made at all.
    const fs::path second = encoded(privateFolder(), "more bytes");
    bool swapped = false;
    const auto swapOnFirstAsk = [&] {
        if (!swapped) {
            swapped = true;
            fs::rename(out(), dir_ / "older-out");
            fs::create_directory(out());
        }
        return false;
    };
    EXPECT_EQ(publish(second, out() / "x.mp4", swapOnFirstAsk), (PublishOutcome{ESTALE, false}));
    EXPECT_EQ(readFile(second), "more bytes");
    EXPECT_TRUE(entryNames(dir_ / "older-out").empty());
    EXPECT_TRUE(entryNames(out()).empty());
}

TEST_F(PublishTest, AVanishedFolderIsReportedAsDisconnected) {
    const fs::path source = encoded(privateFolder(), "bytes");
    const RenameFunction ejectFolder = [&](int, const char*, int, const char*) {
        fs::rename(out(), dir_ / "ejected");
        return EIO;
    };
    EXPECT_EQ(
        publishFailure([&] {
            (void)publishUnderFreeName(source, naming(), kNaming, out(), {}, cloneFileContents,
                                       ejectFolder);
        }),
        JobFailure::sentence("destination",
                             "The destination is no longer available (was the drive ejected or "
                             "disconnected?)."));
}

TEST_F(PublishTest, CancellationBeforeOrDuringTheCopyPublishesNothing) {
    const fs::path source = encoded(sharedFolder(), std::string(3 * kCopyChunkBytes, 'c'));
    EXPECT_EQ(publishFailure([&] {
                  (void)publishUnderFreeName(source, naming(), kNaming, out(), [] { return true; });
              }),
              JobFailure("publish", std::nullopt, "cancelled", true));
    int asked = 0;
    EXPECT_EQ(publish(
                  source, out() / "x.mp4", [&] { return ++asked > 2; }, noClone),
              (PublishOutcome{ECANCELED, false}));
    EXPECT_GT(asked, 2);
    EXPECT_TRUE(entryNames(out()).empty());
    EXPECT_EQ(fs::file_size(source), 3 * kCopyChunkBytes);
}

TEST_F(PublishTest, RefusesWhatIsNotARegularFile) {
    ASSERT_EQ(::symlink("elsewhere", (privateFolder() / "link").c_str()), 0);
    EXPECT_EQ(publish(privateFolder() / "link", out() / "x.mp4", {}),
              (PublishOutcome{ELOOP, false}));
    EXPECT_EQ(publish(privateFolder(), out() / "x.mp4", {}), (PublishOutcome{EINVAL, false}));
    EXPECT_EQ(publish(privateFolder() / "missing", out() / "x.mp4", {}),
              (PublishOutcome{ENOENT, false}));
    EXPECT_EQ(publish(encoded(privateFolder(), "x"), dir_ / "missing" / "x.mp4", {}),
              (PublishOutcome{EOPNOTSUPP, false}));
}

TEST_F(PublishTest, VolumesWithoutOwnershipOrNotLocalGetTheSharingPolicySentence) {
    const fs::path source = encoded(privateFolder(), "bytes");
    const std::string sentence =
        "This destination cannot atomically publish output with its sharing policy. Choose a "
        "local Linux-formatted drive (ext4, btrfs, xfs) with ownership enabled.";
    for (const VolumeFacts facts :
         {VolumeFacts{true, true, false}, VolumeFacts{false, false, false}}) {
        VolumeOverrides overrides;
        overrides.volumeFactsOverride = [&](const fs::path&) { return facts; };
        EXPECT_EQ(publishFailure([&] {
                      (void)publishUnderFreeName(source, naming(), kNaming, out(), {},
                                                 cloneFileContents, renameExclusive, overrides);
                  }),
                  JobFailure("publish", EOPNOTSUPP, sentence));
    }
    EXPECT_EQ(readFile(source), "bytes");
    EXPECT_TRUE(entryNames(out()).empty());
}

TEST_F(PublishTest, PublishedFilesGetWhatANewFileInTheFolderWouldGet) {
    acl_t defaults = acl_from_text("u::rwx,g::r-x,o::---,u:65534:rwx,g:65534:rw-,m::rwx");
    ASSERT_NE(defaults, nullptr);
    ASSERT_EQ(acl_set_file(out().c_str(), ACL_TYPE_DEFAULT, defaults), 0);
    acl_free(defaults);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(out().c_str(), 0, 65534), 0);
        ASSERT_EQ(::chmod(out().c_str(), 02755), 0);
    }
    const int reference =
        ::open((out() / "reference").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    ASSERT_GE(reference, 0);
    ::close(reference);
    struct stat expected {};
    ASSERT_EQ(::stat((out() / "reference").c_str(), &expected), 0);
    const std::string expectedAcl = aclText(out() / "reference");
    ASSERT_NE(expectedAcl.find("user:65534:rwx"), std::string::npos) << expectedAcl;

    for (const fs::path& folder : {privateFolder(), sharedFolder()}) {
        const fs::path source = encoded(folder, "bytes");
        ASSERT_EQ(::chmod(source.c_str(), 0600), 0);
        const fs::path published =
            publishUnderFreeName(source, naming(), kNaming, out(), [] { return false; });
        struct stat actual {};
        ASSERT_EQ(::stat(published.c_str(), &actual), 0);
        EXPECT_EQ(actual.st_mode & 07777, expected.st_mode & 07777) << folder;
        EXPECT_EQ(actual.st_uid, expected.st_uid);
        EXPECT_EQ(actual.st_gid, expected.st_gid);
        EXPECT_EQ(aclText(published), expectedAcl) << folder;
    }
}

TEST_F(PublishTest, ClonesOnBtrfs) {
    const ScopedMount mount = ScopedMount::btrfs(dir_ / "btrfs.img", dir_ / "btrfs");
    if (!mount.mounted()) {
        GTEST_SKIP() << mount.reason();
    }
    const fs::path volume = dir_ / "btrfs";
    ASSERT_EQ(::mkdir((volume / "out").c_str(), 0755), 0);
    const fs::path scratch = makeScratch(volume / "out");
    std::string content(3'000'000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i * 7919 % 251);
    }
    const fs::path source = scratch / newConvertingName("clip-h264_crf33.mp4");
    writeFile(source, content);

    std::vector<int> cloneResults;
    const CloneFunction recordingClone = [&](int from, int to) {
        cloneResults.push_back(cloneFileContents(from, to));
        return cloneResults.back();
    };
    const fs::path published = publishUnderFreeName(
        source, naming(), kNaming, volume / "out", [] { return false; }, recordingClone);
    EXPECT_EQ(cloneResults, std::vector<int>{0});
    EXPECT_EQ(published, volume / "out" / "clip-h264_crf33.mp4");
    EXPECT_EQ(readFile(published), content);
    EXPECT_FALSE(fs::exists(source));
    fs::remove(scratch);
    EXPECT_EQ(entryNames(volume / "out"), std::set<std::string>{"clip-h264_crf33.mp4"});

    // A file from another volume can't be cloned and is copied instead.
    const fs::path foreign = encoded(sharedFolder(), content);
    cloneResults.clear();
    const fs::path second = publishUnderFreeName(
        foreign, naming(), kNaming, volume / "out", [] { return false; }, recordingClone);
    EXPECT_EQ(cloneResults, std::vector<int>{EXDEV});
    EXPECT_EQ(second, volume / "out" / "clip-h264_crf33-2.mp4");
    EXPECT_EQ(readFile(second), content);
}

TEST_F(PublishTest, AFullTmpfsFailsWithItsErrnoAndKeepsNothing) {
    const ScopedMount mount = ScopedMount::tmpfs(dir_ / "small", "1m");
    if (!mount.mounted()) {
        GTEST_SKIP() << mount.reason();
    }
    const fs::path source = encoded(sharedFolder(), std::string(2'000'000, 'f'));
    EXPECT_EQ(publishFailure([&] {
                  (void)publishUnderFreeName(source, naming(), kNaming, dir_ / "small",
                                             [] { return false; });
              }),
              JobFailure("publish", ENOSPC,
                         fmt::format("could not save to the destination (errno {})", ENOSPC)));
    EXPECT_TRUE(entryNames(dir_ / "small").empty());
    EXPECT_EQ(fs::file_size(source), 2'000'000u);
}

}  // namespace
}  // namespace tessarin::engine
