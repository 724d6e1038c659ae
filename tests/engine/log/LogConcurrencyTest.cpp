#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <thread>
#include <utility>

#include "engine/log/Log.hpp"
#include "tests/engine/log/LogTestSupport.hpp"

namespace tessarin::engine {
namespace {

constexpr int kWriters = 8;
constexpr int kLinesPerWriter = 250;

void writeLines(int writer) {
    const Logger log("com.tessarin.engine", "writer" + std::to_string(writer));
    const std::string padding(static_cast<std::size_t>(20 + writer * 13), 'a' + writer);
    for (int seq = 0; seq < kLinesPerWriter; ++seq) {
        log.notice(KeyValues().add("writer", writer).add("seq", seq).add("pad", padding).str());
    }
}

// (writer, seq) of a whole line, after checking that its padding belongs to the same writer.
std::pair<int, int> parseLine(const std::string& line) {
    const std::size_t writerAt = line.find("writer=");
    const std::size_t seqAt = line.find(" seq=");
    const std::size_t padAt = line.find(" pad=");
    if (writerAt == std::string::npos || seqAt == std::string::npos || padAt == std::string::npos) {
        return {-1, -1};
    }
    const int writer = std::stoi(line.substr(writerAt + 7, seqAt - writerAt - 7));
    const int seq = std::stoi(line.substr(seqAt + 5, padAt - seqAt - 5));
    const std::string expectedPad(static_cast<std::size_t>(20 + writer * 13), 'a' + writer);
    if (line.substr(padAt + 5) != expectedPad ||
        line.find("com.tessarin.engine writer" + std::to_string(writer) + ": ") ==
            std::string::npos) {
        return {-1, -1};
    }
    return {writer, seq};
}

TEST_F(LogFileTest, EightThreadsWriteWholeUninterleavedLines) {
    std::vector<std::thread> threads;
    for (int writer = 0; writer < kWriters; ++writer) {
        threads.emplace_back(writeLines, writer);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::set<std::pair<int, int>> seen;
    std::vector<int> lastSeq(kWriters, -1);
    for (const std::string& line : readLines(logFile_)) {
        ASSERT_TRUE(isWholeLine(line)) << line;
        const auto [writer, seq] = parseLine(line);
        ASSERT_GE(writer, 0) << line;
        EXPECT_TRUE(seen.emplace(writer, seq).second) << "twice: " << line;
        // One thread's lines keep their order.
        EXPECT_GT(seq, lastSeq[static_cast<std::size_t>(writer)]) << line;
        lastSeq[static_cast<std::size_t>(writer)] = seq;
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kWriters * kLinesPerWriter));
}

TEST_F(LogFileTest, ThreadsAndProcessesShareARotatingFileWithoutTornLines) {
    constexpr std::uint64_t kCap = 16 * 1024;
    setLogFileForTesting(logFile_, kCap);

    // Four child processes, started before any thread of ours exists, and four threads here.
    std::vector<pid_t> children;
    for (int writer = 0; writer < kWriters / 2; ++writer) {
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            writeLines(writer);
            _exit(0);
        }
        children.push_back(pid);
    }
    std::vector<std::thread> threads;
    for (int writer = kWriters / 2; writer < kWriters; ++writer) {
        threads.emplace_back(writeLines, writer);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    std::filesystem::path rotated = logFile_;
    rotated += ".1";
    ASSERT_TRUE(std::filesystem::exists(rotated));
    // Lines that other processes append to a file just renamed may take it a little past the
    // cap; the live file starts fresh after each rotation.
    EXPECT_LE(std::filesystem::file_size(logFile_), 2 * kCap);
    std::set<std::pair<int, int>> seen;
    for (const auto& file : {rotated, logFile_}) {
        for (const std::string& line : readLines(file)) {
            ASSERT_TRUE(isWholeLine(line)) << line;
            const auto [writer, seq] = parseLine(line);
            ASSERT_GE(writer, 0) << line;
            EXPECT_TRUE(seen.emplace(writer, seq).second) << "twice: " << line;
        }
    }
    EXPECT_GT(seen.size(), 0u);
}

}  // namespace
}  // namespace tessarin::engine
