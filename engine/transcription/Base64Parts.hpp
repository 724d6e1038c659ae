// Media as base64 in parts: a file read in pieces of 49,152 bytes (a multiple of three, so the
// parts join into one valid base64 text), each piece encoded on its own. The parts go to a
// JSONString of a request body; peak memory stays near one copy of the encoded file.
#pragma once

#include <cstddef>
#include <cstdint>
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

// A file's base64 made only while it is read, one slice at a time, from a descriptor held open:
// the other way to carry media in a request body, for which nothing of the file stays in memory.
// Immutable once open; safe to read from several threads at once (pread).
class Base64FileSource {
public:
    // Encoded text per slice: 49,152 characters from 36,864 bytes of the file.
    static constexpr std::size_t kSliceFileBytes = 36'864;

    // Opens `file` (a regular file; links are not followed) and notes its size. Throws
    // std::system_error when it can't.
    [[nodiscard]] static std::shared_ptr<const Base64FileSource> open(
        const std::filesystem::path& file);
    ~Base64FileSource();
    Base64FileSource(const Base64FileSource&) = delete;
    Base64FileSource& operator=(const Base64FileSource&) = delete;

    [[nodiscard]] std::uint64_t fileSize() const { return size_; }
    [[nodiscard]] std::uint64_t encodedSize() const { return 4 * ((size_ + 2) / 3); }
    [[nodiscard]] std::size_t sliceCount() const {
        return static_cast<std::size_t>((size_ + kSliceFileBytes - 1) / kSliceFileBytes);
    }
    // Puts the encoded text of slice `index` into `out`. Throws TranscriptionError sourceChanged
    // when the file now holds fewer bytes than at opening, sourceUnreadable when it can't be read.
    void slice(std::size_t index, std::string& out) const;

private:
    Base64FileSource(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
    int fd_;
    std::uint64_t size_;
};

// `bytes` as standard base64 with padding.
[[nodiscard]] std::string base64Encoded(std::string_view bytes);
// The bytes of standard base64 text, or nothing when `text` isn't that.
[[nodiscard]] std::optional<std::string> base64Decoded(std::string_view text);

}  // namespace tessarin::engine
