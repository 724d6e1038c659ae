// What the transcription benchmarks share: a child process measured by wait4 (wall time and peak
// resident memory), and the scripted HTTPS server on loopback with a certificate made for it.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tessarin::bench {

struct Measured {
    double seconds = 0;
    long peakKiB = 0;  // of the child and the children it waited for
    bool ok = false;   // ended with status 0
};

// Runs `arguments` (an absolute executable first) and waits for it; `quiet` sends its standard
// output to /dev/null.
[[nodiscard]] Measured measure(std::vector<std::string> arguments, bool quiet);

struct LoopbackServer {
    pid_t pid = -1;
    int port = 0;
    std::filesystem::path certificate;  // the authority to trust

    [[nodiscard]] bool running() const { return pid > 0 && port > 0; }
    [[nodiscard]] std::string baseURL() const;
    // Stops the server and reaps it.
    void stop();
};

// Makes a certificate for 127.0.0.1 in `folder` and starts tests/support/loopback_https_server.py
// answering with `scriptJSON` (a JSON array of responses, the last repeating).
[[nodiscard]] LoopbackServer startLoopbackServer(const std::filesystem::path& folder,
                                                 const std::string& scriptJSON);

}  // namespace tessarin::bench
