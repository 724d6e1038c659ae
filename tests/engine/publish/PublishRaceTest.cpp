#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "engine/model/JobFailure.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/Publish.hpp"
#include "tests/engine/publish/PublishTestSupport.hpp"

namespace tessarin::engine {
namespace {

using testing::entryNames;
using testing::readFile;
using testing::readTail;
using testing::TempDir;
using testing::writeFile;
using testing::writeSparseFile;
namespace fs = std::filesystem;

const OutputNaming kNaming{"-h264_crf33", "mp4"};

std::set<std::string> expectedNames(int count) {
    std::set<std::string> names{"clip-h264_crf33.mp4"};
    for (int n = 2; n <= count; ++n) {
        names.insert(fmt::format("clip-h264_crf33-{}.mp4", n));
    }
    return names;
}

TEST(PublishRace, ThreadsPublishingOneNameEachGetTheirOwn) {
    constexpr int kThreads = 8;
    for (const mode_t folderMode : {mode_t{0700}, mode_t{0755}}) {  // renamed, then copied
        TempDir dir;
        ASSERT_EQ(::mkdir((dir / "out").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir((dir / "encode").c_str(), folderMode), 0);
        std::vector<fs::path> sources;
        for (int i = 0; i < kThreads; ++i) {
            sources.push_back(dir / "encode" / fmt::format(".converting-0000000{}-clip.mp4", i));
            writeFile(sources.back(), fmt::format("thread {} {}", i, std::string(100'000, 'x')));
        }
        std::vector<fs::path> published(kThreads);
        std::vector<std::string> failures(kThreads);
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                try {
                    published[i] = publishUnderFreeName(sources[i], dir / "clip.mov", kNaming,
                                                        dir / "out", [] { return false; });
                } catch (const JobFailure& failure) {
                    failures[i] = failure.stderrTail;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        for (int i = 0; i < kThreads; ++i) {
            EXPECT_EQ(failures[i], "") << i;
            EXPECT_EQ(readFile(published[i]),
                      fmt::format("thread {} {}", i, std::string(100'000, 'x')));
        }
        EXPECT_EQ(entryNames(dir / "out"), expectedNames(kThreads));
    }
}

struct Child {
    pid_t pid = -1;
    int stdinWrite = -1;
    int stdoutRead = -1;
};

Child spawnRaceTool(const std::vector<std::string>& arguments) {
    int in[2];
    int out[2];
    EXPECT_EQ(::pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const std::string tool = std::string(TESSARIN_BIN_DIR) + "/tessarin_publish_race_tool";
    std::vector<char*> argv{const_cast<char*>(tool.c_str())};
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    Child child;
    EXPECT_EQ(::posix_spawn(&child.pid, tool.c_str(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    child.stdinWrite = in[1];
    child.stdoutRead = out[0];
    return child;
}

// Waits for the child and returns what it printed, or "exit n".
std::string finish(const Child& child) {
    std::string printed;
    char buffer[512];
    for (ssize_t got; (got = ::read(child.stdoutRead, buffer, sizeof buffer)) > 0;) {
        printed.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(child.stdoutRead);
    int status = 0;
    while (::waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return fmt::format("exit {}", WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    }
    while (!printed.empty() && printed.back() == '\n') {
        printed.pop_back();
    }
    return printed;
}

TEST(PublishRace, TwoProcessesPublishingOneNameEachGetTheirOwn) {
    constexpr int kRounds = 6;
    for (int round = 0; round < kRounds; ++round) {
        TempDir dir;
        ASSERT_EQ(::mkdir((dir / "out").c_str(), 0755), 0);
        ASSERT_EQ(::mkdir((dir / "encode").c_str(), round % 2 == 0 ? 0700 : 0755), 0);
        std::vector<Child> children;
        for (int i = 0; i < 2; ++i) {
            const fs::path source = dir / "encode" / fmt::format(".converting-0000000{}-c.mp4", i);
            writeFile(source, fmt::format("process {}", i));
            children.push_back(spawnRaceTool(
                {source.string(), (dir / "clip.mov").string(), (dir / "out").string()}));
        }
        for (const Child& child : children) {  // both start together
            ASSERT_EQ(::write(child.stdinWrite, "g", 1), 1);
            ::close(child.stdinWrite);
        }
        std::vector<std::string> published;
        for (const Child& child : children) {
            published.push_back(finish(child));
        }
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(readFile(published[i]), fmt::format("process {}", i)) << published[i];
        }
        EXPECT_EQ(entryNames(dir / "out"), expectedNames(2));
    }
}

TEST(PublishRace, AWatcherNeverSeesAPartialFileUnderAFinalName) {
    constexpr off_t kSize = 200LL * 1024 * 1024;
    const std::string marker = "tessarin-marker-0123456789";
    TempDir dir;
    ASSERT_EQ(::mkdir((dir / "out").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((dir / "shared").c_str(), 0755), 0);
    const fs::path source = dir / "shared" / ".converting-0000000a-clip.mp4";
    writeSparseFile(source, kSize, marker);

    std::atomic<bool> done{false};
    std::atomic<int> scans{0};
    std::vector<std::string> violations;
    std::thread watcher([&] {
        const std::string dirPath = (dir / "out").string();
        // One more full scan after the publication has returned.
        for (bool last = false; !last;) {
            last = done.load();
            DIR* listing = ::opendir(dirPath.c_str());
            if (listing == nullptr) {
                violations.push_back("listing failed");
                return;
            }
            while (const dirent* entry = ::readdir(listing)) {
                const std::string name = entry->d_name;
                if (name.starts_with(".")) {
                    continue;  // ".", "..", and our hidden scratch
                }
                const fs::path path = dir / "out" / name;
                struct stat st {};
                if (name != "clip-h264_crf33.mp4") {
                    violations.push_back("unexpected name " + name);
                } else if (::stat(path.c_str(), &st) != 0 || st.st_size != kSize ||
                           readTail(path, marker.size()) != marker) {
                    violations.push_back(fmt::format("partial file, size {}", st.st_size));
                }
            }
            ::closedir(listing);
            ++scans;
        }
    });
    fs::path published;
    try {
        published = publishUnderFreeName(
            source, dir / "clip.mov", kNaming, dir / "out", [] { return false; },
            [](int, int) { return EOPNOTSUPP; });
    } catch (const JobFailure& failure) {
        ADD_FAILURE() << failure.stderrTail;
    }
    done = true;
    watcher.join();
    EXPECT_EQ(violations, std::vector<std::string>{});
    EXPECT_GE(scans.load(), 2);
    EXPECT_EQ(published, dir / "out" / "clip-h264_crf33.mp4");
    EXPECT_EQ(fs::file_size(published), static_cast<uintmax_t>(kSize));
    EXPECT_EQ(readTail(published, marker.size()), marker);
    EXPECT_FALSE(fs::exists(source));
    EXPECT_EQ(entryNames(dir / "out"), std::set<std::string>{"clip-h264_crf33.mp4"});
}

}  // namespace
}  // namespace tessarin::engine
