#include "tests/support/LoopbackHttpsServer.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>

extern char** environ;

namespace tessarin::test {

namespace {

namespace fs = std::filesystem;

// Runs `arguments` and waits; its exit status, or -1 when it couldn't start.
int runQuietly(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

fs::path loopbackServerScript() {
    return fs::path(TESSARIN_SOURCE_DIR) / "tests/support/loopback_https_server.py";
}

const TestCertificate& testCertificate() {
    static TempDir folder;
    static TestCertificate certificate{folder / "ca.pem", folder / "ca-key.pem"};
    static std::once_flag made;
    std::call_once(made, [] {
        const int status = runQuietly(
            {"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
             "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
             "/CN=Tessarin test authority", "-addext",
             "subjectAltName=IP:127.0.0.1,IP:127.0.0.2,IP:::1,DNS:localhost", "-keyout",
             certificate.key.string(), "-out", certificate.certificate.string()});
        if (status != 0) {
            ADD_FAILURE() << "openssl could not make the test certificate (status " << status
                          << ")";
        }
    });
    return certificate;
}

LoopbackHttpsServer::LoopbackHttpsServer(const nlohmann::json& script)
    : LoopbackHttpsServer(script, Options{}) {}

LoopbackHttpsServer::LoopbackHttpsServer(const nlohmann::json& script, Options options)
    : options_(std::move(options)) {
    start(script);
}

void LoopbackHttpsServer::start(const nlohmann::json& script) {
    const TestCertificate& certificate = testCertificate();
    std::ofstream(folder_ / "script.json") << script.dump();
    std::ofstream(folder_ / "requests.jsonl").flush();
    std::vector<std::string> arguments{"/usr/bin/python3",
                                       loopbackServerScript().string(),
                                       "--cert",
                                       certificate.certificate.string(),
                                       "--key",
                                       certificate.key.string(),
                                       "--host",
                                       options_.host,
                                       "--script",
                                       (folder_ / "script.json").string(),
                                       "--record",
                                       (folder_ / "requests.jsonl").string()};
    if (options_.saveBodies) {
        fs::create_directory(folder_ / "bodies");
        arguments.insert(arguments.end(), {"--bodies", (folder_ / "bodies").string()});
    }
    if (options_.plain) {
        arguments.emplace_back("--plain");
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    const int spawned = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (spawned != 0) {
        close(pipeFds[0]);
        pid_ = -1;
        FAIL() << "python3 could not start";
    }
    FILE* out = fdopen(pipeFds[0], "r");
    char line[128] = {};
    const bool read = fgets(line, sizeof line, out) != nullptr;
    fclose(out);
    ASSERT_TRUE(read && std::sscanf(line, "PORT %d", &port_) == 1)
        << "the loopback server did not start";
}

LoopbackHttpsServer::~LoopbackHttpsServer() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
    }
}

std::string LoopbackHttpsServer::baseURL() const {
    const std::string host =
        options_.host.find(':') != std::string::npos ? "[" + options_.host + "]" : options_.host;
    return (options_.plain ? "http://" : "https://") + host + ":" + std::to_string(port_);
}

std::vector<nlohmann::json> LoopbackHttpsServer::requests() const {
    std::vector<nlohmann::json> out;
    std::ifstream in(folder_ / "requests.jsonl");
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty()) {
            out.push_back(nlohmann::json::parse(line));
        }
    }
    return out;
}

}  // namespace tessarin::test
