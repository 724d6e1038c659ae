#include "bench/LoopbackService.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>

#include "bench/BenchSupport.hpp"

extern char** environ;

namespace tessarin::bench {

namespace fs = std::filesystem;

Measured measure(std::vector<std::string> arguments, bool quiet) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (quiet) {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    const auto started = std::chrono::steady_clock::now();
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return {};
    }
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    return {std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(),
            usage.ru_maxrss, WIFEXITED(status) && WEXITSTATUS(status) == 0};
}

std::string LoopbackServer::baseURL() const { return "https://127.0.0.1:" + std::to_string(port); }

void LoopbackServer::stop() {
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
}

LoopbackServer startLoopbackServer(const fs::path& folder, const std::string& scriptJSON) {
    LoopbackServer server;
    server.certificate = folder / "ca.pem";
    if (!runQuietly("/usr/bin/openssl",
                    {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                     "-nodes", "-days", "2", "-subj", "/CN=bench", "-addext",
                     "subjectAltName=IP:127.0.0.1", "-keyout", (folder / "key.pem").string(),
                     "-out", server.certificate.string()})) {
        return server;
    }
    const fs::path script = fs::path(TESSARIN_SOURCE_DIR) / "tests/support/loopback_https_server.py";
    std::ofstream(folder / "script.json") << scriptJSON;
    std::vector<std::string> arguments{"/usr/bin/python3",
                                       script.string(),
                                       "--cert",
                                       server.certificate.string(),
                                       "--key",
                                       (folder / "key.pem").string(),
                                       "--script",
                                       (folder / "script.json").string(),
                                       "--record",
                                       (folder / "requests.jsonl").string()};
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return server;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    const int spawned = posix_spawn(&server.pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    FILE* out = fdopen(fds[0], "r");
    if (spawned != 0 || std::fscanf(out, "PORT %d", &server.port) != 1) {
        server.port = 0;
    }
    std::fclose(out);
    if (spawned != 0) {
        server.pid = -1;
    }
    return server;
}

}  // namespace tessarin::bench
