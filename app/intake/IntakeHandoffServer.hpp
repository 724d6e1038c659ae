// The local socket through which the file-manager helper hands files over: one request frame
// in, one response frame out, then the server closes. Defensive throughout: at most 8 open
// connections (a ninth is closed at once), an authenticated peer before any byte is read, a
// bounded frame, a time limit on each socket, idempotent retries through a replay cache.
//
//   IntakeHandoffServer server({IntakeHandoffServer::standardFolder().value()}, tokens, gate);
//   server.peerAuthenticator = [helper](int fd) { return authenticatePeer(fd, helper); };
//   server.delivery = [](IntakeHandoffDelivery d) { ... post to the main thread ... };
//   server.start();
//
// Folder layout ($XDG_RUNTIME_DIR/tessarin, mode 0700): "s" the socket (mode 0600), "l" the lock
// file, held with flock while listening so that one instance listens and a second one never
// removes a live socket.
//
// Threads: start() and stop() from one thread (the main thread). Accepting runs on a thread of
// the server's own (a poll loop), each connection on a thread of its own; the callbacks are
// called on those threads and must hand their work on (delivery to the main thread). Nothing
// here blocks the caller of start() or stop() beyond the time the connections take to notice
// their sockets were shut down.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "app/intake/PeerAuthentication.hpp"
#include "engine/intake/HandoffMessages.hpp"
#include "engine/intake/IntakeCapacity.hpp"
#include "engine/intake/IntakeHandoffReplayCache.hpp"
#include "engine/intake/IntakeTokenStore.hpp"

namespace tessarin::app {

// A handoff the application takes over itself: the link it becomes and the validation place
// reserved for it.
struct IntakeHandoffDelivery {
    std::string presetID;
    engine::IntakeActionKind actionKind = engine::IntakeActionKind::convert;
    std::string nonce;
    std::optional<engine::IntakeWorkCapacityLease> validationLease;
};

class IntakeHandoffServer {
public:
    struct Configuration {
        std::filesystem::path folder;  // holds "s" and "l"
        std::chrono::milliseconds socketTimeout{12'000};
        std::size_t connectionLimit = 8;
    };

    // $XDG_RUNTIME_DIR/tessarin; nothing when XDG_RUNTIME_DIR isn't an absolute path.
    [[nodiscard]] static std::optional<std::filesystem::path> standardFolder();

    // `tokens` and `authenticatedGate` must outlive the server.
    IntakeHandoffServer(Configuration configuration, engine::IntakeTokenStore& tokens,
                        std::shared_ptr<engine::IntakeWorkCapacityGate> authenticatedGate);
    // stop().
    ~IntakeHandoffServer();
    IntakeHandoffServer(const IntakeHandoffServer&) = delete;
    IntakeHandoffServer& operator=(const IntakeHandoffServer&) = delete;

    // Collaborators; set them before start(). Without an authenticator every peer is refused.
    std::function<PeerAuthentication(int socket)> peerAuthenticator;
    std::function<void(IntakeHandoffDelivery)> delivery;
    std::function<void()> rejectedPeer;

    // Publishes the socket; idempotent. False, with everything opened closed again, when the
    // folder can't be made ours, the lock is held by another instance, something other than a
    // socket stands at the path, or a socket call fails.
    bool start();
    // Stops listening, shuts down open connections and waits for their threads; removes the
    // socket path only if it is still the socket this server bound; releases the lock.
    void stop();

    [[nodiscard]] bool isListening() const { return listening_; }
    [[nodiscard]] std::filesystem::path socketPath() const { return configuration_.folder / "s"; }
    [[nodiscard]] std::filesystem::path lockPath() const { return configuration_.folder / "l"; }

    // Connection threads still running; for tests and the benchmark.
    [[nodiscard]] std::size_t openConnections() const;

private:
    struct Shared;

    void acceptLoop();
    void handleConnection(int socket);
    [[nodiscard]] std::optional<engine::IntakeHandoffResponse> respond(
        const engine::IntakeHandoffRequest& request, engine::IntakeActionKind kind,
        std::optional<IntakeHandoffDelivery>& deliveryOut);
    void closeListener();

    const Configuration configuration_;
    engine::IntakeTokenStore& tokens_;
    const std::shared_ptr<engine::IntakeWorkCapacityGate> authenticatedGate_;
    std::shared_ptr<engine::IntakeWorkCapacityGate> connectionGate_;
    engine::IntakeHandoffReplayCache replayCache_;
    std::shared_ptr<Shared> shared_;
    std::thread acceptor_;
    int listenFd_ = -1;
    int lockFd_ = -1;
    int wakeFd_ = -1;
    dev_t boundDevice_ = 0;
    ino_t boundInode_ = 0;
    std::atomic<bool> listening_ = false;
};

}  // namespace tessarin::app
