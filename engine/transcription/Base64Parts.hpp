// Media as base64 in parts: a file read in pieces of 49,152 bytes (a multiple of three, so the
// parts join into one valid base64 text), each piece encoded on its own. The parts go to a
// JSONString of a request body; peak memory stays near one copy of the encoded file.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessarin::engine {

class TranscriptionControl;

inline constexpr std::size_t kBase64PieceBytes = 49'152;

using Base64Parts = std::shared_ptr<const std::vector<std::string>>;

// The parts of `file`, which must be a regular file (links are not followed). Throws
// std::system_error when it can't be opened or read, or isn't a regular file, and
// TranscriptionError cancelled when `control` is cancelled between pieces. Blocking.
[[nodiscard]] Base64Parts readBase64Parts(const std::filesystem::path& file,
                                          const TranscriptionControl* control);

// `bytes` as standard base64 with padding.
[[nodiscard]] std::string base64Encoded(std::string_view bytes);
// The bytes of standard base64 text, or nothing when `text` isn't that.
[[nodiscard]] std::optional<std::string> base64Decoded(std::string_view text);

}  // namespace tessarin::engine
