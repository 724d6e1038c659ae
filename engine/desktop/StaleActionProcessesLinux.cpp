#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <string>

#include "engine/desktop/StaleActionProcesses.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

int endStaleActionProcesses(const fs::path& currentHelper,
                            const std::optional<std::vector<pid_t>>& among) {
    constexpr std::string_view kPrefix = "tessarin-action";
    std::error_code error;
    const fs::path current = fs::weakly_canonical(currentHelper, error);
    struct stat currentInfo {};
    const bool haveCurrent = ::stat(current.c_str(), &currentInfo) == 0;
    int ended = 0;
    for (fs::directory_iterator it("/proc", error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename().string();
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ec != std::errc{} ||
            pid == ::getpid() ||
            (among && std::find(among->begin(), among->end(), pid) == among->end())) {
            continue;
        }
        struct stat owner {};
        if (::stat(it->path().c_str(), &owner) != 0 || owner.st_uid != ::getuid()) {
            continue;
        }
        std::string comm;
        std::getline(std::ifstream(it->path() / "comm"), comm);
        if (!comm.starts_with(kPrefix)) {
            continue;
        }
        std::error_code linkError;
        const std::string exe = fs::read_symlink(it->path() / "exe", linkError).string();
        if (linkError) {
            continue;
        }
        // Started from the current helper's path, but that path now holds another file or none.
        constexpr std::string_view kDeleted = " (deleted)";
        const bool deleted = exe.ends_with(kDeleted);
        const fs::path startedFrom = deleted ? exe.substr(0, exe.size() - kDeleted.size()) : exe;
        if (startedFrom != current) {
            continue;
        }
        struct stat exeInfo {};
        const bool stillCurrent = !deleted && haveCurrent &&
                                  ::stat((it->path() / "exe").c_str(), &exeInfo) == 0 &&
                                  exeInfo.st_dev == currentInfo.st_dev &&
                                  exeInfo.st_ino == currentInfo.st_ino;
        if (!stillCurrent && ::kill(pid, SIGTERM) == 0) {
            ++ended;
        }
    }
    if (ended > 0) {
        Logger("com.tessarin.app", "registrar")
            .notice(fmt::format("ended {} file-manager action process(es) still running code "
                                "from before an update",
                                ended));
    }
    return ended;
}

}  // namespace tessarin::engine
