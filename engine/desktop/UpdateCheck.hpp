// "Check for Updates…": fetches the release list over HTTPS (libcurl; redirects never followed,
// at most kMaxReleaseFeedBytes, 20 s) and compares it with this version. Nothing is downloaded
// or installed: the answer names the newer version and its page, and the package manager does
// the rest.
//
// For tests only, TESSARIN_UPDATE_FEED_URL (an https:// URL on a loopback address) and
// TESSARIN_UPDATE_CA_FILE replace the feed's address and add a certificate authority; any other
// value is ignored with a log line. Blocking; call from a background thread.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "engine/desktop/ReleaseFeed.hpp"

namespace tessarin::engine {

inline constexpr std::string_view kReleaseFeedURL = "https://tessarin.org/releases.xml";
// The settings key of "Automatically check for updates" (off by default).
inline constexpr std::string_view kAutomaticUpdateChecksKey = "SUEnableAutomaticChecks";

struct UpdateFeedEndpoint {
    std::string url;
    std::optional<std::string> caFile;
};

// The feed's address, with the loopback-only test overrides above applied.
[[nodiscard]] UpdateFeedEndpoint updateFeedEndpoint();

struct UpdateCheckResult {
    std::string currentVersion;
    std::optional<ReleaseEntry> newer;  // absent: up to date
};

// One sentence a case: "Couldn't check for updates: the update server couldn't be reached.",
// "… the update server answered with an error (HTTP {n}).", "… the release list couldn't be
// read.", "Update check cancelled."
class UpdateCheckError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// `isCancelled`, when given, is asked during the transfer; true ends it soon.
[[nodiscard]] UpdateCheckResult checkForUpdates(std::string_view currentVersion,
                                                const UpdateFeedEndpoint& endpoint,
                                                const std::function<bool()>& isCancelled = {});

// "Tessarin {new} is available (you have {current})." or "Tessarin {current} is the newest
// version."
[[nodiscard]] std::string updateResultText(const UpdateCheckResult& result);

}  // namespace tessarin::engine
