// Stores a transcript beside its source or in a chosen folder, never replacing anything: the text
// is written whole to a hidden temporary file in the destination, then renamed exclusively to the
// first free name "{stem}.transcript.{ext}", "{stem}-2.transcript.{ext}", … (63 tries).
#pragma once

#include <filesystem>
#include <string>

#include "engine/transcription/Transcript.hpp"

namespace tessarin::engine {

class TranscriptWriter {
public:
    enum class ClaimResult { ok, exists, failed };

    // Writes `text` to `folder` under the first free transcript name of `stem` and returns the
    // path. Throws TranscriptionError writeFailed when the text can't be written or no name is
    // free; no temporary file is left behind then. Blocking; any thread.
    [[nodiscard]] static std::filesystem::path write(const std::string& text,
                                                     const std::filesystem::path& folder,
                                                     const std::string& stem,
                                                     TranscriptFormat format);

    // Renames `temporary` to `final` only if `final` doesn't exist; a rename that finds the name
    // taken is `exists`, any other failure `failed`.
    [[nodiscard]] static ClaimResult claim(const std::filesystem::path& temporary,
                                           const std::filesystem::path& final);

    // Whether `folder` takes new files: a hidden file is created exclusively, written, closed
    // and removed.
    [[nodiscard]] static bool probe(const std::filesystem::path& folder);

    // The name of attempt `attempt` (from 1): "lecture.transcript.srt", "lecture-2.transcript.srt".
    [[nodiscard]] static std::string fileName(const std::string& stem, int attempt,
                                              TranscriptFormat format);

    static constexpr int kMaxAttempts = 63;
};

}  // namespace tessarin::engine
