#include "engine/desktop/CLIInstaller.hpp"

#include <gtest/gtest.h>

#include "engine/process/ProcessRunner.hpp"
#include "tests/support/Files.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;

class CLIInstallerTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(source.parent_path());
        test::writeFile(source, "#!/bin/sh\n", 0755);
        fs::create_directories(folder / "home");
    }
    test::TempDir folder;
    fs::path source = folder / "Tes'sarin copy" / "bin" / "tessarin";
    CLIInstaller installer = CLIInstaller::forHome(source, folder / "home");
    fs::path link = folder / "home" / ".local" / "bin" / "tessarin";
};

TEST_F(CLIInstallerTest, InstallsRepairsAStaleLinkAndLeavesOthersAlone) {
    EXPECT_EQ(installer.status(), CLIInstaller::Status::notInstalled);
    installer.install();
    EXPECT_EQ(installer.status(), CLIInstaller::Status::installed);
    EXPECT_EQ(fs::read_symlink(link), source);
    EXPECT_EQ(cliInstallerStatusText(installer), "Installed at ~/.local/bin/tessarin");

    // A link into another copy's bin folder is stale; install re-points it.
    fs::remove(link);
    fs::create_symlink("/opt/old-copy/bin/tessarin", link);
    fs::path destination;
    EXPECT_EQ(installer.status(&destination), CLIInstaller::Status::stale);
    EXPECT_EQ(destination, "/opt/old-copy/bin/tessarin");
    installer.install();
    EXPECT_EQ(installer.status(), CLIInstaller::Status::installed);

    // A link to an unrelated program and a real file are left as they are.
    fs::remove(link);
    fs::create_symlink("/bin/true", link);
    try {
        installer.install();
        ADD_FAILURE() << "installed over a foreign link";
    } catch (const CLIInstallError& error) {
        EXPECT_EQ(error.word(), "not-our-symlink");
        EXPECT_STREQ(error.what(),
                     "The symlink points to /bin/true, which is not a Tessarin CLI — it was left "
                     "untouched.");
    }
    EXPECT_EQ(fs::read_symlink(link), "/bin/true");
    fs::remove(link);
    test::writeFile(link, "mine\n");
    EXPECT_EQ(installer.status(), CLIInstaller::Status::blocked);
    EXPECT_THROW(installer.install(), CLIInstallError);
    EXPECT_EQ(test::readFile(link), "mine\n");

    fs::remove(source);
    fs::remove(link);
    try {
        installer.install();
        ADD_FAILURE() << "installed a missing source";
    } catch (const CLIInstallError& error) {
        EXPECT_EQ(error.word(), "source-missing");
    }
    EXPECT_FALSE(fs::exists(link));
}

TEST_F(CLIInstallerTest, TheProfileStepRunTwiceAddsOneBlock) {
    test::writeFile(folder / "home" / ".profile", "umask 022");
    EXPECT_TRUE(installer.configureShellPath());
    EXPECT_FALSE(installer.configureShellPath());
    EXPECT_EQ(test::readFile(folder / "home" / ".profile"),
              "umask 022\n# Added by Tessarin CLI installer\n"
              "export PATH=\"$HOME/.local/bin:$PATH\"\n");
    const std::string target = (folder / "home" / ".local" / "bin").string();
    EXPECT_TRUE(installer.targetOnPath("/usr/bin:" + target + "/:/bin"));
    EXPECT_FALSE(installer.targetOnPath("/usr/bin:/bin"));
}

TEST_F(CLIInstallerTest, AllUsersNeedsAnAdministratorManagedCopyAndMapsPkexecAnswers) {
    bool ran = false;
    auto neverRun = [&](const std::vector<std::string>&) {
        ran = true;
        return std::pair<int, std::string>{0, ""};
    };
    try {
        installer.installForAllUsers(neverRun);
        ADD_FAILURE() << "a copy in a user's folder was linked for all users";
    } catch (const CLIInstallError& error) {
        EXPECT_EQ(error.word(), "unsafe-system-source");
    }
    EXPECT_FALSE(ran);

    CLIInstaller system = installer;
    system.sourceURL = "/usr/bin/tessarin";
    std::vector<std::string> argv;
    for (const auto& [exitCode, message, word] :
         {std::tuple{126, "Authorization was cancelled.", "admin-failed-126"},
          std::tuple{127, "Authorization failed.", "admin-failed-127"},
          std::tuple{1, "script says no", "admin-failed-1"}}) {
        try {
            const int code = exitCode;
            system.installForAllUsers([&argv, code](const std::vector<std::string>& command) {
                argv = command;
                return std::pair<int, std::string>{code, "script says no"};
            });
            ADD_FAILURE() << code;
        } catch (const CLIInstallError& error) {
            EXPECT_STREQ(error.what(), message);
            EXPECT_EQ(error.word(), word);
        }
    }
    ASSERT_EQ(argv.size(), 4u);
    EXPECT_EQ(argv[0], "/usr/bin/pkexec");
    EXPECT_EQ(argv[3], systemInstallScript("/usr/bin/tessarin", "/usr/local/bin/tessarin",
                                           "tessarin"));
}

// The script quotes a folder with a quote in its name, and refuses a source in a folder that
// others may write to (the temporary folder) before it links anything.
TEST_F(CLIInstallerTest, TheAdministratorScriptQuotesAndRefusesUnsafeFolders) {
    const fs::path systemLink = folder / "usr-local" / "bin" / "tessarin";
    const std::string script = systemInstallScript(source, systemLink, "tessarin");
    EXPECT_NE(script.find("trust_file '" + (folder / "Tes'\\''sarin copy").string()),
              std::string::npos)
        << script;
    ProcessRunner runner;
    const ProcessResult result = runner.run("/bin/sh", {"-c", script}, false, false, 30.0);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.stderrTail.find("The app or system CLI location is not safe for an "
                                     "administrator install."),
              std::string::npos)
        << result.stderrTail;
    EXPECT_FALSE(fs::exists(folder / "usr-local"));
}

}  // namespace
}  // namespace tessarin::engine
