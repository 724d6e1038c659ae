// The handoff server over real Unix-domain sockets: the protocol, its bounds, the replay cache,
// hostile and idle clients, and the lock that keeps one instance listening.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

#include "app/intake/IntakeHandoffServer.hpp"
#include "engine/clips/Uuid.hpp"
#include "engine/log/Log.hpp"
#include "tests/app/intake/HandoffTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using engine::IntakeHandoffRequest;
using engine::IntakeHandoffResponse;

std::string frameOf(const std::string& body) {
    return *engine::frame(body, engine::kHandoffRequestLimit);
}

std::string header(uint32_t length) {
    return {static_cast<char>(length >> 24), static_cast<char>(length >> 16),
            static_cast<char>(length >> 8), static_cast<char>(length)};
}

bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

class HandoffServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine::setLogFileForTesting(dir / "log.txt");
        // The journal keeps its socket open for good, which would read as a leak.
        engine::setJournalSinkEnabled(false);
    }
    void TearDown() override {
        server.reset();
        engine::setLogFileForTesting(std::nullopt);
        engine::setJournalSinkEnabled(true);
    }

    // A server that takes every peer as proven, so the protocol can be driven from this test.
    IntakeHandoffServer& start(std::chrono::milliseconds timeout = std::chrono::seconds(12)) {
        server = std::make_unique<IntakeHandoffServer>(
            IntakeHandoffServer::Configuration{dir / "tessarin", timeout, 8}, tokens, gate);
        server->peerAuthenticator = [](int) { return PeerAuthentication::accepted; };
        server->delivery = [this](IntakeHandoffDelivery delivery) {
            std::lock_guard lock(mutex);
            deliveries.push_back(std::move(delivery));
        };
        server->rejectedPeer = [this] { ++rejected; };
        EXPECT_TRUE(server->start());
        return *server;
    }

    fs::path socket() const { return dir / "tessarin" / "s"; }
    std::size_t deliveryCount() {
        std::lock_guard lock(mutex);
        return deliveries.size();
    }
    std::string log() {
        std::ifstream file(dir / "log.txt");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    test::TempDir dir;
    engine::IntakeTokenStore tokens{engine::IntakeTokenStore::Key{3}};
    std::shared_ptr<engine::IntakeWorkCapacityGate> gate = engine::IntakeWorkCapacityGate::make(4);
    std::unique_ptr<IntakeHandoffServer> server;
    std::mutex mutex;
    std::vector<IntakeHandoffDelivery> deliveries;  // guarded by mutex
    std::atomic<int> rejected = 0;
};

TEST_F(HandoffServerTest, AHandoffIsDeliveredOnceAndARetryGetsTheSameAnswer) {
    start();
    struct stat folder {};
    ASSERT_EQ(::stat((dir / "tessarin").c_str(), &folder), 0);
    EXPECT_EQ(folder.st_mode & 07777, 0700U);
    struct stat socketStatus {};
    ASSERT_EQ(::stat(socket().c_str(), &socketStatus), 0);
    EXPECT_EQ(socketStatus.st_mode & 07777, 0600U);

    const std::string id = engine::Uuid::random().text();
    const auto first = test::handOver(socket(), test::convertRequest(2, id));
    ASSERT_TRUE(first && first->nonce);
    EXPECT_EQ(first->delivered, true);
    const auto again = test::handOver(socket(), test::convertRequest(2, id));
    EXPECT_EQ(again, first);
    ASSERT_TRUE(eventually([&] { return deliveryCount() == 1; }));
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(deliveries[0].nonce, *first->nonce);
        EXPECT_EQ(deliveries[0].presetID, "mp4-h264");
        ASSERT_TRUE(deliveries[0].validationLease);
    }
    EXPECT_EQ(gate->active(), 1U);

    // The same id with other content is an attack or a bug: no answer.
    EXPECT_FALSE(test::handOver(socket(), test::convertRequest(1, id)));
    IntakeHandoffRequest badID = test::convertRequest(1, "not-a-uuid");
    EXPECT_FALSE(test::handOver(socket(), badID));
    IntakeHandoffRequest badKind = test::convertRequest(1);
    badKind.actionKind = "upload";
    EXPECT_FALSE(test::handOver(socket(), badKind));

    const auto token = tokens.consume(*first->nonce);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->handoffFiles, (std::vector<std::string>{"/v/0.mp4", "/v/1.mp4"}));
    EXPECT_EQ(deliveryCount(), 1U);
}

TEST_F(HandoffServerTest, BadCountsGetNoNonceAndAFullGateLeavesTheLinkToTheClient) {
    start();
    const IntakeHandoffResponse none{std::nullopt, false};
    EXPECT_EQ(test::handOver(socket(), test::convertRequest(0)), none);
    EXPECT_EQ(test::handOver(socket(), test::convertRequest(501)), none);
    IntakeHandoffRequest mismatch = test::convertRequest(3);
    mismatch.fileCount = 2;
    EXPECT_EQ(test::handOver(socket(), mismatch), none);

    std::vector<engine::IntakeWorkCapacityLease> busy;
    for (int i = 0; i < 4; ++i) {
        busy.push_back(*gate->tryAcquire());
    }
    const auto response = test::handOver(socket(), test::convertRequest(1));
    ASSERT_TRUE(response && response->nonce);
    EXPECT_EQ(response->delivered, false);
    EXPECT_EQ(deliveryCount(), 0U);
}

TEST_F(HandoffServerTest, MalformedFramesAreClosedWithoutAnAnswer) {
    start();
    const std::vector<std::pair<const char*, std::string>> frames{
        {"length 0", header(0)},
        {"length 524289", header(524'289) + std::string(100, '{')},
        {"not JSON", frameOf("{\"presetID\":")},
        {"wrong types", frameOf(R"({"presetID":1,"fileCount":1,"files":[],"actionKind":"convert"})")},
        {"NUL inside", frameOf(std::string("{\"a\":1}\0", 8))},
    };
    for (const auto& [name, bytes] : frames) {
        const int fd = test::connectTo(socket());
        ASSERT_GE(fd, 0);
        EXPECT_FALSE(test::exchange(fd, bytes)) << name;
        ::close(fd);
    }
    // A frame cut short: the server reads until the client gives up.
    const int fd = test::connectTo(socket());
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, (header(100) + "{\"pres").data(), 10, MSG_NOSIGNAL), 10);
    ::shutdown(fd, SHUT_WR);
    EXPECT_FALSE(test::exchange(fd, ""));
    ::close(fd);
    // The largest frame allowed is read whole.
    IntakeHandoffRequest large = test::convertRequest(1);
    large.files[0] = "/" + std::string(engine::kHandoffRequestLimit - 100, 'a') + ".mp4";
    EXPECT_TRUE(test::handOver(socket(), large));
    EXPECT_EQ(server->openConnections(), 0U);
}

TEST_F(HandoffServerTest, AFullReplayCacheRefusesNewIDsButNotRequestsWithout) {
    start();
    for (std::size_t i = 0; i < engine::IntakeHandoffReplayCache::kCapacity; ++i) {
        ASSERT_TRUE(test::handOver(socket(), test::convertRequest(1, engine::Uuid::random().text())))
            << i;
    }
    EXPECT_FALSE(test::handOver(socket(), test::convertRequest(1, engine::Uuid::random().text())));
    EXPECT_TRUE(test::handOver(socket(), test::convertRequest(1)));
}

TEST_F(HandoffServerTest, HostileAndIdleClientsNeitherHangTheServerNorLeakDescriptors) {
    const std::size_t descriptorsBefore = test::openDescriptors();
    start(std::chrono::milliseconds(300));
    // A real authenticator: this test program is not the helper.
    server->peerAuthenticator = [helper = installedActionHelper(TESSARIN_HELPER_DIR)](int fd) {
        return authenticatePeer(fd, helper);
    };
    std::vector<int> flood;
    for (int i = 0; i < 100; ++i) {
        flood.push_back(test::connectTo(socket()));
    }
    std::vector<std::thread> senders;
    std::atomic<int> answered = 0;
    for (const int fd : flood) {
        senders.emplace_back([fd, &answered] {
            if (fd >= 0 && test::exchange(fd, frameOf(engine::encodeRequest(test::convertRequest(1))))) {
                ++answered;
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    for (const int fd : flood) {
        ::close(fd);
    }
    EXPECT_EQ(answered, 0);
    EXPECT_GE(rejected, 1);
    EXPECT_NE(log().find("refused a handoff client that failed authentication"), std::string::npos);

    // Idle clients of a proven peer hold their places only until the socket time limit.
    server->peerAuthenticator = [](int) { return PeerAuthentication::accepted; };
    std::vector<int> idle;
    for (int i = 0; i < 20; ++i) {
        idle.push_back(test::connectTo(socket()));
    }
    std::optional<IntakeHandoffResponse> response;
    EXPECT_TRUE(eventually([&] {
        response = test::handOver(socket(), test::convertRequest(1));
        return response.has_value();
    }));
    EXPECT_TRUE(response && response->nonce);
    for (const int fd : idle) {
        EXPECT_FALSE(test::exchange(fd, "")) << "an idle client is closed without an answer";
        ::close(fd);
    }
    EXPECT_TRUE(eventually([&] { return server->openConnections() == 0; }));
    server->stop();
    EXPECT_EQ(test::openDescriptors(), descriptorsBefore);
}

TEST_F(HandoffServerTest, ANinthConcurrentConnectionIsClosedAtOnce) {
    start();
    std::mutex gateMutex;
    std::condition_variable opened;
    int waiting = 0;
    bool release = false;
    // Eight peers held in the middle of their check.
    server->peerAuthenticator = [&](int) {
        std::unique_lock lock(gateMutex);
        ++waiting;
        opened.notify_all();
        opened.wait(lock, [&] { return release; });
        return PeerAuthentication::accepted;
    };
    std::vector<std::thread> held;
    std::atomic<int> answered = 0;
    for (int i = 0; i < 8; ++i) {
        held.emplace_back([&] {
            if (test::handOver(socket(), test::convertRequest(1))) {
                ++answered;
            }
        });
    }
    {
        std::unique_lock lock(gateMutex);
        ASSERT_TRUE(opened.wait_for(lock, std::chrono::seconds(10), [&] { return waiting == 8; }));
    }
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(test::handOver(socket(), test::convertRequest(1)));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    {
        std::lock_guard lock(gateMutex);
        EXPECT_EQ(waiting, 8) << "the ninth never reached the peer check";
        release = true;
    }
    opened.notify_all();
    for (std::thread& thread : held) {
        thread.join();
    }
    EXPECT_EQ(answered, 8);
    server.reset();  // its authenticator refers to this test's locals
}

TEST_F(HandoffServerTest, OneInstanceListensAndAStaleSocketIsReplaced) {
    start();
    IntakeHandoffServer second({dir / "tessarin"}, tokens, gate);
    EXPECT_FALSE(second.start());
    EXPECT_TRUE(fs::exists(socket()));
    EXPECT_TRUE(test::handOver(socket(), test::convertRequest(1)));
    server->stop();
    EXPECT_FALSE(fs::exists(socket()));

    // A crashed run leaves its socket file behind.
    const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket().c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(stale);
    EXPECT_TRUE(server->start());
    EXPECT_TRUE(test::handOver(socket(), test::convertRequest(1)));
    server->stop();

    fs::create_directory(socket());
    EXPECT_FALSE(server->start());
    EXPECT_TRUE(fs::is_directory(socket()));
}

}  // namespace
}  // namespace tessarin::app
