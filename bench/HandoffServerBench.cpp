// The handoff socket under abuse: 10,000 hostile connections in a row (this program is not the
// helper, so each is refused after the peer check), then 100 valid handoffs by the real helper
// program. Prints the open descriptors and resident memory before and after (each should be
// back within 5 % of the start) and the valid handoffs per second (at least 50). A timed
// program: each phase is one measurement.
//
//   tessarin_handoff_server_bench [hostile] [valid]
#include <fmt/format.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "app/intake/IntakeHandoffServer.hpp"
#include "engine/log/Log.hpp"

extern char** environ;

namespace fs = std::filesystem;
using namespace tessarin;

namespace {

std::size_t openDescriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("VmRSS:")) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

// One hostile client: connects, sends a frame, reads until the server closes.
void hostileClient(const fs::path& socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        const std::string frame = *engine::frame(
            R"({"presetID":"mp4-h264","fileCount":1,"files":["/a.mp4"],"actionKind":"convert"})",
            engine::kHandoffRequestLimit);
        (void)::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
        char byte = 0;
        while (::recv(fd, &byte, 1, 0) > 0) {
        }
    }
    ::close(fd);
}

bool runHelper(const fs::path& helper, const fs::path& runtime) {
    const std::string variable = "XDG_RUNTIME_DIR=" + runtime.string();
    std::vector<char*> envp;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!std::string_view(*entry).starts_with("XDG_RUNTIME_DIR=")) {
            envp.push_back(*entry);
        }
    }
    envp.push_back(const_cast<char*>(variable.c_str()));
    envp.push_back(const_cast<char*>("TESSARIN_GUI=/bin/false"));
    envp.push_back(nullptr);
    std::string program = helper.string();
    char action[] = "h264";
    char file[] = "/videos/a.mp4";
    char* argv[] = {program.data(), action, file, nullptr};
    pid_t pid = 0;
    int status = 0;
    return posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv, envp.data()) == 0 &&
           ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int hostile = argc > 1 ? std::atoi(argv[1]) : 10'000;
    const int valid = argc > 2 ? std::atoi(argv[2]) : 100;
    engine::setJournalSinkEnabled(false);
    const fs::path helperFolder = TESSARIN_HELPER_DIR;
    const fs::path runtime = fs::temp_directory_path() / fmt::format("tessarin-bench-{}", ::getpid());
    fs::create_directory(runtime);
    engine::setLogFileForTesting(runtime / "log.txt");

    engine::IntakeTokenStore tokens(engine::IntakeTokenStore::Key{1});
    auto gate = engine::IntakeWorkCapacityGate::make(4);
    app::IntakeHandoffServer server({runtime / "tessarin"}, tokens, gate);
    server.peerAuthenticator = [helper = app::installedActionHelper(helperFolder)](int fd) {
        return app::authenticatePeer(fd, helper);
    };
    std::atomic<int> delivered = 0;
    std::atomic<int> refused = 0;
    server.delivery = [&](app::IntakeHandoffDelivery delivery) {
        (void)tokens.consume(delivery.nonce);
        ++delivered;
    };
    server.rejectedPeer = [&] { ++refused; };
    if (!server.start()) {
        fmt::print(stderr, "could not start the server\n");
        return 1;
    }
    const fs::path socket = server.socketPath();
    const fs::path helper = helperFolder / "tessarin-action";
    // Warm-up, so that the thread stacks and allocator arenas both phases use already exist.
    hostileClient(socket);
    (void)runHelper(helper, runtime);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    const std::size_t descriptorsStart = openDescriptors();
    const long rssStart = residentKiB();
    const auto hostileStart = std::chrono::steady_clock::now();
    for (int i = 0; i < hostile; ++i) {
        hostileClient(socket);
    }
    const double hostileSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - hostileStart).count();

    const int deliveredBefore = delivered;
    const auto validStart = std::chrono::steady_clock::now();
    int succeeded = 0;
    for (int i = 0; i < valid; ++i) {
        succeeded += runHelper(helper, runtime) ? 1 : 0;
    }
    const double validSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - validStart).count();
    while (server.openConnections() > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const std::size_t descriptorsEnd = openDescriptors();
    const long rssEnd = residentKiB();
    server.stop();
    engine::setLogFileForTesting(std::nullopt);
    fs::remove_all(runtime);

    const double rssRatio = static_cast<double>(rssEnd) / static_cast<double>(rssStart);
    const double rate = valid / validSeconds;
    fmt::print("hostile connections: {} in {:.2f} s ({:.0f}/s), {} refused after the peer check\n",
               hostile, hostileSeconds, hostile / hostileSeconds, refused.load() - 1);
    fmt::print("valid handoffs:      {} of {} delivered in {:.2f} s: {:.1f} handoffs/s (need >= 50)\n",
               delivered.load() - deliveredBefore, valid, validSeconds, rate);
    fmt::print("open descriptors:    {} -> {} (ratio {:.3f})\n", descriptorsStart, descriptorsEnd,
               static_cast<double>(descriptorsEnd) / static_cast<double>(descriptorsStart));
    fmt::print("resident memory:     {} KiB -> {} KiB (ratio {:.3f}, need <= 1.05)\n", rssStart,
               rssEnd, rssRatio);
    const bool ok = succeeded == valid && descriptorsEnd <= descriptorsStart &&
                    rssRatio <= 1.05 && rate >= 50;
    fmt::print("{}\n", ok ? "within bounds" : "OUT OF BOUNDS");
    return ok ? 0 : 1;
}
