// SHA-256 of a file's bytes, printed as lower-case hexadecimal ("%02x" per byte).
#pragma once

#include <string>

namespace tessarin::engine {

// Reads `fd` from its current offset to the end. The descriptor stays owned by the caller.
// Safe from any thread on distinct descriptors. Throws std::system_error when a read fails
// and std::runtime_error when the digest can't be computed.
[[nodiscard]] std::string sha256Hex(int fd);

}  // namespace tessarin::engine
