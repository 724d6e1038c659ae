#include "engine/encoders/HardwareEncoderProbe.hpp"

#include <system_error>

#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

std::optional<HardwareEncoder> HardwareEncoderSupport::encoder(VideoCodec codec) const {
    switch (codec) {
        case VideoCodec::h264VT:
            return h264;
        case VideoCodec::hevcVT:
            return hevc;
        default:
            return std::nullopt;
    }
}

std::optional<std::string> HardwareEncoderSupport::disabledReason(VideoCodec codec) const {
    if (!isHardware(codec) || encoder(codec)) {
        return std::nullopt;
    }
    if (!h264 && !hevc) {
        return kNoHardwareEncoderSentence;
    }
    return codec == VideoCodec::h264VT ? kNoHardwareH264Sentence : kNoHardwareH265Sentence;
}

std::vector<std::string> HardwareEncoderProbe::testEncodeArguments(const HardwareEncoder& encoder) {
    std::vector<std::string> arguments = {
        "-hide_banner", "-nostdin", "-loglevel", "error",
        "-f",           "lavfi",    "-i",        "color=c=black:s=256x144:r=30:d=1"};
    if (encoder.filterSuffix) {
        arguments.insert(arguments.end(), {"-vf", *encoder.filterSuffix});
    }
    const std::vector<std::string> block = encoder.arguments(defaultQuality(encoder.codec));
    arguments.insert(arguments.end(), block.begin(), block.end());
    arguments.insert(arguments.end(), {"-an", "-f", "null", "-"});
    return arguments;
}

ProcessResult HardwareEncoderProbe::runTestEncode(const fs::path& executable,
                                                  const std::vector<std::string>& arguments) {
    ProcessRunner runner;
    return runner.run(executable, arguments, /*captureStdout=*/false, /*mergeStderr=*/false,
                      kTestEncodeTimeout);
}

HardwareEncoderSupport HardwareEncoderProbe::probe(const fs::path& ffmpeg,
                                                   EncoderInventory& inventory) const {
    std::error_code error;
    const bool haveVAAPIDevice = fs::is_character_file(vaapiDevice, error);
    const auto firstWorking = [&](VideoCodec codec) -> std::optional<HardwareEncoder> {
        for (const HardwareEncoderKind kind : kHardwareEncoderKinds) {
            if (kind == HardwareEncoderKind::vaapi && !haveVAAPIDevice) {
                continue;
            }
            const HardwareEncoder candidate =
                HardwareEncoder::make(kind, codec, vaapiDevice.string());
            if (!inventory.hasEncoder(ffmpeg, candidate.name)) {
                continue;
            }
            ProcessResult result;
            try {
                result = runCommand(ffmpeg, testEncodeArguments(candidate));
            } catch (const std::system_error&) {
                continue;
            }
            if (!result.wasCancelled && !result.timedOut && result.exitCode == 0) {
                return candidate;
            }
        }
        return std::nullopt;
    };
    return {.h264 = firstWorking(VideoCodec::h264VT), .hevc = firstWorking(VideoCodec::hevcVT)};
}

}  // namespace tessarin::engine
