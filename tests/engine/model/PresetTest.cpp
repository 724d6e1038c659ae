#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/model/Preset.hpp"

namespace tessarin::engine {
namespace {

struct ScaleCase {
    Scale scale;
    std::optional<std::string> video;
    std::optional<std::string> gif;
};

TEST(Scale, FilterForVideoAndGif) {
    const std::vector<ScaleCase> rows = {
        {Scale::fitWidth(721), "scale=720:-2", "scale=721:-2"},
        {Scale::fitWidth(720), "scale=720:-2", "scale=720:-2"},
        {Scale::fitHeight(481), "scale=-2:480", "scale=-2:481"},
        {Scale::fitHeight(1), "scale=-2:0", "scale=-2:1"},
        {Scale::original(), std::nullopt, std::nullopt},
        {Scale::half(), "scale=trunc(iw/4)*2:-2", "scale=iw/2:-2"},
        {Scale::third(), "scale=trunc(iw/6)*2:-2", "scale=iw/3:-2"},
    };
    for (const ScaleCase& row : rows) {
        EXPECT_EQ(row.scale.filter(true), row.video);
        EXPECT_EQ(row.scale.filter(false), row.gif);
    }
}

TEST(Preset, BuiltinsInListOrder) {
    std::vector<std::string> ids;
    for (const Preset& preset : Preset::builtins()) {
        ids.push_back(preset.id);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"mp4-h264", "mp4-h264-half", "mp4-h265",
                                             "mp4-h265-half", "gif-small", "gif-full", "mp4-av1",
                                             "webm-vp9", "mp4-h264-vt", "mp4-h265-vt"}));
}

TEST(Preset, LookupByIdReturnsTheSamePresetAsItsConstant) {
    const std::vector<std::pair<std::string, const Preset*>> constants = {
        {"mp4-h264", &Preset::mp4H264()},
        {"mp4-h264-half", &Preset::mp4H264Half()},
        {"mp4-h265", &Preset::mp4H265()},
        {"mp4-h265-half", &Preset::mp4H265Half()},
        {"gif-small", &Preset::gifSmall()},
        {"gif-full", &Preset::gifFull()},
        {"mp4-av1", &Preset::mp4AV1()},
        {"webm-vp9", &Preset::webmVP9()},
        {"mp4-h264-vt", &Preset::mp4H264Hardware()},
        {"mp4-h265-vt", &Preset::mp4H265Hardware()},
    };
    for (const auto& [id, constant] : constants) {
        const Preset* found = Preset::builtin(id);
        ASSERT_NE(found, nullptr) << id;
        EXPECT_EQ(found->id, id);
        EXPECT_EQ(*found, *constant) << id;
    }
    EXPECT_EQ(Preset::builtin("mp4-h264 "), nullptr);
    EXPECT_EQ(Preset::builtin(""), nullptr);
    EXPECT_EQ(Preset::builtin("MP4-H264"), nullptr);
}

// The rows as the table states them; the suffixes name the quality the defaults supply.
TEST(Preset, BuiltinRows) {
    const Preset& small = Preset::gifSmall();
    EXPECT_EQ(small.displayName, "GIF · Small (⅓ size)");
    EXPECT_EQ(small.options.format, OutputFormat::gif());
    EXPECT_EQ(small.options.scale, Scale::third());
    EXPECT_EQ(small.options.fps, 6);
    EXPECT_EQ(small.options.crf, std::nullopt);
    EXPECT_EQ(small.options.dither, "bayer");
    EXPECT_EQ(small.options.lossy, GifLossy::defaultLossiness());
    EXPECT_EQ(small.filenameSuffix, "-third_size");
    EXPECT_EQ(small.fileExtension, "gif");

    const Preset& av1 = Preset::mp4AV1();
    EXPECT_EQ(av1.options.format, OutputFormat::mp4(VideoCodec::av1));
    EXPECT_EQ(av1.options.crf, std::nullopt);
    EXPECT_EQ(av1.filenameSuffix, "-av1_crf32");
    EXPECT_EQ(defaultQuality(VideoCodec::av1), 32);

    const Preset& hevcHardware = Preset::mp4H265Hardware();
    EXPECT_EQ(hevcHardware.displayName, "MP4 · Fast (H.265 hardware)");
    EXPECT_EQ(hevcHardware.options.format, OutputFormat::mp4(VideoCodec::hevcVT));
    EXPECT_EQ(hevcHardware.filenameSuffix, "-h265_vt_q50");
    EXPECT_EQ(defaultQuality(VideoCodec::hevcVT), 50);

    EXPECT_EQ(Preset::mp4H264Half().options.crf, 29);
    EXPECT_EQ(Preset::mp4H264Half().options.scale, Scale::half());
    EXPECT_EQ(Preset::webmVP9().options.format, OutputFormat::webm(VideoCodec::vp9));
    EXPECT_EQ(Preset::webmVP9().fileExtension, "webm");

    for (const Preset& preset : Preset::builtins()) {
        EXPECT_TRUE(preset.options.trim.isEmpty()) << preset.id;
        EXPECT_EQ(preset.options.preset, "medium") << preset.id;
        EXPECT_TRUE(preset.options.optimizeGif) << preset.id;
        if (preset.id != "gif-small") {
            EXPECT_EQ(preset.options.dither, "sierra2_4a") << preset.id;
            EXPECT_EQ(preset.options.lossy, GifLossy::off()) << preset.id;
        }
    }
}

TEST(VideoCodec, RawValuesRoundTripAndUnknownNamesGiveNothing) {
    for (VideoCodec codec : kAllVideoCodecs) {
        EXPECT_EQ(videoCodecFromRawValue(rawValue(codec)), codec);
    }
    EXPECT_EQ(rawValue(VideoCodec::vp9), "libvpx-vp9");
    EXPECT_EQ(videoCodecFromRawValue("h264"), std::nullopt);
    EXPECT_EQ(videoCodecFromRawValue(""), std::nullopt);
}

TEST(OutputFormat, EqualityIgnoresTheCodecOnlyForGif) {
    EXPECT_EQ(OutputFormat::gif(), (OutputFormat{OutputFormat::Kind::gif, VideoCodec::av1}));
    EXPECT_NE(OutputFormat::mp4(VideoCodec::h264), OutputFormat::mp4(VideoCodec::h265));
    EXPECT_NE(OutputFormat::mp4(VideoCodec::vp9), OutputFormat::webm(VideoCodec::vp9));
    EXPECT_EQ(GifLossy::off(), (GifLossy{GifLossy::Kind::off, 7}));
    EXPECT_NE(GifLossy::atLevel(20), GifLossy::atLevel(30));
}

}  // namespace
}  // namespace tessarin::engine
