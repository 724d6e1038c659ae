#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "engine/encoders/HardwareEncoderProbe.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "tests/engine/encoders/EncodersTestSupport.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

// An inventory that lists what the test says, so candidates can be present or absent.
EncoderInventory listing(const std::string& names) {
    return EncoderInventory([names](const fs::path&, const std::vector<std::string>&) {
        ProcessResult result;
        result.exitCode = 0;
        result.stdoutData = "Encoders:\n ------\n";
        std::size_t start = 0;
        while (start < names.size()) {
            std::size_t end = names.find(' ', start);
            end = end == std::string::npos ? names.size() : end;
            *result.stdoutData += " V..... " + names.substr(start, end - start) + " hardware\n";
            start = end + 1;
        }
        return result;
    });
}

// Records which encoders were test-run and lets the named ones succeed.
struct ScriptedEncodes {
    explicit ScriptedEncodes(std::vector<std::string> workingNames)
        : working(std::move(workingNames)) {}

    std::vector<std::string> working;
    std::vector<std::string> tried;
    std::vector<std::vector<std::string>> argumentLists;

    HardwareEncoderProbe::RunCommand command() {
        return [this](const fs::path&, const std::vector<std::string>& arguments) {
            const auto codecFlag = std::find(arguments.begin(), arguments.end(), "-c:v");
            const std::string name = codecFlag + 1 < arguments.end() ? *(codecFlag + 1) : "";
            tried.push_back(name);
            argumentLists.push_back(arguments);
            ProcessResult result;
            result.exitCode =
                std::find(working.begin(), working.end(), name) != working.end() ? 0 : 1;
            return result;
        };
    }
};

TEST(HardwareEncoderProbe, OnThisMachineEveryCandidateFailsQuicklyOrOneReallyEncodes) {
    const auto started = std::chrono::steady_clock::now();
    const HardwareEncoderSupport support = HardwareEncoderProbe{}.probe(test::helperTool("ffmpeg"));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(70));

    for (const VideoCodec codec : {VideoCodec::h264VT, VideoCodec::hevcVT}) {
        const std::optional<HardwareEncoder> encoder = support.encoder(codec);
        if (encoder) {
            // A machine with a GPU: what the probe chose must really encode.
            const ProcessResult again = HardwareEncoderProbe::runTestEncode(
                test::helperTool("ffmpeg"), HardwareEncoderProbe::testEncodeArguments(*encoder));
            EXPECT_EQ(again.exitCode, 0) << encoder->name << ": " << again.stderrTail;
            EXPECT_EQ(support.disabledReason(codec), std::nullopt);
        } else {
            ASSERT_TRUE(support.disabledReason(codec).has_value());
            EXPECT_THAT(*support.disabledReason(codec),
                        ::testing::HasSubstr("(tried NVENC, VAAPI and QSV)."));
        }
    }
    if (!support.h264 && !support.hevc) {
        EXPECT_EQ(support.disabledReason(VideoCodec::h264VT),
                  "No working hardware video encoder was found (tried NVENC, VAAPI and QSV).");
    }
    EXPECT_EQ(support.disabledReason(VideoCodec::h264), std::nullopt);
}

TEST(HardwareEncoderProbe, TakesTheFirstWorkingCandidateInOrderPerCodec) {
    ScriptedEncodes encodes({"h264_qsv", "hevc_nvenc", "hevc_qsv"});
    HardwareEncoderProbe probe;
    probe.runCommand = encodes.command();
    probe.vaapiDevice = "/dev/null";  // a character device stands in for the render node
    EncoderInventory inventory = listing("h264_nvenc h264_vaapi h264_qsv hevc_nvenc hevc_qsv");

    const HardwareEncoderSupport support = probe.probe(test::helperTool("ffmpeg"), inventory);

    EXPECT_THAT(encodes.tried, ElementsAre("h264_nvenc", "h264_vaapi", "h264_qsv", "hevc_nvenc"));
    ASSERT_TRUE(support.h264 && support.hevc);
    EXPECT_EQ(support.h264->kind, HardwareEncoderKind::qsv);
    EXPECT_EQ(support.hevc->kind, HardwareEncoderKind::nvenc);
    EXPECT_EQ(support.disabledReason(VideoCodec::hevcVT), std::nullopt);
    // The VAAPI attempt used the device and the upload filter.
    EXPECT_THAT(encodes.argumentLists[1],
                ::testing::IsSupersetOf({"/dev/null", "format=nv12,hwupload", "h264_vaapi"}));
}

TEST(HardwareEncoderProbe, SkipsUnlistedEncodersAndVAAPIWithoutItsDevice) {
    test::ScratchFolder scratch;
    ScriptedEncodes encodes({"h264_vaapi", "hevc_vaapi"});
    HardwareEncoderProbe probe;
    probe.runCommand = encodes.command();
    probe.vaapiDevice = scratch.path() / "renderD128";
    EncoderInventory inventory = listing("h264_vaapi hevc_vaapi hevc_qsv");

    const HardwareEncoderSupport support = probe.probe(test::helperTool("ffmpeg"), inventory);

    EXPECT_THAT(encodes.tried, ElementsAre("hevc_qsv"));
    EXPECT_EQ(support, HardwareEncoderSupport{});
    EXPECT_EQ(support.disabledReason(VideoCodec::hevcVT),
              "No working hardware video encoder was found (tried NVENC, VAAPI and QSV).");
}

TEST(HardwareEncoderProbe, TimedOutOrUnlaunchableTestEncodesCountAsFailures) {
    HardwareEncoderProbe probe;
    std::vector<std::string> tried;
    probe.runCommand = [&](const fs::path&, const std::vector<std::string>& arguments) {
        tried.push_back(arguments.back());
        if (tried.size() == 1) {
            throw LaunchError(std::make_error_code(std::errc::no_such_file_or_directory));
        }
        ProcessResult result;
        result.exitCode = 0;  // what a killed child may still report; the flags decide
        result.timedOut = true;
        result.wasCancelled = true;
        return result;
    };
    probe.vaapiDevice = "/nonexistent/renderD128";
    EncoderInventory inventory = listing("h264_nvenc h264_qsv hevc_nvenc");
    const HardwareEncoderSupport support = probe.probe(test::helperTool("ffmpeg"), inventory);
    EXPECT_EQ(tried.size(), 3u);
    EXPECT_EQ(support, HardwareEncoderSupport{});
    EXPECT_EQ(support.disabledReason(VideoCodec::h264VT),
              "No working hardware video encoder was found (tried NVENC, VAAPI and QSV).");
}

TEST(HardwareEncoderProbe, TestEncodeArgumentsRunTheRealFFmpegWithASoftwareStandIn) {
    // The same shape with a software encoder in the hardware block's place must encode, which
    // proves the input, filter and null-output parts of the vector.
    HardwareEncoder standIn = HardwareEncoder::make(HardwareEncoderKind::qsv, VideoCodec::h264VT);
    std::vector<std::string> arguments = HardwareEncoderProbe::testEncodeArguments(standIn);
    const auto name = std::find(arguments.begin(), arguments.end(), "h264_qsv");
    ASSERT_NE(name, arguments.end());
    *name = "libx264";
    const auto quality = std::find(arguments.begin(), arguments.end(), "-global_quality");
    ASSERT_NE(quality, arguments.end());
    *quality = "-crf";
    arguments.insert(arguments.begin() + 8, {"-vf", "format=nv12"});
    const ProcessResult result =
        HardwareEncoderProbe::runTestEncode(test::helperTool("ffmpeg"), arguments);
    EXPECT_EQ(result.exitCode, 0) << result.stderrTail;
    EXPECT_FALSE(result.timedOut);
}

}  // namespace
}  // namespace tessarin::engine
