// The source of a transcription, bound when it was queued: a descriptor held open on the file, and
// the exact stamp of its status then. What is transcribed is what the user dropped; a file that
// changed since then is refused rather than sent.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

namespace tessarin::engine {

class TranscriptionControl;

class TranscriptionInput {
public:
    // Process-wide cap of inputs held open at once: descriptors are scarce.
    static constexpr int kMaximumOpen = 64;

    struct Stamp {
        std::int64_t device = 0;
        std::uint64_t inode = 0;
        std::int64_t size = 0;
        std::int64_t modifiedSeconds = 0;
        std::int64_t modifiedNanos = 0;
        std::int64_t changedSeconds = 0;
        std::int64_t changedNanos = 0;
        bool operator==(const Stamp&) const = default;
    };

    // Opens `source` for reading without following a final symbolic link. Throws
    // TranscriptionError sourceQueueFull when 64 inputs are open already (or the process is out
    // of descriptors), sourceUnreadable when it can't be opened or isn't a regular file. Blocking.
    [[nodiscard]] static std::shared_ptr<TranscriptionInput> open(const std::filesystem::path& source);
    ~TranscriptionInput();
    TranscriptionInput(const TranscriptionInput&) = delete;
    TranscriptionInput& operator=(const TranscriptionInput&) = delete;

    // Throws TranscriptionError sourceChanged when any of the seven stamp fields differ now, the
    // file is no longer regular, or the input was closed.
    void checkStamp() const;
    // A path that opens the very file held (through /proc), for child processes of this process.
    [[nodiscard]] std::filesystem::path heldPath() const;
    // Copies the held file into a new file `target` (exclusive creation, mode 0600), in reads of
    // 65,536 bytes, checking `control` each round; checks the stamp after. Throws
    // TranscriptionError cancelled, sourceChanged, or sourcePreparationFailed (the copy removed).
    void copyTo(const std::filesystem::path& target, const TranscriptionControl& control) const;
    // Closes the descriptor and gives back its place in the count; later calls do nothing.
    void close();

    [[nodiscard]] const Stamp& stamp() const { return stamp_; }
    [[nodiscard]] const std::string& filename() const { return filename_; }
    [[nodiscard]] const std::filesystem::path& source() const { return source_; }
    // How many inputs are open in this process.
    [[nodiscard]] static int openCount();

private:
    TranscriptionInput(int descriptor, Stamp stamp, std::filesystem::path source);
    [[nodiscard]] int descriptor() const;

    mutable std::mutex lock_;
    int descriptor_;  // guarded by lock_; negative once closed
    const Stamp stamp_;
    const std::filesystem::path source_;
    const std::string filename_;
};

}  // namespace tessarin::engine
