// Puts the `tessarin` command on the user's PATH: for this account, a symbolic link in
// ~/.local/bin (and, when that folder isn't on PATH, two lines in ~/.profile); for all users, a
// link in /usr/local/bin made by an administrator script run through pkexec. It never replaces
// what it didn't make: only a link of ours (to a `tessarin` in some copy's bin folder) is ever
// removed, and nothing else is deleted.
//
// A plain value; blocking file work and, for all users, a child process. Any thread.
#pragma once

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace tessarin::engine {

class CLIInstallError : public std::runtime_error {
public:
    enum class Kind { sourceMissing, occupiedByFile, notOurSymlink, adminFailed, unsafeSystemSource };
    CLIInstallError(Kind kind, std::string message, int code = 0);
    [[nodiscard]] Kind kind() const { return kind_; }
    // The stable word for the log: "source-missing", "occupied-by-file", "not-our-symlink",
    // "admin-failed-{code}", "unsafe-system-source".
    [[nodiscard]] std::string word() const;

private:
    Kind kind_;
    int code_;
};

struct CLIInstaller {
    enum class Status { notInstalled, installed, stale, blocked };

    std::filesystem::path sourceURL;        // the tool of this copy, <prefix>/bin/tessarin
    std::filesystem::path targetDirectory;  // ~/.local/bin
    std::filesystem::path systemLinkPath = "/usr/local/bin/tessarin";
    std::string commandName = "tessarin";
    std::string appBundleName = "Tessarin";
    std::filesystem::path shellProfileURL;  // ~/.profile

    // For the program at `source` and the home folder `home`.
    [[nodiscard]] static CLIInstaller forHome(const std::filesystem::path& source,
                                              const std::filesystem::path& home);

    // The link in targetDirectory: absent `notInstalled`; resolving to sourceURL `installed`; a
    // link elsewhere `stale` (its target in `destination`); anything else `blocked`.
    [[nodiscard]] Status status(std::filesystem::path* destination = nullptr) const;
    // Throws CLIInstallError (sourceMissing, occupiedByFile, notOurSymlink) or
    // std::filesystem::filesystem_error.
    void install() const;
    // Appends the PATH block to the profile unless its export line is there. True when it wrote.
    bool configureShellPath() const;
    // Whether targetDirectory is one of the folders of `path` (a PATH value).
    [[nodiscard]] bool targetOnPath(std::string_view path) const;

    // The link in /usr/local/bin, through `pkexec /bin/sh -c SCRIPT`. Throws CLIInstallError:
    // unsafeSystemSource when sourceURL isn't an administrator-managed copy (under /usr or /opt),
    // adminFailed with "Authorization was cancelled." (pkexec 126), "Authorization failed."
    // (127) or the script's own error text. `runElevated` runs an argument vector and returns
    // its exit status and standard error; absent, the process runner does.
    using ElevatedRunner =
        std::function<std::pair<int, std::string>(const std::vector<std::string>& argv)>;
    void installForAllUsers(const ElevatedRunner& runElevated = {}) const;
};

// The administrator script that links `link` to `source`: every folder from the root down to the
// source, and to the link, must be a real folder owned by root, not writable by group or others,
// without extended ACL entries; the source a real executable file with the same checks; an
// existing link is replaced only when it points at some copy's bin/{command}.
[[nodiscard]] std::string systemInstallScript(const std::filesystem::path& source,
                                              const std::filesystem::path& link,
                                              std::string_view command);

// Texts of the section "Command-line tool".
[[nodiscard]] std::string cliInstallerStatusText(const CLIInstaller& installer);
inline constexpr std::string_view kShellProfileConfigured = "Terminal PATH configured";
inline constexpr std::string_view kShellProfileHint =
    "Future terminal windows load ~/.local/bin from ~/.profile. For a terminal window that was "
    "already open, run:\nsource ~/.profile";
inline constexpr std::string_view kAllUsersHelp =
    "Links /usr/local/bin/tessarin instead — asks for an administrator password via the system's "
    "authentication dialog.";

}  // namespace tessarin::engine
