// Saving to a share on another computer: SMB hosts found on the local network (Avahi, service
// type "_smb._tcp"), checked, and mounted with `gio mount smb://HOST/` so that the mounted share
// can be chosen as the output folder.
//
// A host name from the network is untrusted text: smbURLForHost() stands between it and the
// mount. Browsing and mounting are the interfaces SMBBrowsing and ShareMounting, so the window's
// model can be tested without a network.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine {

struct DiscoveredHost {
    std::string name;    // the service's instance name, for display
    std::string domain;  // "local"
    uint32_t interfaceIndex = 0;
    std::string host;    // the resolved host name ("nas.local"), empty until resolved
    bool operator==(const DiscoveredHost&) const = default;
};

// "smb://{host}/" when `host`, less one trailing ".", is non-empty, only letters, digits, "-" and
// ".", ends in ".local" (any case), and neither begins with "." nor holds "..".
[[nodiscard]] std::optional<std::string> smbURLForHost(std::string_view host);

// The failures of a pick, with their sentences.
struct RemoteShareError {
    enum class Kind { resolveFailed, mountFailed, other };
    Kind kind = Kind::other;
    int status = 0;  // for mountFailed: 13 sign-in declined, 65 unreachable, else gio's status
    [[nodiscard]] std::string message() const;
};

inline constexpr std::string_view kBrowseFailed = "Couldn’t search the local network.";
inline constexpr std::string_view kSheetTitle = "Save to another computer";
inline constexpr std::string_view kSheetText =
    "Pick a computer with file sharing turned on. You’ll sign in with the system prompt; the "
    "converted files are saved to its shared folder.";
inline constexpr std::string_view kSheetEmpty =
    "No computers found yet. Make sure file sharing is on and the Avahi service is running.";

class SMBBrowsing {
public:
    virtual ~SMBBrowsing() = default;
    // Calls `onChange` with the whole current list (sorted by name), or `onError` with
    // kBrowseFailed, from the browser's own thread.
    virtual void start(std::function<void(std::vector<DiscoveredHost>)> onChange,
                       std::function<void(std::string)> onError) = 0;
    virtual void stop() = 0;
};

// Avahi's client with its threaded poll. Without an avahi-daemon, start() reports kBrowseFailed.
[[nodiscard]] std::unique_ptr<SMBBrowsing> makeAvahiBrowser();

class ShareMounting {
public:
    virtual ~ShareMounting() = default;
    // Blocks until `gio mount` ends. Returns the URL mounted, or throws RemoteShareError.
    virtual std::string mount(const DiscoveredHost& host) = 0;
    // Any thread; the mount in progress ends soon and mount() throws RemoteShareError::other
    // with status -1 (a cancellation, not shown as an error).
    virtual void cancel() = 0;
};

// `gio` (by default /usr/bin/gio) as a child through the process runner, 120 s at most.
[[nodiscard]] std::unique_ptr<ShareMounting> makeGioMounter(
    std::filesystem::path gio = "/usr/bin/gio");

// What gio's status and message mean: 13 for a refused sign-in, 65 for a host that can't be
// reached, otherwise the status itself.
[[nodiscard]] int mountStatusFromGio(int exitCode, std::string_view message);

}  // namespace tessarin::engine
