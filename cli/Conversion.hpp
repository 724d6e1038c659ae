// One preset conversion of one file, from probe through ffmpeg (and gifsicle) to a verified,
// published output. Runs the command builder and the process runner directly.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>

#include "cli/Interruption.hpp"
#include "engine/ffmpeg/HardwareEncoderBlock.hpp"
#include "engine/model/JobFailure.hpp"
#include "engine/model/Preset.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::cli {

struct ConversionRequest {
    engine::Tools tools;
    engine::Preset preset;
    std::filesystem::path source;
    std::optional<std::filesystem::path> outputDirectory;
    std::optional<engine::HardwareEncoderBlock> hardware;  // for the two hardware codecs
};

// Returns the published path. Throws engine::JobFailure (wasCancelled after an interruption).
// `onProgress` receives fractions in [0, 1]. Leaves no work files behind in any case.
[[nodiscard]] std::filesystem::path convert(const ConversionRequest& request,
                                            Interruption& interruption,
                                            const std::function<void(double)>& onProgress);

}  // namespace tessarin::cli
