// Who may hand files over: the real helper program is accepted, a changed copy of it is
// "replaced", and a client of another uid is refused, each through the server's own socket.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <thread>

#include "app/intake/IntakeHandoffServer.hpp"
#include "engine/intake/HelperActions.hpp"
#include "engine/log/Log.hpp"
#include "tests/app/intake/HandoffTestSupport.hpp"
#include "tests/support/FakeTools.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;

class PeerAuthenticationTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine::setLogFileForTesting(dir / "log.txt");
        engine::setJournalSinkEnabled(false);
        // Where the helper would open a link: a script that writes it down.
        opener = test::writeScript(dir.path(), "open-link", "printf '%s\\n' \"$@\" >> \"$0.txt\"\n");
    }
    void TearDown() override {
        server.reset();
        engine::setLogFileForTesting(std::nullopt);
        engine::setJournalSinkEnabled(true);
    }

    void start(const fs::path& helperFolder) {
        server = std::make_unique<IntakeHandoffServer>(
            IntakeHandoffServer::Configuration{dir / "tessarin"}, tokens, gate);
        server->peerAuthenticator = [helper = installedActionHelper(helperFolder)](int fd) {
            return authenticatePeer(fd, helper);
        };
        server->delivery = [this](IntakeHandoffDelivery delivery) {
            std::lock_guard lock(mutex);
            delivered.push_back(delivery.presetID);
        };
        server->rejectedPeer = [this] { ++rejected; };
        ASSERT_TRUE(server->start());
    }

    int runHelper(const fs::path& helper, const std::vector<std::string>& arguments) {
        std::vector<std::string> argv{helper.string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return test::runProgram(argv, {{"XDG_RUNTIME_DIR", dir.path().string()},
                                       {"TESSARIN_GUI", opener.string()}});
    }

    std::string read(const fs::path& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    test::TempDir dir;
    fs::path opener;
    engine::IntakeTokenStore tokens{engine::IntakeTokenStore::Key{5}};
    std::shared_ptr<engine::IntakeWorkCapacityGate> gate = engine::IntakeWorkCapacityGate::make(4);
    std::unique_ptr<IntakeHandoffServer> server;
    std::mutex mutex;
    std::vector<std::string> delivered;  // guarded by mutex
    std::atomic<int> rejected = 0;
};

TEST_F(PeerAuthenticationTest, TheInstalledHelperIsAcceptedAndAChangedCopyIsReplaced) {
    const fs::path helperFolder = TESSARIN_HELPER_DIR;
    start(helperFolder);
    EXPECT_EQ(runHelper(helperFolder / engine::kActionHelperName, {"h264", "/v/a.mp4", "/v/b.mp4"}), 0);
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(delivered, std::vector<std::string>{"mp4-h264"});
    }
    EXPECT_FALSE(fs::exists(opener.string() + ".txt")) << "the window took the work over itself";
    // An unknown action never reaches the socket.
    EXPECT_EQ(runHelper(helperFolder / engine::kActionHelperName, {"upload", "/v/a.mp4"}), 2);

    // A copy at the allowed place whose bytes changed after its digest was recorded.
    const fs::path copyFolder = dir / "libexec";
    fs::create_directory(copyFolder);
    fs::copy_file(helperFolder / engine::kActionHelperName, copyFolder / engine::kActionHelperName);
    fs::copy_file(helperFolder / engine::kActionHelperDigestName,
                  copyFolder / engine::kActionHelperDigestName);
    std::ofstream(copyFolder / engine::kActionHelperName, std::ios::app) << "changed";
    server.reset();
    start(copyFolder);
    EXPECT_EQ(runHelper(copyFolder / engine::kActionHelperName, {"gif", "/v/a.mp4"}), 0);
    EXPECT_EQ(rejected, 2) << "the first try and its retry";
    EXPECT_NE(read(dir / "log.txt").find("refused a handoff client whose code was replaced"),
              std::string::npos);
    // Refused, the helper falls back on the plain link, which the window confirms with the user.
    EXPECT_EQ(read(opener.string() + ".txt"), "tessarin://convert?preset=gif-small&file=%2Fv%2Fa.mp4\n");
    std::lock_guard lock(mutex);
    EXPECT_EQ(delivered.size(), 1U);
}

TEST_F(PeerAuthenticationTest, AHelperWhoseFileWasDeletedWhileItRanIsReplaced) {
    const fs::path copyFolder = dir / "libexec";
    fs::create_directory(copyFolder);
    const fs::path helper = copyFolder / engine::kActionHelperName;
    fs::copy_file(fs::path(TESSARIN_HELPER_DIR) / engine::kActionHelperName, helper);
    fs::copy_file(fs::path(TESSARIN_HELPER_DIR) / engine::kActionHelperDigestName,
                  copyFolder / engine::kActionHelperDigestName);
    const std::optional<ActionHelperIdentity> identity = installedActionHelper(copyFolder);
    ASSERT_TRUE(identity);
    // With no window listening, the helper starts one (here: the opener script, which only
    // takes notes) and waits for the socket; meanwhile its file goes away.
    const pid_t running = test::startProgram(
        {helper.string(), "vp9", "/v/a.mp4"},
        {{"XDG_RUNTIME_DIR", dir.path().string()}, {"TESSARIN_GUI", opener.string()}});
    ASSERT_TRUE(test::waitForLine(opener.string() + ".txt"));
    fs::remove(helper);
    server = std::make_unique<IntakeHandoffServer>(
        IntakeHandoffServer::Configuration{dir / "tessarin"}, tokens, gate);
    server->peerAuthenticator = [identity](int fd) { return authenticatePeer(fd, identity); };
    server->rejectedPeer = [this] { ++rejected; };
    ASSERT_TRUE(server->start());
    EXPECT_EQ(test::waitForProgram(running, std::chrono::seconds(30)), 0);
    EXPECT_GE(rejected, 1);
    EXPECT_NE(read(dir / "log.txt").find("refused a handoff client whose code was replaced"),
              std::string::npos);
}

TEST_F(PeerAuthenticationTest, AClientOfAnotherUserIsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to connect as another user";
    }
    start(TESSARIN_HELPER_DIR);
    const fs::path socket = dir / "tessarin" / "s";
    const pid_t child = ::fork();
    if (child == 0) {
        // Become "nobody" but keep the right to open the 0600 socket, so only the peer check
        // stands between this client and the server.
        ::prctl(PR_SET_KEEPCAPS, 1);
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) {
            ::_exit(3);
        }
        __user_cap_header_struct capHeader{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct capData[2]{};
        capData[0].effective = capData[0].permitted = 1U << CAP_DAC_OVERRIDE;
        if (::syscall(SYS_capset, &capHeader, capData) != 0) {
            ::_exit(4);
        }
        const int fd = test::connectTo(socket);
        if (fd < 0) {
            ::_exit(5);
        }
        const auto answer = test::exchange(
            fd, *engine::frame(engine::encodeRequest(test::convertRequest(1)), engine::kHandoffRequestLimit));
        ::_exit(answer ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "closed without an answer";
    EXPECT_EQ(rejected, 1);
    EXPECT_NE(read(dir / "log.txt").find("refused a handoff client that failed authentication"),
              std::string::npos);
}

}  // namespace
}  // namespace tessarin::app
