#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/encoders/HardwareEncoder.hpp"
#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(HardwareQualityLevel, MapsOneToHundredLinearlyOntoFiftyOneToOne) {
    const std::pair<int, int> rows[] = {
        {1, 51},  {2, 50}, {50, 26}, {51, 26}, {75, 14},  {99, 2},
        {100, 1}, {0, 51}, {-7, 51}, {101, 1}, {1000, 1},
    };
    for (const auto& [quality, level] : rows) {
        EXPECT_EQ(hardwareQualityLevel(quality), level) << "quality " << quality;
    }
    for (int quality = 2; quality <= 100; ++quality) {
        EXPECT_LE(hardwareQualityLevel(quality), hardwareQualityLevel(quality - 1));
    }
}

TEST(HardwareEncoder, ArgumentBlocks) {
    EXPECT_THAT(HardwareEncoder::make(HardwareEncoderKind::nvenc, VideoCodec::h264VT).arguments(50),
                ElementsAre("-c:v", "h264_nvenc", "-preset", "p4", "-rc", "vbr", "-cq", "26",
                            "-b:v", "0", "-pix_fmt", "yuv420p"));
    EXPECT_THAT(
        HardwareEncoder::make(HardwareEncoderKind::nvenc, VideoCodec::hevcVT).arguments(100),
        ElementsAre("-c:v", "hevc_nvenc", "-preset", "p4", "-rc", "vbr", "-cq", "1", "-b:v", "0",
                    "-pix_fmt", "yuv420p", "-tag:v", "hvc1"));
    const HardwareEncoder vaapi = HardwareEncoder::make(HardwareEncoderKind::vaapi,
                                                        VideoCodec::hevcVT, "/dev/dri/renderD129");
    EXPECT_EQ(vaapi.name, "hevc_vaapi");
    EXPECT_EQ(vaapi.filterSuffix, "format=nv12,hwupload");
    EXPECT_THAT(vaapi.arguments(1),
                ElementsAre("-vaapi_device", "/dev/dri/renderD129", "-c:v", "hevc_vaapi",
                            "-rc_mode", "CQP", "-qp", "51", "-tag:v", "hvc1"));
    const HardwareEncoder qsv = HardwareEncoder::make(HardwareEncoderKind::qsv, VideoCodec::h264VT);
    EXPECT_EQ(qsv.filterSuffix, std::nullopt);
    EXPECT_TRUE(qsv.device.empty());
    EXPECT_THAT(qsv.arguments(50),
                ElementsAre("-c:v", "h264_qsv", "-global_quality", "26", "-pix_fmt", "nv12"));
}

// No hardware here to encode with, but the helper ffmpeg documents each encoder's private
// options: a misspelt option or rate-control name would fail every real encode.
TEST(HardwareEncoder, PrivateOptionsAreTheHelperFFmpegsOwn) {
    struct Row {
        HardwareEncoderKind kind;
        std::vector<std::string> helpTexts;
    };
    const Row rows[] = {
        {HardwareEncoderKind::nvenc, {"-preset ", "-rc ", " vbr ", "-cq "}},
        {HardwareEncoderKind::vaapi, {"-rc_mode ", " CQP ", "-qp "}},
        {HardwareEncoderKind::qsv, {}},
    };
    const std::string ffmpeg = std::string(TESSARIN_HELPER_DIR) + "/ffmpeg";
    for (const Row& row : rows) {
        for (const VideoCodec codec : {VideoCodec::h264VT, VideoCodec::hevcVT}) {
            const HardwareEncoder encoder = HardwareEncoder::make(row.kind, codec);
            ProcessRunner runner;
            const ProcessResult help = runner.run(
                ffmpeg, {"-hide_banner", "-h", "encoder=" + encoder.name}, true, false, 30.0);
            ASSERT_EQ(help.exitCode, 0) << encoder.name;
            const std::string text = help.stdoutData.value_or("");
            EXPECT_THAT(text, HasSubstr("Encoder " + encoder.name + " ")) << encoder.name;
            for (const std::string& option : row.helpTexts) {
                EXPECT_THAT(text, HasSubstr(option)) << encoder.name;
            }
        }
    }
}

}  // namespace
}  // namespace tessarin::engine
