// The API key in a real Secret Service: a private D-Bus session bus started by the test, with an
// unlocked gnome-keyring-daemon on it, or with nothing on it. Each case runs in a child process,
// because the GLib bus connection is made once per process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "engine/transcription/KeychainOpenRouterKeyStore.hpp"
#include "engine/transcription/OpenRouterKeyStore.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using Presence = TranscriptionKeyPresence;
using Environment = std::map<std::string, std::string>;

pid_t spawn(const std::vector<std::string>& arguments, const Environment& environment,
            int stdinFd = -1) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<std::string> pairs;
    for (const auto& [name, value] : environment) {
        pairs.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (std::string& pair : pairs) {
        envp.push_back(pair.data());
    }
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (stdinFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, stdinFd, STDIN_FILENO);
    }
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    return failed == 0 ? pid : -1;
}

int waitExit(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A session bus of its own (no activatable services, so nothing starts by itself) and, when
// asked, an unlocked keyring daemon serving the Secret Service on it.
class PrivateSession {
public:
    explicit PrivateSession(bool withKeyring) {
        for (const char* name : {"home", "data", "runtime"}) {
            fs::create_directory(folder_ / name);
        }
        fs::permissions(folder_ / "runtime", fs::perms::owner_all);
        const fs::path socket = folder_ / "bus";
        std::ofstream(folder_ / "bus.conf")
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
               "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>session</type><listen>unix:path="
            << socket.string()
            << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
               "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
               "<allow own=\"*\"/></policy></busconfig>\n";
        environment_ = {{"PATH", "/usr/bin:/bin"},
                        {"HOME", (folder_ / "home").string()},
                        {"XDG_DATA_HOME", (folder_ / "data").string()},
                        {"XDG_RUNTIME_DIR", (folder_ / "runtime").string()},
                        {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + socket.string()}};
        bus_ = spawn({"dbus-daemon", "--config-file=" + (folder_ / "bus.conf").string(), "--nofork"},
                     environment_);
        EXPECT_GT(bus_, 0) << "dbus-daemon could not be started";
        ready_ = bus_ > 0 && waitFor([&] { return fs::exists(socket); });
        if (ready_ && withKeyring) {
            int password[2];
            EXPECT_EQ(::pipe2(password, O_CLOEXEC), 0);
            keyring_ = spawn({"gnome-keyring-daemon", "--unlock", "--components=secrets",
                              "--foreground"},
                             environment_, password[0]);
            ::close(password[0]);
            EXPECT_EQ(::write(password[1], "test-password", 13), 13);
            ::close(password[1]);
            ready_ = keyring_ > 0 && waitFor([&] { return ownsSecrets(); });
        }
    }
    ~PrivateSession() {
        for (const pid_t pid : {keyring_, bus_}) {
            if (pid > 0) {
                ::kill(pid, SIGTERM);
                waitExit(pid);
            }
        }
    }

    [[nodiscard]] bool ready() const { return ready_; }
    [[nodiscard]] const Environment& environment() const { return environment_; }

private:
    static bool waitFor(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            if (condition()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    bool ownsSecrets() const {
        const pid_t pid = spawn({"dbus-send", "--session", "--print-reply",
                                 "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                                 "org.freedesktop.DBus.GetNameOwner",
                                 "string:org.freedesktop.secrets"},
                                environment_);
        return pid > 0 && waitExit(pid) == 0;
    }

    test::TempDir folder_;
    Environment environment_;
    pid_t bus_ = -1;
    pid_t keyring_ = -1;
    bool ready_ = false;
};

// Runs `body` in a child process with `environment`; the child's exit status (0: all held).
int inChild(const Environment& environment, const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        for (const auto& [name, value] : environment) {
            ::setenv(name.c_str(), value.c_str(), 1);
        }
        std::_Exit(body());
    }
    return pid > 0 ? waitExit(pid) : -1;
}

// Each failed expectation in the child names itself on stderr and sets the exit status.
#define CHILD_EXPECT(condition)                                                   \
    do {                                                                          \
        if (!(condition)) {                                                       \
            std::fprintf(stderr, "child: failed %s (line %d)\n", #condition, __LINE__); \
            status = 1;                                                           \
        }                                                                         \
    } while (false)

TEST(KeychainOpenRouterKeyStore, SavesReadsReplacesAndDeletesTheKeyInAnUnlockedKeyring) {
    const PrivateSession session(/*withKeyring=*/true);
    ASSERT_TRUE(session.ready()) << "no keyring daemon on the private bus";
    EXPECT_EQ(inChild(session.environment(), [] {
                  int status = 0;
                  KeychainOpenRouterKeyStore store;
                  CHILD_EXPECT(store.read().presence == Presence::absent);
                  store.save("sk-or-first");
                  const OpenRouterKeyRead first = store.read();
                  CHILD_EXPECT(first.presence == Presence::present && first.key == "sk-or-first");
                  CHILD_EXPECT(saveKeyField(store, "  sk-or-second\n") == Presence::present);
                  CHILD_EXPECT(store.read().key == "sk-or-second");
                  // A second store (another window, the command line) finds the same key.
                  CHILD_EXPECT(KeychainOpenRouterKeyStore().read().key == "sk-or-second");
                  CHILD_EXPECT(saveKeyField(store, "   ") == Presence::absent);
                  CHILD_EXPECT(store.read().presence == Presence::absent);
                  store.save("sk-or-third");
                  store.remove();
                  store.remove();  // nothing left to remove is not a failure
                  CHILD_EXPECT(store.read().presence == Presence::absent);
                  return status;
              }),
              0);
}

TEST(KeychainOpenRouterKeyStore, ALockedKeyringReadsUnreadableAndAnEmptyFieldLeavesItAlone) {
    const PrivateSession session(/*withKeyring=*/true);
    ASSERT_TRUE(session.ready()) << "no keyring daemon on the private bus";
    const Environment environment = session.environment();
    EXPECT_EQ(inChild(environment, [&environment] {
                  int status = 0;
                  KeychainOpenRouterKeyStore store;
                  store.save("sk-or-locked");
                  CHILD_EXPECT(store.read().presence == Presence::present);
                  const pid_t lock = spawn(
                      {"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.secrets",
                       "/org/freedesktop/secrets", "org.freedesktop.Secret.Service.Lock",
                       "array:objpath:/org/freedesktop/secrets/collection/login"},
                      environment);
                  CHILD_EXPECT(lock > 0 && waitExit(lock) == 0);
                  const OpenRouterKeyRead locked = store.read();
                  CHILD_EXPECT(locked.presence == Presence::unreadable && locked.key.empty());
                  CHILD_EXPECT(saveKeyField(store, "") == Presence::unreadable);
                  return status;
              }),
              0);
}

TEST(KeychainOpenRouterKeyStore, WithoutASecretServiceTheKeyIsUnreadableAndNeverOverwritten) {
    const PrivateSession session(/*withKeyring=*/false);
    ASSERT_TRUE(session.ready());
    Environment noBus = session.environment();
    noBus["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/nonexistent/tessarin-bus";
    for (const Environment& environment : {session.environment(), noBus}) {
        EXPECT_EQ(inChild(environment, [] {
                      int status = 0;
                      KeychainOpenRouterKeyStore store;
                      CHILD_EXPECT(store.read().presence == Presence::unreadable);
                      // An empty field leaves a key that can't be read alone.
                      CHILD_EXPECT(saveKeyField(store, "") == Presence::unreadable);
                      bool refused = false;
                      try {
                          store.save("sk-or-new");
                      } catch (const OpenRouterKeySaveError& error) {
                          refused = std::string(error.what()) ==
                                    "The key couldn’t be saved to the system keyring.";
                      }
                      CHILD_EXPECT(refused);
                      return status;
                  }),
                  0);
    }
}

}  // namespace
}  // namespace tessarin::engine
