#include "engine/transcription/Base64Parts.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionError.hpp"

namespace tessarin::engine {

namespace {

[[noreturn]] void fail(int error) { throw std::system_error(error, std::generic_category()); }

// Fills `buffer` as far as the file allows; the count read.
std::size_t readFully(int fd, char* buffer, std::size_t capacity) {
    std::size_t total = 0;
    while (total < capacity) {
        const ssize_t count = ::read(fd, buffer + total, capacity - total);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            fail(errno);
        }
        if (count == 0) {
            break;
        }
        total += static_cast<std::size_t>(count);
    }
    return total;
}

}  // namespace

std::string base64Encoded(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3), '\0');
    if (!bytes.empty()) {
        const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                            reinterpret_cast<const unsigned char*>(bytes.data()),
                                            static_cast<int>(bytes.size()));
        out.resize(static_cast<std::size_t>(written));
    }
    return out;
}

std::optional<std::string> base64Decoded(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    // The decoder below is lenient about padding inside the text; only the last two may be "=".
    for (std::size_t index = 0; index < text.size(); ++index) {
        const char c = text[index];
        const bool alphabet = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                              (c >= '0' && c <= '9') || c == '+' || c == '/';
        const bool padding = c == '=' && index + 2 >= text.size() &&
                             (index + 1 == text.size() || text.back() == '=');
        if (!alphabet && !padding) {
            return std::nullopt;
        }
    }
    std::string out(text.size() / 4 * 3, '\0');
    for (std::size_t offset = 0; offset < text.size();) {
        // Whole blocks of at most 48 KiB of text, so that int lengths never overflow.
        const std::size_t length = std::min<std::size_t>(text.size() - offset, 49'152);
        const int written = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()) + offset / 4 * 3,
                                            reinterpret_cast<const unsigned char*>(text.data()) + offset,
                                            static_cast<int>(length));
        if (written < 0) {
            return std::nullopt;
        }
        offset += length;
    }
    // EVP_DecodeBlock counts padding as zero bytes; drop them.
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
        ++padding;
    }
    out.resize(out.size() - padding);
    return out;
}

std::shared_ptr<const Base64FileSource> Base64FileSource::open(const std::filesystem::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        fail(errno);
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        const int error = S_ISREG(status.st_mode) ? errno : EINVAL;
        ::close(fd);
        fail(error);
    }
    return std::shared_ptr<const Base64FileSource>(
        new Base64FileSource(fd, static_cast<std::uint64_t>(status.st_size)));
}

Base64FileSource::~Base64FileSource() { ::close(fd_); }

void Base64FileSource::slice(std::size_t index, std::string& out) const {
    const std::uint64_t offset = std::uint64_t{index} * kSliceFileBytes;
    const std::size_t length =
        offset >= size_ ? 0 : static_cast<std::size_t>(std::min<std::uint64_t>(kSliceFileBytes, size_ - offset));
    char buffer[kSliceFileBytes];
    std::size_t total = 0;
    while (total < length) {
        const ssize_t count = ::pread(fd_, buffer + total, length - total,
                                      static_cast<off_t>(offset + total));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw TranscriptionError(TranscriptionError::Code::sourceUnreadable);
        }
        if (count == 0) {
            throw TranscriptionError(TranscriptionError::Code::sourceChanged);
        }
        total += static_cast<std::size_t>(count);
    }
    out.resize(4 * ((length + 2) / 3));
    if (length > 0) {
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                        reinterpret_cast<const unsigned char*>(buffer), static_cast<int>(length));
    }
}

Base64Parts readBase64Parts(const std::filesystem::path& file, const TranscriptionControl* control) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        fail(errno);
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        fail(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        fail(EINVAL);
    }
    auto parts = std::make_shared<std::vector<std::string>>();
    parts->reserve(static_cast<std::size_t>(status.st_size) / kBase64PieceBytes + 1);
    std::string piece(kBase64PieceBytes, '\0');
    for (;;) {
        if (control != nullptr && control->isCancelled()) {
            throw TranscriptionError(TranscriptionError::Code::cancelled);
        }
        const std::size_t count = readFully(fd, piece.data(), piece.size());
        if (count == 0) {
            break;
        }
        parts->push_back(base64Encoded(std::string_view(piece.data(), count)));
        if (count < piece.size()) {
            break;
        }
    }
    return parts;
}

}  // namespace tessarin::engine
