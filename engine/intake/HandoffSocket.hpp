// Blocking I/O of one handoff frame on a connected socket, shared by the server and the action
// helper. Sends never raise SIGPIPE; reads and writes end at the socket's time limits.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tessarin::engine {

// Receive and send time limits of `fd`, at least 0.01 s (a socket takes nothing smaller).
void setSocketTimeouts(int fd, std::chrono::milliseconds limit);

// Exactly `size` bytes, or false at end of stream, an error or a time limit.
[[nodiscard]] bool receiveFully(int fd, void* buffer, std::size_t size);

// All of `data` with MSG_NOSIGNAL, or false.
[[nodiscard]] bool sendFully(int fd, std::string_view data);

// The body of one frame whose length is 1 to `limit` bytes, or nothing.
[[nodiscard]] std::optional<std::string> receiveFrame(int fd, uint32_t limit);

}  // namespace tessarin::engine
