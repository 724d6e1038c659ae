// Who is on the other end of a handoff connection. Only the installed file-manager helper of
// this user may hand files over: the peer's uid must be ours, its executable must be the
// helper at its installed path with the digest recorded at install, and its first argument one
// of the eight helper actions.
//
// Safe from any thread. Reads /proc; never reads from the socket.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tessarin::app {

enum class PeerAuthentication { accepted, replaced, refused };

struct ActionHelperIdentity {
    std::filesystem::path executable;  // the helper where it is installed
    std::string sha256;                // recorded at install, lower-case hexadecimal
};

// The helper in `helperFolder` and its recorded digest; nothing when either file is missing or
// the digest file doesn't hold 64 hexadecimal digits.
[[nodiscard]] std::optional<ActionHelperIdentity> installedActionHelper(
    const std::filesystem::path& helperFolder);

// The helper folder of the running program: <folder of the executable>/../libexec/tessarin.
[[nodiscard]] std::filesystem::path runningHelperFolder();

// accepted; replaced when the peer runs a helper whose file was deleted or whose bytes no
// longer have the recorded digest; refused for anything else (another uid, another program,
// another first argument, a peer gone before it could be examined, no helper installed).
[[nodiscard]] PeerAuthentication authenticatePeer(
    int socket, const std::optional<ActionHelperIdentity>& helper);

// The log word of an outcome: "accepted", "replaced", "refused".
[[nodiscard]] const char* text(PeerAuthentication outcome);

}  // namespace tessarin::app
