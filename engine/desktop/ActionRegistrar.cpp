#include "engine/desktop/ActionRegistrar.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>

#include "engine/log/Log.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

const Logger kLog("com.tessarin.app", "registrar");

// Registrar operations run one at a time in this process.
std::mutex& registrarGate() {
    static std::mutex gate;
    return gate;
}

std::string seededId(FileManager manager, std::string_view action) {
    return fmt::format("{}/{}", fileManagerKey(manager), action);
}

std::optional<std::string> readSmallFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::string text(64 * 1024, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

bool sameFile(const fs::path& a, const fs::path& b) {
    std::error_code error;
    return fs::weakly_canonical(a, error) == fs::weakly_canonical(b, error);
}

bool isExecutableFile(const fs::path& file) {
    struct stat info {};
    return ::stat(file.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::access(file.c_str(), X_OK) == 0;
}

ActionFileStatus inspect(FileManager manager, const HelperAction& action, const fs::path& file,
                         const fs::path& helper, const std::set<std::string>& seeded) {
    ActionFileStatus status{manager, file, ActionFileState::notRegistered, std::nullopt};
    struct stat info {};
    if (::lstat(file.c_str(), &info) != 0) {
        if (seeded.contains(seededId(manager, action.name))) {
            status.state = ActionFileState::disabled;
        }
        return status;
    }
    // A link or a folder at our place is not something we wrote.
    const std::optional<std::string> text =
        S_ISREG(info.st_mode) ? readSmallFile(file) : std::nullopt;
    const ActionFileReading reading =
        text ? readActionFile(manager, *text) : ActionFileReading{};
    if (!reading.action || *reading.action != action.name) {
        status.state = ActionFileState::foreign;
        return status;
    }
    if (reading.helper && !sameFile(*reading.helper, helper) &&
        isExecutableFile(*reading.helper)) {
        status.state = ActionFileState::elsewhere;
        status.otherHelper = reading.helper;
        return status;
    }
    const bool modeOk =
        !actionFileMustBeExecutable(manager) || (info.st_mode & S_IXUSR) != 0;
    const bool textOk = *text == actionFileText(manager, action, helper);
    status.state = modeOk && textOk && isExecutableFile(helper) ? ActionFileState::active
                                                                : ActionFileState::edited;
    return status;
}

// Writes `text` to `file` through a temporary file and a rename. A file that was absent is put
// in place only if the name is still free, so that a file appearing meanwhile is never replaced.
bool writeActionFile(const fs::path& file, const std::string& text, mode_t mode, bool replace) {
    std::error_code error;
    fs::create_directories(file.parent_path(), error);
    if (error) {
        return false;
    }
    std::string temporary = (file.parent_path() / ".tessarin-action-XXXXXX").string();
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) {
        return false;
    }
    bool ok = ::fchmod(fd, mode) == 0;
    std::size_t written = 0;
    while (ok && written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        ok = n > 0;
        written += ok ? static_cast<std::size_t>(n) : 0;
    }
    ok = ::fsync(fd) == 0 && ok;
    ok = ::close(fd) == 0 && ok;
    if (ok) {
        ok = replace ? ::rename(temporary.c_str(), file.c_str()) == 0
                     : ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, file.c_str(),
                                   RENAME_NOREPLACE) == 0;
    }
    if (!ok) {
        ::unlink(temporary.c_str());
    }
    return ok;
}

std::set<std::string> seededSet(const SettingsStore& settings) {
    const auto list = settings.stringListValue(ActionRegistrar::kSeededKey);
    return list ? std::set<std::string>(list->begin(), list->end()) : std::set<std::string>{};
}

void storeSeeded(SettingsStore& settings, const std::set<std::string>& seeded) {
    try {
        settings.setStringList(ActionRegistrar::kSeededKey,
                               std::vector<std::string>(seeded.begin(), seeded.end()));
    } catch (const std::exception& error) {
        kLog.error(fmt::format("failed to persist {} seeded action(s)", seeded.size()));
    }
}

}  // namespace

std::string actionFileStateText(ActionFileState state) {
    switch (state) {
        case ActionFileState::active: return "Active in the file manager";
        case ActionFileState::edited: return "Elected, not active in the file manager";
        case ActionFileState::notRegistered: return "Not registered";
        case ActionFileState::disabled: return "Disabled";
        case ActionFileState::elsewhere: return "Another copy of Tessarin owns this";
        case ActionFileState::foreign:
            return "A file Tessarin didn't make has this name; it was left untouched";
    }
    return {};
}

std::string actionFileStateWord(ActionFileState state) {
    switch (state) {
        case ActionFileState::active: return "active";
        case ActionFileState::edited: return "edited";
        case ActionFileState::notRegistered: return "not-registered";
        case ActionFileState::disabled: return "disabled";
        case ActionFileState::elsewhere: return "elsewhere";
        case ActionFileState::foreign: return "foreign";
    }
    return {};
}

ActionHealth actionHealth(const std::vector<ActionStatus>& rows) {
    ActionHealth health;
    for (const ActionStatus& row : rows) {
        for (const ActionFileStatus& file : row.files) {
            ++health.total;
            if (!file.active()) {
                health.needsAttention.push_back(
                    fmt::format("{}/{}", fileManagerKey(file.manager), row.name));
            }
        }
    }
    return health;
}

std::string actionHealthText(const ActionHealth& health) {
    const std::size_t k = health.needsAttention.size();
    if (k == 0) {
        return {};
    }
    if (k == 1) {
        return fmt::format(
            "1 of {} Tessarin file-manager actions isn't active, so it's missing from the "
            "right-click menu.",
            health.total);
    }
    return fmt::format(
        "{} of {} Tessarin file-manager actions aren't active, so they're missing from the "
        "right-click menu.",
        k, health.total);
}

ActionRegistrar::ActionRegistrar(Paths paths, SettingsStore& settings)
    : paths_(std::move(paths)), settings_(settings) {}

std::vector<ActionStatus> ActionRegistrar::status() const {
    const std::lock_guard lock(registrarGate());
    return statusLocked();
}

std::vector<ActionStatus> ActionRegistrar::statusLocked() const {
    const std::set<std::string> seeded = seededSet(settings_);
    std::vector<ActionStatus> rows;
    for (const HelperAction& action : helperActions()) {
        ActionStatus row{std::string(action.name), actionMenuName(action), {}};
        for (const FileManager manager : kFileManagers) {
            row.files.push_back(inspect(manager, action,
                                        actionFilePath(paths_.dataHome, manager, action),
                                        paths_.helper, seeded));
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

ActionChangeOutcome ActionRegistrar::install() {
    return write(false);
}

ActionChangeOutcome ActionRegistrar::repair() {
    return write(true);
}

ActionChangeOutcome ActionRegistrar::write(bool honourUserRemovals) {
    const std::lock_guard lock(registrarGate());
    settings_.reload();
    std::set<std::string> seeded = seededSet(settings_);
    ActionChangeOutcome outcome;
    int mismatches = 0;
    for (const ActionStatus& row : statusLocked()) {
        const HelperAction action = *helperAction(row.name);
        for (const ActionFileStatus& file : row.files) {
            if (!file.active()) {
                ++mismatches;
            }
            switch (file.state) {
                case ActionFileState::active:
                    seeded.insert(seededId(file.manager, row.name));
                    continue;
                case ActionFileState::foreign:
                    outcome.foreign.push_back(file.file);
                    continue;
                case ActionFileState::elsewhere:
                    continue;
                case ActionFileState::disabled:
                    if (honourUserRemovals) {
                        kLog.notice(fmt::format(
                            "registrar {}: removed since we wrote it, honoring as a user disable",
                            seededId(file.manager, row.name)));
                        continue;
                    }
                    break;
                case ActionFileState::edited:
                case ActionFileState::notRegistered:
                    break;
            }
            const mode_t mode = actionFileMustBeExecutable(file.manager) ? 0755 : 0644;
            const bool replace = file.state == ActionFileState::edited;
            if (writeActionFile(file.file, actionFileText(file.manager, action, paths_.helper),
                                mode, replace)) {
                ++outcome.written;
                seeded.insert(seededId(file.manager, row.name));
            } else {
                outcome.failed.push_back(file.file);
            }
        }
    }
    storeSeeded(settings_, seeded);
    kLog.notice(fmt::format(
        "{} mismatch(es) on arrival, wrote {} file(s), {} foreign, {} failed",
        mismatches, outcome.written, outcome.foreign.size(), outcome.failed.size()));
    return outcome;
}

ActionChangeOutcome ActionRegistrar::remove() {
    const std::lock_guard lock(registrarGate());
    settings_.reload();
    std::set<std::string> seeded = seededSet(settings_);
    ActionChangeOutcome outcome;
    for (const ActionStatus& row : statusLocked()) {
        for (const ActionFileStatus& file : row.files) {
            if (file.state == ActionFileState::foreign) {
                outcome.foreign.push_back(file.file);
                continue;
            }
            seeded.erase(seededId(file.manager, row.name));
            if (!file.elected()) {
                continue;
            }
            if (::unlink(file.file.c_str()) == 0) {
                ++outcome.removed;
            } else {
                outcome.failed.push_back(file.file);
            }
        }
    }
    // The Nautilus submenu folder goes when it is empty; rmdir never removes anything else.
    const fs::path menuFolder =
        paths_.dataHome / "nautilus" / "scripts" / std::string(kActionMenuTitle);
    ::rmdir(menuFolder.c_str());
    storeSeeded(settings_, seeded);
    kLog.notice(fmt::format("removed {} file(s), {} foreign, {} failed",
                            outcome.removed, outcome.foreign.size(), outcome.failed.size()));
    return outcome;
}

}  // namespace tessarin::engine

namespace tessarin::engine {

bool ActionRegistrar::noteAppVersion(std::string_view version) {
    const std::lock_guard lock(registrarGate());
    settings_.reload();
    const std::string old = settings_.stringValue(kLastRunVersionKey).value_or("none");
    kLog.notice(fmt::format("app version {} → {}", old, version));
    if (old == version) {
        return false;
    }
    kLog.notice("app version changed — running full repair");
    try {
        settings_.setString(kLastRunVersionKey, version);
    } catch (const std::exception&) {
        kLog.error("failed to persist lastRunAppVersion");
    }
    return true;
}

}  // namespace tessarin::engine
