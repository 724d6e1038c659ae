// The update feed: any text either fails with ReleaseFeedError or gives releases that keep the
// rules (bounded count, versions of the allowed characters, https URLs, bounded descriptions,
// valid UTF-8 cut), and the version order is a consistent total order over what it returns.

#include <cstdint>
#include <string>
#include <string_view>

#include "engine/desktop/ReleaseFeed.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using namespace tessarin::engine;
using tessarin::fuzz::require;

bool allowedVersion(std::string_view version) {
    if (version.empty() || version.size() > kMaxReleaseVersionBytes || version[0] < '0' ||
        version[0] > '9') {
        return false;
    }
    for (const char c : version) {
        const bool ok = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                        (c >= 'A' && c <= 'Z') || c == '.' || c == '+' || c == '~' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::vector<ReleaseEntry> releases;
    try {
        releases = parseReleaseFeed(text);
    } catch (const ReleaseFeedError&) {
        return 0;
    }
    require(releases.size() <= kMaxReleases, "at most kMaxReleases releases");
    for (const ReleaseEntry& entry : releases) {
        require(allowedVersion(entry.version), "versions keep the allowed characters");
        require(!entry.url || (entry.url->starts_with("https://") && entry.url->size() <= 2048),
                "URLs are https and bounded");
        require(!entry.date || entry.date->size() == 10, "dates are YYYY-MM-DD");
        require(entry.description.size() <= kMaxReleaseTextBytes, "descriptions are bounded");
        require(entry.description.empty() ||
                    (static_cast<unsigned char>(entry.description.back()) & 0xC0) != 0xC0,
                "descriptions don't end inside a UTF-8 sequence");
        require(compareVersions(entry.version, entry.version) == 0, "a version equals itself");
    }
    for (std::size_t i = 0; i + 1 < releases.size(); ++i) {
        const int forward = compareVersions(releases[i].version, releases[i + 1].version);
        const int backward = compareVersions(releases[i + 1].version, releases[i].version);
        require(forward == -backward, "the version order is antisymmetric");
    }
    if (const auto newest = newestRelease(releases, "0")) {
        for (const ReleaseEntry& entry : releases) {
            require(compareVersions(entry.version, newest->version) <= 0,
                    "no release is newer than the newest");
        }
    }
    return 0;
}
