// A job process killed with SIGKILL in the middle of an encode leaves only names that the sweeps
// of a later job recognise, and those sweeps remove them once they are old enough.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include <cerrno>

#include "engine/publish/OutputNames.hpp"
#include "tests/engine/job/JobTestSupport.hpp"
#include "tests/support/TestMedia.hpp"

extern char** environ;

namespace tessarin::test {
namespace {

namespace fs = std::filesystem;
using namespace engine;
using ::testing::IsEmpty;
using ::testing::SizeIs;

bool hasWorkFolder(const fs::path& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (isWorkFolderName(entry.path().filename().string())) {
            return true;
        }
    }
    return false;
}

// Sets the modification time of everything below `folder` (and of the entries themselves)
// `seconds` into the past.
void ageEverything(const fs::path& folder, int64_t seconds) {
    const struct timespec past = {::time(nullptr) - seconds, 0};
    const struct timespec times[2] = {past, past};
    std::vector<fs::path> entries;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        entries.push_back(entry.path());
    }
    // Deepest first, so that aging a file doesn't freshen its folder again.
    for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
        ASSERT_EQ(::utimensat(AT_FDCWD, it->c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
}

TEST(ConversionJobCrash, KilledJobLeavesOnlySweepableNames) {
    JobSandbox sandbox;
    const auto source = sandbox.place(longClip(), "long.mp4");
    const std::string tool = std::string(TESSARIN_BIN_DIR) + "/tessarin_job_crash_tool";
    const std::vector<std::string> arguments = {tool, source.string(), sandbox.outputs().string(),
                                                "gif-full", TESSARIN_HELPER_DIR};
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawnattr_t attributes;
    ASSERT_EQ(posix_spawnattr_init(&attributes), 0);
    ASSERT_EQ(posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP), 0);
    ASSERT_EQ(posix_spawnattr_setpgroup(&attributes, 0), 0);
    pid_t pid = -1;
    // The child inherits TMPDIR, which the sandbox points at its own temporary folder.
    ASSERT_EQ(posix_spawn(&pid, tool.c_str(), nullptr, &attributes, argv.data(), environ), 0);
    posix_spawnattr_destroy(&attributes);

    // The GIF's render pass has begun once its target stands in the scratch folder.
    const bool midEncode = waitUntil([&] {
        return findEncodeTarget(sandbox.outputs()).has_value() &&
               hasWorkFolder(sandbox.temporary());
    });
    ::kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(midEncode) << "the job never reached its encode";
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    // ffmpeg dies with its parent; wait until nothing of the group is left to write.
    ::kill(-pid, SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return ::kill(-pid, 0) != 0 && errno == ESRCH; }));

    // What is left: a work folder in the temporary directory and a scratch folder holding a
    // ".converting-" file in the output folder; nothing under a final name.
    const std::vector<std::string> remains = sandbox.leftovers();
    ASSERT_THAT(remains, ::testing::Not(IsEmpty()));
    for (const auto& entry : fs::directory_iterator(sandbox.temporary())) {
        EXPECT_TRUE(isWorkFolderName(entry.path().filename().string())) << entry.path();
    }
    for (const auto& entry : fs::directory_iterator(sandbox.outputs())) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(isScratchName(name)) << name;
        for (const auto& inner : fs::directory_iterator(entry.path())) {
            EXPECT_TRUE(isConvertingName(inner.path().filename().string())) << inner.path();
        }
    }

    // A next job leaves young remains alone (they might belong to a running job)...
    const auto next = sandbox.place(testClip(TestClip::h264Aac), "next.mp4");
    auto young = makeJob(sandbox, next, MediaTask::convert(Preset::mp4H264()));
    const JobRecord first = runJob(*young);
    ASSERT_TRUE(first.published);
    EXPECT_THAT(sandbox.leftovers({*first.published}), SizeIs(remains.size()));

    // ...and sweeps them once they are older than the limits.
    ageEverything(sandbox.outputs(), kStaleWorkFolderSeconds + 1);
    ageEverything(sandbox.temporary(), kStaleWorkFolderSeconds + 1);
    auto later = makeJob(sandbox, next, MediaTask::convert(Preset::mp4H264()));
    const JobRecord second = runJob(*later);
    ASSERT_TRUE(second.published);
    EXPECT_THAT(sandbox.leftovers({*first.published, *second.published}), IsEmpty());
}

}  // namespace
}  // namespace tessarin::test
