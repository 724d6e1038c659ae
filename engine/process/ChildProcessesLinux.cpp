#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>
#include <string_view>

#include "engine/process/internal/ChildProcesses.hpp"
#include "engine/process/internal/Pidfd.hpp"

namespace tessarin::engine::internal {

namespace {

// Reads a small /proc file whole; /proc files report size 0, so read until end of file.
bool readSmallFile(const char* path, std::string& out) noexcept {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    out.clear();
    std::array<char, 4096> chunk{};
    bool ok = true;
    while (out.size() < 1 << 20) {
        const ssize_t n = ::read(fd, chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            ok = false;
            break;
        }
        if (n == 0) {
            break;
        }
        out.append(chunk.data(), static_cast<std::size_t>(n));
    }
    ::close(fd);
    return ok;
}

bool parsePid(std::string_view text, pid_t& pid) noexcept {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
    return error == std::errc() && end == text.data() + text.size();
}

void addUnique(std::vector<pid_t>& children, pid_t pid) {
    if (pid < 1 || children.size() >= kMaximumListedChildren) {
        return;
    }
    for (const pid_t known : children) {
        if (known == pid) {
            return;
        }
    }
    children.push_back(pid);
}

// The /proc/<pid>/task/<tid>/children files (CONFIG_PROC_CHILDREN). False if unavailable.
bool listFromTaskChildren(pid_t parent, std::vector<pid_t>& children) {
    const std::string taskDirectory = "/proc/" + std::to_string(parent) + "/task";
    DIR* directory = ::opendir(taskDirectory.c_str());
    if (directory == nullptr) {
        return false;
    }
    bool anyRead = false;
    std::string content;
    while (const dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string path = taskDirectory + "/" + entry->d_name + "/children";
        if (!readSmallFile(path.c_str(), content)) {
            continue;
        }
        anyRead = true;
        std::string_view rest = content;
        while (!rest.empty()) {
            const std::size_t space = rest.find(' ');
            const std::string_view word = rest.substr(0, space);
            pid_t pid = 0;
            if (parsePid(word, pid)) {
                addUnique(children, pid);
            }
            if (space == std::string_view::npos) {
                break;
            }
            rest.remove_prefix(space + 1);
        }
    }
    ::closedir(directory);
    return anyRead;
}

void listFromStatScan(pid_t parent, std::vector<pid_t>& children) {
    DIR* directory = ::opendir("/proc");
    if (directory == nullptr) {
        return;
    }
    while (const dirent* entry = ::readdir(directory)) {
        pid_t pid = 0;
        if (!parsePid(entry->d_name, pid)) {
            continue;
        }
        if (parentOf(pid) == parent) {
            addUnique(children, pid);
        }
        if (children.size() >= kMaximumListedChildren) {
            break;
        }
    }
    ::closedir(directory);
}

}  // namespace

pid_t parentOf(pid_t pid) noexcept {
    try {
        std::string stat;
        const std::string path = "/proc/" + std::to_string(pid) + "/stat";
        if (!readSmallFile(path.c_str(), stat)) {
            return -1;
        }
        // "pid (comm) state ppid ...": comm may hold spaces and parentheses, so start after the
        // last ')'.
        const std::size_t close = stat.rfind(')');
        if (close == std::string::npos || close + 4 >= stat.size()) {
            return -1;
        }
        std::string_view fields(stat.data() + close + 2, stat.size() - close - 2);
        const std::size_t afterState = fields.find(' ');
        if (afterState == std::string_view::npos) {
            return -1;
        }
        fields.remove_prefix(afterState + 1);
        pid_t parent = -1;
        if (!parsePid(fields.substr(0, fields.find(' ')), parent)) {
            return -1;
        }
        return parent;
    } catch (...) {
        return -1;
    }
}

std::vector<pid_t> listChildProcesses(pid_t parent) noexcept {
    std::vector<pid_t> children;
    if (parent < 1) {
        return children;
    }
    try {
        children.reserve(kMaximumListedChildren);
        if (!listFromTaskChildren(parent, children)) {
            listFromStatScan(parent, children);
        }
    } catch (...) {
        // Out of memory while listing: signal whatever was found.
    }
    return children;
}

void signalChildren(pid_t parent, const std::vector<pid_t>& children, int signal) noexcept {
    for (const pid_t child : children) {
        const int pidfd = openPidfd(child);
        if (pidfd < 0) {
            continue;
        }
        // The pidfd pins the process; if the id was recycled in between, the new owner is not
        // our child and is left alone.
        if (parentOf(child) == parent) {
            (void)sendSignal(pidfd, signal);
        }
        ::close(pidfd);
    }
}

}  // namespace tessarin::engine::internal
