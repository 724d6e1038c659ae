// The media work a transcription needs: the facts of a file, and speech audio extracted from it.
// EngineTranscriptionBackend does it with ffprobe and a ConversionJob; tests may put their own
// in its place so that the pipeline runs without tools.
#pragma once

#include <filesystem>
#include <functional>

#include "engine/model/AudioExtractionOptions.hpp"
#include "engine/probe/MediaInfo.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

class TranscriptionControl;

// Both members block the calling thread while a child runs; a cancel of `control` stops the child
// with a grace of 5 s. They throw TranscriptionError only: unsupportedInput (the transcription
// input policy refused the file), noAudioTrack, toolsUnavailable, cancelled, and otherwise
// extractionFailed.
class TranscriptionMediaBackend {
public:
    virtual ~TranscriptionMediaBackend() = default;
    [[nodiscard]] virtual MediaInfo probe(const std::filesystem::path& file,
                                          TranscriptionControl& control) = 0;
    // Writes the audio of `source` under `options` into `folder` and returns the file's path.
    // `onProgress` (may be empty) gets the extraction's fractions from 0 to 1 as they come.
    [[nodiscard]] virtual std::filesystem::path extract(
        const std::filesystem::path& source, const AudioExtractionOptions& options,
        const std::filesystem::path& folder, TranscriptionControl& control,
        const std::function<void(double)>& onProgress) = 0;
};

class EngineTranscriptionBackend final : public TranscriptionMediaBackend {
public:
    static constexpr double kProbeTimeout = 30.0;
    static constexpr double kCancelGrace = 5.0;

    explicit EngineTranscriptionBackend(Tools tools) : tools_(std::move(tools)) {}

    MediaInfo probe(const std::filesystem::path& file, TranscriptionControl& control) override;
    std::filesystem::path extract(const std::filesystem::path& source,
                                  const AudioExtractionOptions& options,
                                  const std::filesystem::path& folder,
                                  TranscriptionControl& control,
                                  const std::function<void(double)>& onProgress) override;

private:
    Tools tools_;
};

}  // namespace tessarin::engine
