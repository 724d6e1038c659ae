#include "engine/desktop/CLIInstaller.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "engine/log/Log.hpp"
#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

const Logger kLog("com.tessarin.app", "cli-installer");

constexpr std::string_view kProfileExport = "export PATH=\"$HOME/.local/bin:$PATH\"";

std::string quoted(const fs::path& path) {
    std::string text = "'";
    for (const char c : path.string()) {
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return text + "'";
}

bool isOurTool(const fs::path& target, std::string_view command) {
    return target.filename() == command && target.parent_path().filename() == "bin";
}

fs::path standardised(const fs::path& path) {
    std::error_code error;
    fs::path resolved = fs::weakly_canonical(path, error);
    if (error) {
        resolved = path.lexically_normal();
    }
    // "bin/" and "bin" are one folder.
    return resolved.has_filename() ? resolved : resolved.parent_path();
}

}  // namespace

CLIInstallError::CLIInstallError(Kind kind, std::string message, int code)
    : std::runtime_error(std::move(message)), kind_(kind), code_(code) {}

std::string CLIInstallError::word() const {
    switch (kind_) {
        case Kind::sourceMissing: return "source-missing";
        case Kind::occupiedByFile: return "occupied-by-file";
        case Kind::notOurSymlink: return "not-our-symlink";
        case Kind::adminFailed: return fmt::format("admin-failed-{}", code_);
        case Kind::unsafeSystemSource: return "unsafe-system-source";
    }
    return {};
}

CLIInstaller CLIInstaller::forHome(const fs::path& source, const fs::path& home) {
    CLIInstaller installer;
    installer.sourceURL = source;
    installer.targetDirectory = home / ".local" / "bin";
    installer.shellProfileURL = home / ".profile";
    return installer;
}

CLIInstaller::Status CLIInstaller::status(fs::path* destination) const {
    const fs::path link = targetDirectory / commandName;
    struct stat info {};
    if (::lstat(link.c_str(), &info) != 0) {
        return Status::notInstalled;
    }
    if (!S_ISLNK(info.st_mode)) {
        return Status::blocked;
    }
    std::error_code error;
    const fs::path target = fs::read_symlink(link, error);
    if (destination != nullptr) {
        *destination = target;
    }
    return standardised(link) == standardised(sourceURL) ? Status::installed : Status::stale;
}

void CLIInstaller::install() const {
    const fs::path link = targetDirectory / commandName;
    try {
        if (::access(sourceURL.c_str(), X_OK) != 0) {
            throw CLIInstallError(
                CLIInstallError::Kind::sourceMissing,
                fmt::format("The bundled CLI was not found at {}. Install {} with the package "
                            "manager and run it from there.",
                            sourceURL.string(), appBundleName));
        }
        fs::create_directories(targetDirectory);
        struct stat info {};
        if (::lstat(link.c_str(), &info) == 0) {
            if (!S_ISLNK(info.st_mode)) {
                throw CLIInstallError(
                    CLIInstallError::Kind::occupiedByFile,
                    fmt::format("A file already exists at {}. {} won't replace it — move it aside "
                                "first.",
                                link.string(), appBundleName));
            }
            const fs::path target = fs::read_symlink(link);
            if (!isOurTool(target, commandName)) {
                throw CLIInstallError(
                    CLIInstallError::Kind::notOurSymlink,
                    fmt::format("The symlink points to {}, which is not a {} CLI — it was left "
                                "untouched.",
                                target.string(), appBundleName));
            }
            fs::remove(link);
        }
        fs::create_symlink(sourceURL, link);
        kLog.notice("CLI install: ok");
    } catch (const CLIInstallError& error) {
        kLog.error(fmt::format("CLI install failed: {}", error.word()));
        throw;
    }
}

bool CLIInstaller::configureShellPath() const {
    std::string profile;
    if (std::ifstream in(shellProfileURL, std::ios::binary); in) {
        std::ostringstream text;
        text << in.rdbuf();
        profile = text.str();
    }
    std::istringstream lines(profile);
    for (std::string line; std::getline(lines, line);) {
        if (line == kProfileExport) {
            return false;
        }
    }
    std::ofstream out(shellProfileURL, std::ios::binary | std::ios::app);
    if (!profile.empty() && profile.back() != '\n') {
        out << '\n';
    }
    out << "# Added by Tessarin CLI installer\n" << kProfileExport << "\n";
    out.flush();
    if (!out) {
        throw std::runtime_error(fmt::format("Couldn't write {}.", shellProfileURL.string()));
    }
    kLog.notice("CLI configure-shell-path: ok");
    return true;
}

bool CLIInstaller::targetOnPath(std::string_view path) const {
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find(':', start);
        if (end == std::string_view::npos) {
            end = path.size();
        }
        const std::string_view entry = path.substr(start, end - start);
        if (!entry.empty() && standardised(fs::path(entry)) == standardised(targetDirectory)) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

std::string systemInstallScript(const fs::path& source, const fs::path& link,
                                std::string_view command) {
    std::vector<std::string> steps{
        "set -eu",
        "fail() { echo 'The app or system CLI location is not safe for an administrator "
        "install. Use Install for this account instead.' >&2; exit 1; }",
        // A real folder owned by root, not writable by group or others, no extended ACL.
        "trust() { [ ! -L \"$1\" ] && [ -d \"$1\" ] || fail; [ \"$(/usr/bin/stat -c %u \"$1\")\" "
        "= 0 ] || fail; mode=$(/usr/bin/stat -c %a \"$1\"); [ $((0$mode & 022)) -eq 0 ] || fail; "
        "[ -z \"$(/usr/bin/getfacl -s -p \"$1\" 2>/dev/null)\" ] || fail; }",
        "trust_file() { [ ! -L \"$1\" ] && [ -f \"$1\" ] && [ -x \"$1\" ] || fail; [ \"$(/usr/bin/"
        "stat -c %u \"$1\")\" = 0 ] || fail; mode=$(/usr/bin/stat -c %a \"$1\"); [ $((0$mode & "
        "022)) -eq 0 ] || fail; [ -z \"$(/usr/bin/getfacl -s -p \"$1\" 2>/dev/null)\" ] || fail; }",
    };
    // Each step from the root down is checked before the next is trusted, so that a writable
    // parent can't swap a trusted child.
    fs::path walked = "/";
    steps.push_back("trust '/'");
    for (const fs::path& part : source.parent_path().relative_path()) {
        walked /= part;
        steps.push_back("trust " + quoted(walked));
    }
    steps.push_back("trust_file " + quoted(source));
    walked = "/";
    for (const fs::path& part : link.parent_path().relative_path()) {
        walked /= part;
        steps.push_back(fmt::format(
            "if [ ! -e {0} ] && [ ! -L {0} ]; then /bin/mkdir -m 755 {0}; fi; trust {0}",
            quoted(walked)));
    }
    steps.push_back(fmt::format(
        "if [ -L {0} ]; then case \"$(/usr/bin/readlink {0})\" in */bin/{1}) ;; *) fail ;; esac; "
        "elif [ -e {0} ]; then fail; fi",
        quoted(link), command));
    steps.push_back(fmt::format("/bin/ln -sfn {} {}", quoted(source), quoted(link)));
    std::string script;
    for (const std::string& step : steps) {
        script += script.empty() ? step : "; " + step;
    }
    return script;
}

void CLIInstaller::installForAllUsers(const ElevatedRunner& runElevated) const {
    try {
        const fs::path source = standardised(sourceURL);
        const std::string text = source.string();
        if (!(text.starts_with("/usr/") || text.starts_with("/opt/")) ||
            text.starts_with("/usr/local/")) {
            throw CLIInstallError(
                CLIInstallError::Kind::unsafeSystemSource,
                fmt::format("Install for all users requires an administrator-managed copy of {} "
                            "(installed under /usr or /opt by the package manager). Use Install "
                            "for this account instead.",
                            appBundleName));
        }
        const std::vector<std::string> argv{
            "/usr/bin/pkexec", "/bin/sh", "-c",
            systemInstallScript(source, systemLinkPath, commandName)};
        std::pair<int, std::string> outcome;
        if (runElevated) {
            outcome = runElevated(argv);
        } else {
            ProcessRunner runner;
            const ProcessResult result = runner.run(argv[0], {argv.begin() + 1, argv.end()});
            outcome = {result.exitCode, result.stderrTail};
        }
        if (outcome.first == 126) {
            throw CLIInstallError(CLIInstallError::Kind::adminFailed,
                                  "Authorization was cancelled.", 126);
        }
        if (outcome.first == 127) {
            throw CLIInstallError(CLIInstallError::Kind::adminFailed, "Authorization failed.",
                                  127);
        }
        if (outcome.first != 0) {
            throw CLIInstallError(CLIInstallError::Kind::adminFailed,
                                  outcome.second.empty()
                                      ? fmt::format("The install script failed ({}).", outcome.first)
                                      : outcome.second,
                                  outcome.first);
        }
        kLog.notice("CLI install-all-users: ok");
    } catch (const CLIInstallError& error) {
        kLog.error(fmt::format("CLI install-all-users failed: {}", error.word()));
        throw;
    }
}

std::string cliInstallerStatusText(const CLIInstaller& installer) {
    fs::path destination;
    switch (installer.status(&destination)) {
        case CLIInstaller::Status::notInstalled:
            return fmt::format(
                "Puts the {} command on your PATH by linking it into ~/.local/bin and updating "
                "~/.profile for future terminal windows. No password needed.",
                installer.appBundleName);
        case CLIInstaller::Status::installed:
            return fmt::format("Installed at ~/.local/bin/{}", installer.commandName);
        case CLIInstaller::Status::stale:
            return fmt::format(
                "A {} symlink exists in ~/.local/bin but points to {}. Repair re-points it at "
                "this app.",
                installer.commandName, destination.string());
        case CLIInstaller::Status::blocked:
            return fmt::format(
                "A real file already exists at ~/.local/bin/{}. {} won't replace it — move it "
                "aside first.",
                installer.commandName, installer.appBundleName);
    }
    return {};
}

}  // namespace tessarin::engine
