// The last pass over the support report: whatever could name the user, their files or their
// secrets becomes "<private>", whichever section it slipped in from.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tessarin::engine {

struct RedactionContext {
    // Texts removed wherever they occur (the home folder, the account and host names, an API
    // key…). Entries shorter than three bytes are ignored, since they would eat ordinary words.
    std::vector<std::string> secrets;
};

// The context of this process: $HOME, the account name, the host name and OPENROUTER_API_KEY.
[[nodiscard]] RedactionContext currentRedactionContext();

// `text` with each secret, each absolute or home-relative path (except under the system folders
// /usr, /lib, /etc, /proc, /sys and /dev), each word that ends in a media or document extension,
// each e-mail address and each word that looks like an API key ("sk-…", or 32 or more letters and
// digits, other than a SHA-256 digest in lower-case hexadecimal) replaced by "<private>". Line structure is kept.
[[nodiscard]] std::string redactReport(std::string_view text, const RedactionContext& context);

}  // namespace tessarin::engine
