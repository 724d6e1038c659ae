// The client side of the handoff socket, as the file-manager helper `tessarin-action` uses it:
// one request frame out, one response frame back.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>

#include "engine/intake/HandoffMessages.hpp"

namespace tessarin::cli {

// Connects to `socketPath`, sends `request` and reads the answer. Nothing when the socket can't
// be reached or the server closed without answering (it never says why). Blocks at most about
// `limit` per step.
[[nodiscard]] std::optional<engine::IntakeHandoffResponse> handOver(
    const std::filesystem::path& socketPath, const engine::IntakeHandoffRequest& request,
    std::chrono::milliseconds limit);

// Whether something listens at `socketPath`.
[[nodiscard]] bool isListening(const std::filesystem::path& socketPath);

}  // namespace tessarin::cli
