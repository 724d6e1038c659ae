// The client side of the handoff socket, as the file-manager helper `tessarin-action` uses it:
// one request frame out, one response frame back.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>

#include "engine/intake/HandoffMessages.hpp"

namespace tessarin::cli {

struct HandOverResult {
    bool reached = false;  // a connection was made
    std::optional<engine::IntakeHandoffResponse> response;  // nothing: closed without an answer
};

// Connects to `socketPath`, sends `request` and reads the answer. The server never says why it
// refuses: it closes without a frame. Blocks at most about `limit` per step.
[[nodiscard]] HandOverResult handOver(const std::filesystem::path& socketPath,
                                      const engine::IntakeHandoffRequest& request,
                                      std::chrono::milliseconds limit);

}  // namespace tessarin::cli
