// A client of the handoff socket that can misbehave, and process helpers for the handoff tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "engine/intake/HandoffMessages.hpp"

namespace tessarin::test {

// A connected socket to `path`, or -1.
[[nodiscard]] int connectTo(const std::filesystem::path& path);

// What came back on a connection after sending `bytes`: the response body, or nothing when the
// server closed without a frame.
[[nodiscard]] std::optional<std::string> exchange(int socket, const std::string& bytes);

// Sends `request` as a frame on a new connection; the decoded answer, or nothing.
[[nodiscard]] std::optional<engine::IntakeHandoffResponse> handOver(
    const std::filesystem::path& path, const engine::IntakeHandoffRequest& request);

// A request of `count` files /v/0.mp4… for `presetID`.
[[nodiscard]] engine::IntakeHandoffRequest convertRequest(
    int64_t count, std::optional<std::string> requestID = std::nullopt,
    std::string presetID = "mp4-h264");

// How many descriptors this process has open.
[[nodiscard]] std::size_t openDescriptors();

// Starts `argv` with `environment` added to ours; its pid, or -1.
[[nodiscard]] pid_t startProgram(const std::vector<std::string>& argv,
                                 const std::map<std::string, std::string>& environment);
// The exit status of `pid`, or -1 when it didn't end within `limit` (it is killed then).
[[nodiscard]] int waitForProgram(pid_t pid, std::chrono::milliseconds limit);
// Both: runs `argv` to its end.
[[nodiscard]] int runProgram(const std::vector<std::string>& argv,
                             const std::map<std::string, std::string>& environment,
                             std::chrono::milliseconds limit = std::chrono::seconds(30));

}  // namespace tessarin::test
