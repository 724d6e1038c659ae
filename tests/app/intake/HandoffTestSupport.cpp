#include "tests/app/intake/HandoffTestSupport.hpp"

#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

extern char** environ;

namespace tessarin::test {

int connectTo(const std::filesystem::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::optional<std::string> exchange(int socket, const std::string& bytes) {
    timeval limit{10, 0};
    (void)::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (!bytes.empty() && ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
        return std::nullopt;
    }
    std::string received;
    char buffer[4096];
    while (true) {
        const ssize_t count = ::recv(socket, buffer, sizeof buffer, 0);
        if (count <= 0) {
            break;
        }
        received.append(buffer, static_cast<std::size_t>(count));
    }
    if (received.size() < 4) {
        return std::nullopt;
    }
    return received.substr(4);
}

std::optional<engine::IntakeHandoffResponse> handOver(const std::filesystem::path& path,
                                                      const engine::IntakeHandoffRequest& request) {
    const int socket = connectTo(path);
    if (socket < 0) {
        return std::nullopt;
    }
    const std::optional<std::string> body =
        exchange(socket, *engine::frame(engine::encodeRequest(request), engine::kHandoffRequestLimit));
    ::close(socket);
    return body ? engine::decodeResponse(*body) : std::nullopt;
}

engine::IntakeHandoffRequest convertRequest(int64_t count, std::optional<std::string> requestID,
                                            std::string presetID) {
    engine::IntakeHandoffRequest request;
    request.presetID = std::move(presetID);
    request.fileCount = count;
    for (int64_t i = 0; i < count; ++i) {
        request.files.push_back("/v/" + std::to_string(i) + ".mp4");
    }
    request.actionKind = "convert";
    request.requestID = std::move(requestID);
    return request;
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

pid_t startProgram(const std::vector<std::string>& argv,
                   const std::map<std::string, std::string>& environment) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string text(*variable);
        if (!environment.contains(text.substr(0, text.find('=')))) {
            variables.push_back(text);
        }
    }
    for (const auto& [name, value] : environment) {
        variables.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (std::string& variable : variables) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> arguments = argv;
    std::vector<char*> args;
    for (std::string& argument : arguments) {
        args.push_back(argument.data());
    }
    args.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, args[0], nullptr, nullptr, args.data(), envp.data()) != 0) {
        return -1;
    }
    return pid;
}

int waitForProgram(pid_t pid, std::chrono::milliseconds limit) {
    if (pid <= 0) {
        return -1;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int runProgram(const std::vector<std::string>& argv,
               const std::map<std::string, std::string>& environment,
               std::chrono::milliseconds limit) {
    return waitForProgram(startProgram(argv, environment), limit);
}

}  // namespace tessarin::test
