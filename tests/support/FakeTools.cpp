#include "tests/support/FakeTools.hpp"

#include <signal.h>
#include <stdlib.h>

#include <fstream>
#include <stdexcept>
#include <thread>

namespace tessarin::test {

std::filesystem::path writeScript(const std::filesystem::path& folder, std::string_view name,
                                  std::string_view body) {
    const std::filesystem::path path = folder / name;
    std::string text = "#!/bin/sh\n";
    text += body;
    text += '\n';
    writeFile(path, text, 0755);
    return path;
}

namespace {

std::optional<std::string> firstCompleteLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t newline = content.find('\n');
    if (newline == std::string::npos) {
        return std::nullopt;
    }
    return content.substr(0, newline);
}

// Polling is the only way to notice a file another process writes; the interval is short and
// the limit generous.
template <typename Predicate>
bool pollUntil(Predicate done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace

bool waitForLine(const std::filesystem::path& path, std::chrono::milliseconds limit) {
    return pollUntil([&] { return firstCompleteLine(path).has_value(); }, limit);
}

std::optional<pid_t> readPid(const std::filesystem::path& path) {
    const std::optional<std::string> line = firstCompleteLine(path);
    if (!line) {
        return std::nullopt;
    }
    try {
        return static_cast<pid_t>(std::stol(*line));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

bool isRunning(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size()) {
        return false;
    }
    return stat[close + 2] != 'Z' && stat[close + 2] != 'X';
}

bool waitUntilGone(pid_t pid, std::chrono::milliseconds limit) {
    return pollUntil([&] { return !isRunning(pid); }, limit);
}

std::vector<pid_t> childProcesses(pid_t parent) {
    std::vector<pid_t> children;
    const std::filesystem::path tasks = "/proc/" + std::to_string(parent) + "/task";
    std::error_code error;
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        std::ifstream in(task.path() / "children");
        for (pid_t child = 0; in >> child;) {
            children.push_back(child);
        }
    }
    return children;
}

std::string processName(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

KillOnExit::~KillOnExit() {
    if (pid_ && *pid_ > 0 && isRunning(*pid_)) {
        ::kill(*pid_, SIGKILL);
    }
}

}  // namespace tessarin::test
