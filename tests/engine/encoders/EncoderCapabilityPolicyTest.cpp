#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/encoders/PresetAvailability.hpp"

namespace tessarin::engine {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> ids(const std::vector<Preset>& presets) {
    std::vector<std::string> result;
    for (const Preset& preset : presets) {
        result.push_back(preset.id);
    }
    return result;
}

TEST(VideoCodecGroups, EachCodecBelongsToExactlyOneGroup) {
    struct Row {
        VideoCodec codec;
        bool hevcFamily;
        bool softwareHEVC;
    };
    const Row rows[] = {
        {VideoCodec::h264, false, false},   {VideoCodec::h265, true, true},
        {VideoCodec::av1, false, false},    {VideoCodec::vp9, false, false},
        {VideoCodec::h264VT, false, false}, {VideoCodec::hevcVT, true, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(rawValue(row.codec)));
        EXPECT_EQ(isHEVCFamily(row.codec), row.hevcFamily);
        EXPECT_EQ(isSoftwareHEVC(row.codec), row.softwareHEVC);
        EXPECT_EQ(isBaseline(row.codec), !row.hevcFamily);
    }
}

TEST(IsBaseline, GifAlwaysAndVideoFormatsByTheirCodec) {
    EXPECT_TRUE(isBaseline(OutputFormat::gif()));
    EXPECT_TRUE(isBaseline(OutputFormat::mp4(VideoCodec::h264)));
    EXPECT_TRUE(isBaseline(OutputFormat::mp4(VideoCodec::av1)));
    EXPECT_TRUE(isBaseline(OutputFormat::webm(VideoCodec::vp9)));
    EXPECT_TRUE(isBaseline(OutputFormat::mp4(VideoCodec::h264VT)));
    EXPECT_FALSE(isBaseline(OutputFormat::mp4(VideoCodec::h265)));
    EXPECT_FALSE(isBaseline(OutputFormat::mp4(VideoCodec::hevcVT)));
    // A GIF's codec field is meaningless, even when it names an HEVC codec.
    EXPECT_TRUE(isBaseline(OutputFormat{OutputFormat::Kind::gif, VideoCodec::h265}));
}

TEST(EncoderCapabilityPolicy, HEVCFamilyNeedsASource) {
    const EncoderCapabilityPolicy none{SoftwareHEVCSource::unavailable};
    const EncoderCapabilityPolicy bundled{SoftwareHEVCSource::privateBundled};
    const EncoderCapabilityPolicy external{SoftwareHEVCSource::external};
    for (const VideoCodec codec : kAllVideoCodecs) {
        SCOPED_TRACE(std::string(rawValue(codec)));
        EXPECT_EQ(none.allows(codec), isBaseline(codec));
        EXPECT_TRUE(bundled.allows(codec));
        EXPECT_TRUE(external.allows(codec));
    }
    EXPECT_TRUE(none.allows(OutputFormat::gif()));
}

TEST(FilterPresets, UnavailableSourceDropsTheHEVCFamilyKeepingOrder) {
    const std::vector<Preset> kept =
        filter(Preset::builtins(), EncoderCapabilityPolicy{SoftwareHEVCSource::unavailable});
    EXPECT_THAT(ids(kept), ElementsAre("mp4-h264", "mp4-h264-half", "gif-small", "gif-full",
                                       "mp4-av1", "webm-vp9", "mp4-h264-vt"));
}

TEST(FilterPresets, AnySourceKeepsEveryPresetInOrder) {
    std::vector<Preset> reversed(Preset::builtins().rbegin(), Preset::builtins().rend());
    for (const SoftwareHEVCSource source :
         {SoftwareHEVCSource::privateBundled, SoftwareHEVCSource::external}) {
        EXPECT_EQ(filter(Preset::builtins(), EncoderCapabilityPolicy{source}),
                  std::vector<Preset>(Preset::builtins().begin(), Preset::builtins().end()));
        EXPECT_EQ(filter(reversed, EncoderCapabilityPolicy{source}), reversed);
    }
    EXPECT_TRUE(filter({}, EncoderCapabilityPolicy{}).empty());
}

TEST(PresetDisabledReason, PolicyRefusalComesBeforeMissingHardware) {
    const EncoderCapabilityPolicy none{SoftwareHEVCSource::unavailable};
    const EncoderCapabilityPolicy bundled{SoftwareHEVCSource::privateBundled};
    const HardwareEncoderSupport noHardware;
    HardwareEncoderSupport h264Only;
    h264Only.h264 = HardwareEncoder::make(HardwareEncoderKind::vaapi, VideoCodec::h264VT);

    EXPECT_EQ(presetDisabledReason(Preset::mp4H265(), none, noHardware),
              "H.265/HEVC is unavailable in this build. Choose H.264, AV1, VP9, or GIF.");
    EXPECT_EQ(presetDisabledReason(Preset::mp4H265Hardware(), none, h264Only),
              "H.265/HEVC is unavailable in this build. Choose H.264, AV1, VP9, or GIF.");
    EXPECT_EQ(presetDisabledReason(Preset::mp4H265(), bundled, noHardware), std::nullopt);
    EXPECT_EQ(presetDisabledReason(Preset::gifSmall(), none, noHardware), std::nullopt);
    EXPECT_EQ(presetDisabledReason(Preset::webmVP9(), none, noHardware), std::nullopt);

    EXPECT_EQ(presetDisabledReason(Preset::mp4H264Hardware(), none, noHardware),
              "No working hardware video encoder was found (tried NVENC, VAAPI and QSV).");
    EXPECT_EQ(presetDisabledReason(Preset::mp4H265Hardware(), bundled, noHardware),
              "No working hardware video encoder was found (tried NVENC, VAAPI and QSV).");
    EXPECT_EQ(presetDisabledReason(Preset::mp4H264Hardware(), bundled, h264Only), std::nullopt);
    EXPECT_EQ(presetDisabledReason(Preset::mp4H265Hardware(), bundled, h264Only),
              "No working hardware H.265 encoder was found (tried NVENC, VAAPI and QSV).");
}

}  // namespace
}  // namespace tessarin::engine
