// Whether a file's first bytes describe a program this computer can run directly.
#pragma once

#include <cstddef>
#include <span>

namespace tessarin::engine {

// How many leading bytes `isNativeExecutableHeader` needs.
inline constexpr std::size_t kExecutableHeaderBytes = 64;

// On Linux: an ELF executable or position-independent executable of this process's class,
// byte order and machine. Fewer than `kExecutableHeaderBytes` bytes is never native.
// Pure; safe from any thread.
[[nodiscard]] bool isNativeExecutableHeader(std::span<const unsigned char> header);

}  // namespace tessarin::engine
