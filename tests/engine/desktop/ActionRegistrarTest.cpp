#include "engine/desktop/ActionRegistrar.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "engine/desktop/StaleActionProcesses.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "tests/support/Files.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;

std::string readAll(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

struct ToolOutput {
    int exitCode;
    std::string out;
};

ToolOutput run(const fs::path& program, const std::vector<std::string>& arguments) {
    ProcessRunner runner;
    const ProcessResult result = runner.run(program, arguments, true, true, 30.0);
    return {result.exitCode, result.stdoutData.value_or("")};
}

// A private data home and a helper whose folder name needs quoting in every file format; the
// helper records its arguments, so a test can run an action file and see what it asked for.
class ActionRegistrarTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(helper.parent_path());
        test::writeFile(helper, "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$(dirname \"$0\")/args\"\n",
                        0755);
    }

    ActionRegistrar registrar() { return ActionRegistrar({dataHome, helper}, settings); }

    std::vector<ActionFileState> states() {
        std::vector<ActionFileState> all;
        for (const ActionStatus& row : registrar().status()) {
            for (const ActionFileStatus& file : row.files) {
                all.push_back(file.state);
            }
        }
        return all;
    }

    ActionFileStatus fileStatus(std::string_view name, FileManager manager) {
        for (const ActionStatus& row : registrar().status()) {
            if (row.name == name) {
                return row.files.at(static_cast<std::size_t>(manager));
            }
        }
        ADD_FAILURE() << "no action " << name;
        return {};
    }

    fs::path fileOf(std::string_view name, FileManager manager) {
        return actionFilePath(dataHome, manager, *helperAction(name));
    }

    test::TempDir folder;
    fs::path dataHome = folder / "data";
    fs::path helper = folder / "Tes'sarin \"app\" $1 100%" / "tessarin-action";
    SettingsStore settings{folder / "config" / "settings.json"};
};

TEST_F(ActionRegistrarTest, InstallStatusRepairAndRemoveInAPrivateDataHome) {
    EXPECT_EQ(states(), std::vector<ActionFileState>(24, ActionFileState::notRegistered));

    const ActionChangeOutcome installed = registrar().install();
    EXPECT_EQ(installed.written, 24);
    EXPECT_TRUE(installed.foreign.empty());
    EXPECT_EQ(states(), std::vector<ActionFileState>(24, ActionFileState::active));
    EXPECT_EQ(settings.stringListValue(ActionRegistrar::kSeededKey)->size(), 24u);
    EXPECT_TRUE(actionHealthText(actionHealth(registrar().status())).empty());

    // The Nautilus script runs the helper with the action and the selected files.
    const fs::path script = fileOf("gif-full", FileManager::nautilus);
    EXPECT_EQ(script.parent_path().filename(), "Convert with Tessarin");
    ASSERT_EQ(run(script, {"a b.mov", "c'd.mp4"}).exitCode, 0);
    EXPECT_EQ(readAll(helper.parent_path() / "args"), "gif-full\na b.mov\nc'd.mp4\n");

    // An edited service menu, a script that lost its execute bit, and a Nemo action the user
    // deleted.
    test::writeFile(fileOf("h264", FileManager::dolphin),
                    readAll(fileOf("h264", FileManager::dolphin)) + "Hidden=true\n", 0755);
    ASSERT_EQ(::chmod(fileOf("vp9", FileManager::nautilus).c_str(), 0644), 0);
    fs::remove(fileOf("av1", FileManager::nemo));
    EXPECT_EQ(fileStatus("h264", FileManager::dolphin).state, ActionFileState::edited);
    EXPECT_EQ(fileStatus("vp9", FileManager::nautilus).state, ActionFileState::edited);
    EXPECT_EQ(fileStatus("av1", FileManager::nemo).state, ActionFileState::disabled);
    const ActionHealth health = actionHealth(registrar().status());
    EXPECT_EQ(health.needsAttention,
              (std::vector<std::string>{"dolphin/h264", "nemo/av1", "nautilus/vp9"}));
    EXPECT_EQ(actionHealthText(health),
              "3 of 24 Tessarin file-manager actions aren't active, so they're missing from the "
              "right-click menu.");

    // Repair restores what drifted and honours the removal; install overrides it.
    EXPECT_EQ(registrar().repair().written, 2);
    EXPECT_EQ(fileStatus("h264", FileManager::dolphin).state, ActionFileState::active);
    EXPECT_EQ(fileStatus("vp9", FileManager::nautilus).state, ActionFileState::active);
    EXPECT_EQ(fileStatus("av1", FileManager::nemo).state, ActionFileState::disabled);
    EXPECT_EQ(registrar().install().written, 1);
    EXPECT_EQ(states(), std::vector<ActionFileState>(24, ActionFileState::active));

    // The version of the last run is remembered; only a new one counts as a change.
    EXPECT_TRUE(registrar().noteAppVersion("1.0"));
    EXPECT_FALSE(registrar().noteAppVersion("1.0"));
    EXPECT_TRUE(registrar().noteAppVersion("1.1"));
    EXPECT_EQ(settings.stringValue("lastRunAppVersion"), "1.1");

    EXPECT_EQ(registrar().remove().removed, 24);
    EXPECT_EQ(states(), std::vector<ActionFileState>(24, ActionFileState::notRegistered));
    EXPECT_FALSE(fs::exists(script.parent_path()));
    EXPECT_TRUE(settings.stringListValue(ActionRegistrar::kSeededKey)->empty());
}

TEST_F(ActionRegistrarTest, EveryFileIsValidForItsFileManager) {
    registrar().install();
    for (const HelperAction& action : helperActions()) {
        // Nautilus: an executable shell script.
        const fs::path script = fileOf(action.name, FileManager::nautilus);
        EXPECT_EQ(::access(script.c_str(), X_OK), 0) << script;
        EXPECT_EQ(run("/bin/sh", {"-n", script.string()}).exitCode, 0) << script;

        // Dolphin: an executable desktop entry. desktop-file-validate knows no "Service" type
        // (a KDE extension), so its two complaints about keys of that type are the only ones
        // allowed.
        const fs::path menu = fileOf(action.name, FileManager::dolphin);
        EXPECT_EQ(::access(menu.c_str(), X_OK), 0) << menu;
        const ToolOutput validated = run("/usr/bin/desktop-file-validate", {menu.string()});
        std::istringstream lines(validated.out);
        for (std::string line; std::getline(lines, line);) {
            const bool kdeServiceKey =
                line.find("but the type is \"Service\" while this key is only valid for type "
                          "\"Application\"") != std::string::npos &&
                (line.find("key \"MimeType\"") != std::string::npos ||
                 line.find("key \"Actions\"") != std::string::npos);
            EXPECT_TRUE(kdeServiceKey) << line;
        }
        const std::string entry = readAll(menu);
        EXPECT_NE(entry.find("\nActions=convert;\n"), std::string::npos);
        EXPECT_NE(entry.find("\nMimeType=video/*;\n"), std::string::npos);
        EXPECT_NE(entry.find("\n[Desktop Action convert]\n"), std::string::npos);

        // Nemo: a [Nemo Action] group with the keys Nemo requires, whose Exec runs our helper.
        const std::string nemo = readAll(fileOf(action.name, FileManager::nemo));
        EXPECT_TRUE(nemo.starts_with("[Nemo Action]\n"));
        for (const char* key : {"\nName=", "\nExec=", "\nSelection=", "\nMimetypes="}) {
            EXPECT_NE(nemo.find(key), std::string::npos) << key;
        }
        for (const FileManager manager : kFileManagers) {
            const ActionFileReading reading =
                readActionFile(manager, readAll(fileOf(action.name, manager)));
            EXPECT_EQ(reading.action, std::string(action.name));
            EXPECT_EQ(reading.helper, helper);
        }
    }
}

TEST_F(ActionRegistrarTest, AForeignFileWithOurNameIsKeptAndReported) {
    const fs::path foreign = fileOf("h264", FileManager::dolphin);
    fs::create_directories(foreign.parent_path());
    test::writeFile(foreign, "[Desktop Entry]\nType=Service\nName=Someone else's\n", 0755);
    const fs::path foreignScript = fileOf("gif", FileManager::nautilus);
    fs::create_directories(foreignScript.parent_path());
    fs::create_symlink("/bin/true", foreignScript);

    const ActionChangeOutcome installed = registrar().install();
    EXPECT_EQ(installed.written, 22);
    EXPECT_EQ(installed.foreign, (std::vector<fs::path>{foreign, foreignScript}));
    EXPECT_EQ(readAll(foreign), "[Desktop Entry]\nType=Service\nName=Someone else's\n");
    EXPECT_EQ(fileStatus("h264", FileManager::dolphin).state, ActionFileState::foreign);
    EXPECT_EQ(actionFileStateText(ActionFileState::foreign),
              "A file Tessarin didn't make has this name; it was left untouched");

    const ActionChangeOutcome removed = registrar().remove();
    EXPECT_EQ(removed.removed, 22);
    EXPECT_EQ(removed.foreign.size(), 2u);
    EXPECT_TRUE(fs::is_symlink(foreignScript));
    EXPECT_EQ(readAll(foreign), "[Desktop Entry]\nType=Service\nName=Someone else's\n");
}

TEST_F(ActionRegistrarTest, AnotherCopysFilesAreLeftAloneUntilItsHelperIsGone) {
    const fs::path otherHelper = folder / "other" / "tessarin-action";
    fs::create_directories(otherHelper.parent_path());
    test::writeFile(otherHelper, "#!/bin/sh\n", 0755);
    SettingsStore otherSettings(folder / "other" / "settings.json");
    ActionRegistrar({dataHome, otherHelper}, otherSettings).install();

    EXPECT_EQ(states(), std::vector<ActionFileState>(24, ActionFileState::elsewhere));
    EXPECT_EQ(fileStatus("vp9", FileManager::nemo).otherHelper, otherHelper);
    EXPECT_EQ(registrar().install().written, 0);
    EXPECT_EQ(registrar().remove().removed, 0);

    // A replaced install: the other copy's helper no longer exists, so its files are ours.
    fs::remove(otherHelper);
    EXPECT_EQ(states(), std::vector<ActionFileState>(24, ActionFileState::edited));
    EXPECT_EQ(registrar().repair().written, 24);
    EXPECT_EQ(states(), std::vector<ActionFileState>(24, ActionFileState::active));
}

// A helper still running the file an update replaced ends; one running the new file, and one of
// another copy (even a removed one), are left alone.
TEST(StaleActionProcesses, EndsOnlyHelpersWhoseFileWasReplaced) {
    test::TempDir folder;
    const fs::path current = folder / "libexec" / "tessarin-action";
    const fs::path other = folder / "other" / "tessarin-action";
    for (const fs::path& copy : {current, other}) {
        fs::create_directories(copy.parent_path());
        fs::copy_file("/bin/sleep", copy);
    }
    auto spawn = [](const fs::path& program) {
        pid_t pid = -1;
        char* argv[] = {const_cast<char*>(program.c_str()), const_cast<char*>("30"), nullptr};
        EXPECT_EQ(posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, environ), 0);
        // The name is set at exec: wait for it.
        for (int i = 0; i < 200; ++i) {
            std::string comm;
            std::getline(std::ifstream(fmt::format("/proc/{}/comm", pid)), comm);
            if (comm == "tessarin-action") {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return pid;
    };
    const pid_t stale = spawn(current);
    const pid_t otherCopy = spawn(other);
    fs::remove(other);
    // The update: a new file under the same name.
    fs::remove(current);
    fs::copy_file("/bin/sleep", current);
    const pid_t live = spawn(current);

    EXPECT_EQ(endStaleActionProcesses(current, std::vector<pid_t>{stale, live, otherCopy}), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(stale, &status, 0), stale);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(::waitpid(live, &status, WNOHANG), 0);
    EXPECT_EQ(::waitpid(otherCopy, &status, WNOHANG), 0);
    for (const pid_t pid : {live, otherCopy}) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
}

}  // namespace
}  // namespace tessarin::engine
