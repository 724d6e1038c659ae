#include "engine/desktop/DesktopPaths.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace tessarin::engine {

namespace fs = std::filesystem;

fs::path homeFolder() {
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
        return home;
    }
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr && found->pw_dir[0] == '/') {
        return found->pw_dir;
    }
    throw std::runtime_error("No home folder is known for this account.");
}

fs::path dataHome() {
    if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && data[0] == '/') {
        return data;
    }
    return homeFolder() / ".local" / "share";
}

fs::path runningProgramFolder() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    return error ? fs::path() : self.parent_path();
}

}  // namespace tessarin::engine
