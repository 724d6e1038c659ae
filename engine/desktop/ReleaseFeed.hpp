// The update feed: an AppStream release list, either a whole metainfo file (<component> with
// <releases>) or a bare <releases> document, as the project publishes it over HTTPS.
//
//   <releases>
//     <release version="0.2.0" date="2026-12-01">
//       <url>https://tessarin.org/releases/0.2.0</url>
//       <description><p>Faster GIFs.</p></description>
//     </release>
//   </releases>
//
// The feed is text from outside the process: it is bounded before it is read, a document type
// declaration (and with it every entity) is refused, and only the fields below are taken.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tessarin::engine {

inline constexpr std::size_t kMaxReleaseFeedBytes = 1024 * 1024;
inline constexpr std::size_t kMaxReleases = 500;
inline constexpr std::size_t kMaxReleaseVersionBytes = 64;
inline constexpr std::size_t kMaxReleaseTextBytes = 4096;

struct ReleaseEntry {
    std::string version;              // 1–64 of [0-9A-Za-z.+~-], starting with a digit
    std::optional<std::string> date;  // "YYYY-MM-DD" when given so
    std::optional<std::string> url;   // an https:// URL of at most 2048 bytes, when given
    std::string description;          // plain text of the paragraphs, at most 4096 bytes
    bool operator==(const ReleaseEntry&) const = default;
};

class ReleaseFeedError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The releases in document order; entries whose version breaks the rule above are skipped, a
// bad date or URL is dropped from its entry. Throws ReleaseFeedError for text over
// kMaxReleaseFeedBytes, text that isn't well-formed XML, a DOCTYPE, no <releases> element, or
// more than kMaxReleases releases.
[[nodiscard]] std::vector<ReleaseEntry> parseReleaseFeed(std::string_view xml);

// Orders two version texts as Debian does for upstream versions without an epoch: runs of
// digits compare as numbers, other runs character by character with "~" before anything, even
// the end. Negative, zero or positive.
[[nodiscard]] int compareVersions(std::string_view a, std::string_view b);

// The newest release in `releases` that is newer than `current`, if any.
[[nodiscard]] std::optional<ReleaseEntry> newestRelease(const std::vector<ReleaseEntry>& releases,
                                                        std::string_view current);

}  // namespace tessarin::engine
