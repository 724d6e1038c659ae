// A real HTTPS server on a loopback address for tests of the service client: a Python process
// (loopback_https_server.py) with a certificate made for the test, answering from a script of
// responses and recording every request it gets.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/TempDir.hpp"

namespace tessarin::test {

// A self-signed certificate authority whose certificate names 127.0.0.1, 127.0.0.2, ::1 and
// localhost, made once per process with the openssl program.
struct TestCertificate {
    std::filesystem::path certificate;
    std::filesystem::path key;
};
[[nodiscard]] const TestCertificate& testCertificate();

class LoopbackHttpsServer {
public:
    struct Options {
        std::string host = "127.0.0.1";
        bool saveBodies = false;  // keep each request body in a file (bodyFile in the record)
        bool plain = false;       // plain HTTP, no TLS
    };

    // Starts the server with `script`, a JSON array of responses (the last one repeats); fails the
    // test when it doesn't come up.
    explicit LoopbackHttpsServer(const nlohmann::json& script);
    LoopbackHttpsServer(const nlohmann::json& script, Options options);
    ~LoopbackHttpsServer();
    LoopbackHttpsServer(const LoopbackHttpsServer&) = delete;
    LoopbackHttpsServer& operator=(const LoopbackHttpsServer&) = delete;

    // "https://127.0.0.1:<port>" (http for a plain server; IPv6 hosts in brackets).
    [[nodiscard]] std::string baseURL() const;
    [[nodiscard]] int port() const { return port_; }
    // The requests received so far, oldest first.
    [[nodiscard]] std::vector<nlohmann::json> requests() const;

private:
    void start(const nlohmann::json& script);  // fails the test when the server doesn't come up

    TempDir folder_;
    Options options_;
    pid_t pid_ = -1;
    int port_ = 0;
};

// The path of loopback_https_server.py in the source tree.
[[nodiscard]] std::filesystem::path loopbackServerScript();

}  // namespace tessarin::test
