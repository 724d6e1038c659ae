#include "tests/cli/CliTestSupport.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "engine/probe/MediaProbe.hpp"
#include "tests/support/TestMedia.hpp"

extern char** environ;

namespace tessarin::cli {

namespace fs = std::filesystem;

const fs::path& toolPath() {
    static const fs::path kTool = fs::path(TESSARIN_BIN_DIR) / "tessarin";
    return kTool;
}

ToolRun runTool(const std::vector<std::string>& arguments,
                const engine::ProcessRunner::Environment& extra) {
    engine::ProcessRunner::Environment environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        environment[text.substr(0, equals)] = text.substr(equals + 1);
    }
    // Never the real user's settings: a private configuration folder unless a test names one.
    static const tessarin::test::TempDir kConfigHome;
    environment["XDG_CONFIG_HOME"] = kConfigHome.path().string();
    for (const auto& [key, value] : extra) {
        environment[key] = value;
    }
    engine::ProcessRunner runner;
    ToolRun run{0, "", ""};
    engine::ProcessRunner::RawOptions options;
    options.timeout = 120;
    options.environment = environment;
    options.stdoutHandler = [&](std::string_view chunk) { run.out += chunk; };
    options.stderrHandler = [&](std::string_view chunk) { run.err += chunk; };
    run.exitCode = runner.runRaw(toolPath(), arguments, options).exitCode;
    return run;
}

pid_t spawnTool(const std::vector<std::string>& arguments,
                const std::vector<std::string>& environment, const ToolStreams& streams) {
    std::vector<std::string> argv = {toolPath().string()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<std::string> entries = environment;
    const auto pointersTo = [](std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        for (std::string& text : texts) {
            pointers.push_back(text.data());
        }
        pointers.push_back(nullptr);
        return pointers;
    };
    std::vector<char*> argvPointers = pointersTo(argv);
    std::vector<char*> envPointers = pointersTo(entries);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int targets[] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
    const int sources[] = {streams.in, streams.out, streams.err};
    for (int index = 0; index < 3; ++index) {
        if (sources[index] >= 0) {
            posix_spawn_file_actions_adddup2(&actions, sources[index], targets[index]);
        }
    }
    pid_t pid = -1;
    const int error = posix_spawn(&pid, toolPath().c_str(), &actions, nullptr, argvPointers.data(),
                                  envPointers.data());
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(error, 0) << "could not start " << toolPath();
    return error == 0 ? pid : -1;
}

std::vector<std::string> currentEnvironment() {
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        entries.emplace_back(*entry);
    }
    return entries;
}

fs::path copyInto(const fs::path& folder, const fs::path& file, const std::string& name) {
    const fs::path target = folder / name;
    fs::copy_file(file, target);
    return target;
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

engine::MediaInfo probe(const fs::path& file) {
    engine::ProcessRunner runner;
    return engine::MediaProbe::probe(file,
                                     *engine::Tools::inBundle(tessarin::test::helperDirectory()),
                                     engine::MediaInputPolicy::unrestricted, runner);
}

std::vector<nlohmann::json> jsonEvents(const std::string& out) {
    std::vector<nlohmann::json> events;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        events.push_back(nlohmann::json::parse(line));
    }
    return events;
}

RunningTool::RunningTool(const fs::path& source, const std::string& name,
                         const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
    std::vector<std::string> command = arguments;
    command.push_back("--json");
    command.push_back(copyInto(folder_.path(), source, name).string());
    std::vector<std::string> entries = {"TMPDIR=" + workRoot_.path().string(), "PATH=/usr/bin:/bin",
                                        "CONVERTER_TOOLS_DIR=" + test::helperDirectory().string()};
    entries.insert(entries.end(), environment.begin(), environment.end());
    int events[2];
    EXPECT_EQ(::pipe2(events, O_CLOEXEC), 0);
    pid_ = spawnTool(command, entries, {.out = events[1]});
    ::close(events[1]);
    events_ = ::fdopen(events[0], "r");
}

RunningTool::~RunningTool() {
    std::free(line_);
    if (events_ != nullptr) {
        std::fclose(events_);
    }
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

bool RunningTool::waitForProgress() {
    while (::getline(&line_, &capacity_, events_) > 0) {
        const auto event = nlohmann::json::parse(line_);
        if (event["event"] == "progress" && event["fraction"].get<double>() > 0) {
            return true;
        }
    }
    return false;
}

std::string RunningTool::lastEvent() {
    std::string last;
    while (::getline(&line_, &capacity_, events_) > 0) {
        last = line_;
    }
    return last;
}

int RunningTool::stop(int signal) {
    EXPECT_EQ(::kill(pid_, signal), 0);
    int status = 0;
    EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    return status;
}

}  // namespace tessarin::cli
