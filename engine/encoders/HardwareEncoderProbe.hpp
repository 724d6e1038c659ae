// Finds, once at start, which hardware encoder serves each of the two hardware codecs: the
// first of NVENC, VAAPI and QSV that ffmpeg lists and that passes a one-second test encode.
// Without one, presets of that codec carry a plain disabled reason instead of failing later.
//
//   HardwareEncoderSupport support = HardwareEncoderProbe{}.probe(tools.ffmpeg);
//   if (auto reason = support.disabledReason(VideoCodec::hevcVT)) ...
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/encoders/EncoderInventory.hpp"
#include "engine/encoders/HardwareEncoder.hpp"
#include "engine/model/VideoCodec.hpp"
#include "engine/process/ProcessResult.hpp"

namespace tessarin::engine {

// What the probe found. A plain value.
struct HardwareEncoderSupport {
    std::optional<HardwareEncoder> h264;  // serves h264VT
    std::optional<HardwareEncoder> hevc;  // serves hevcVT

    // The encoder for `h264VT` or `hevcVT`; nothing for any other codec.
    [[nodiscard]] std::optional<HardwareEncoder> encoder(VideoCodec codec) const;

    // Nothing when `codec` is not a hardware codec or has an encoder; otherwise the sentence
    // to show in place of its presets.
    [[nodiscard]] std::optional<std::string> disabledReason(VideoCodec codec) const;

    bool operator==(const HardwareEncoderSupport&) const = default;
};

inline constexpr const char* kNoHardwareEncoderSentence =
    "No working hardware video encoder was found (tried NVENC, VAAPI and QSV).";
inline constexpr const char* kNoHardwareH264Sentence =
    "No working hardware H.264 encoder was found (tried NVENC, VAAPI and QSV).";
inline constexpr const char* kNoHardwareH265Sentence =
    "No working hardware H.265 encoder was found (tried NVENC, VAAPI and QSV).";

struct HardwareEncoderProbe {
    using RunCommand = std::function<ProcessResult(const std::filesystem::path& executable,
                                                   const std::vector<std::string>& arguments)>;

    // A test encode that has not finished by then counts as failed; the runner ends it.
    static constexpr double kTestEncodeTimeout = 10.0;

    // Runs one test encode; by default a ProcessRunner run with kTestEncodeTimeout.
    RunCommand runCommand = runTestEncode;
    // VAAPI is tried only when this render node exists.
    std::filesystem::path vaapiDevice = kDefaultVAAPIDevice;

    // Tries the candidates in order for each codec and keeps the first that works.
    // Candidates that `inventory` doesn't list for `ffmpeg` are not run. At most six test
    // encodes, each bounded by kTestEncodeTimeout. Blocks the calling background thread;
    // never throws for failing tools or missing devices.
    [[nodiscard]] HardwareEncoderSupport probe(const std::filesystem::path& ffmpeg,
                                               EncoderInventory& inventory) const;
    [[nodiscard]] HardwareEncoderSupport probe(const std::filesystem::path& ffmpeg) const {
        return probe(ffmpeg, EncoderInventory::shared());
    }

    // One second of black 256x144 video at 30 frames a second through `encoder`, at the
    // codec's default quality, into the null muxer.
    [[nodiscard]] static std::vector<std::string> testEncodeArguments(
        const HardwareEncoder& encoder);

    [[nodiscard]] static ProcessResult runTestEncode(const std::filesystem::path& executable,
                                                     const std::vector<std::string>& arguments);
};

}  // namespace tessarin::engine
