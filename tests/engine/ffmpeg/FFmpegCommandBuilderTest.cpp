#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/ffmpeg/FFmpegCommandBuilder.hpp"
#include "engine/model/MediaTask.hpp"
#include "tests/engine/ffmpeg/GoldenRows.hpp"

namespace tessarin::engine {
namespace {

using testing::ElementsAre;
using Vector = std::vector<std::string>;

class GoldenVector : public testing::TestWithParam<golden::Row> {};

TEST_P(GoldenVector, BuilderGivesTheHandWrittenVectors) {
    const golden::Row& row = GetParam();
    const golden::Paths paths;
    const std::vector<Vector> built = golden::buildFFmpeg(row, paths);
    ASSERT_EQ(built.size(), row.ffmpeg.size());
    for (std::size_t i = 0; i < built.size(); ++i) {
        EXPECT_EQ(built[i], golden::expand(row.ffmpeg[i], paths)) << "ffmpeg run " << i;
    }
    if (row.options.format.isGif()) {
        EXPECT_EQ(
            FFmpegCommandBuilder::gifsicleArguments(paths.renderedGif, paths.output, row.options),
            golden::expand(row.gifsicle, paths));
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, GoldenVector, testing::ValuesIn(golden::rows()),
                         [](const testing::TestParamInfo<golden::Row>& info) {
                             return info.param.name;
                         });

TEST(AudioPlan, FollowsTheProbedAudio) {
    EXPECT_EQ(AudioPlan::forSource(false, std::nullopt).mode, AudioPlan::Mode::none);
    EXPECT_EQ(AudioPlan::forSource(false, "aac").mode, AudioPlan::Mode::none);
    EXPECT_EQ(AudioPlan::forSource(true, "aac").mode, AudioPlan::Mode::copy);
    EXPECT_EQ(AudioPlan::forSource(true, "opus").mode, AudioPlan::Mode::transcodeAAC);
    EXPECT_EQ(AudioPlan::forSource(true, std::nullopt).mode, AudioPlan::Mode::transcodeAAC);
    EXPECT_EQ(AudioPlan::forSource(true, "AAC").mode, AudioPlan::Mode::transcodeAAC);
}

TEST(FFmpegCommandBuilder, SeekArgumentsAreTheTypedTexts) {
    EXPECT_THAT(FFmpegCommandBuilder::seekArguments(Trim{}), ElementsAre());
    EXPECT_THAT(FFmpegCommandBuilder::seekArguments(Trim{"1:02.5", std::nullopt}),
                ElementsAre("-ss", "1:02.5"));
    EXPECT_THAT(FFmpegCommandBuilder::seekArguments(Trim{std::nullopt, "abc"}),
                ElementsAre("-to", "abc"));
    EXPECT_THAT(FFmpegCommandBuilder::seekArguments(Trim{"0", "90"}),
                ElementsAre("-ss", "0", "-to", "90"));
}

TEST(FFmpegCommandBuilder, DurationOfOneRange) {
    const JoinRanges none;
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{}, none), std::nullopt);
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{"5", std::nullopt}, none), std::nullopt);
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{std::nullopt, "1:30"}, none), "90.000000000");
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{"0:10", "0:12.25"}, none), "2.250000000");
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{std::nullopt, "0.000000001"}, none),
              "0.000000001");
    // Empty, reversed or unreadable ranges have no length.
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{std::nullopt, "0"}, none), std::nullopt);
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{"5", "5"}, none), std::nullopt);
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{"6", "5"}, none), std::nullopt);
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{"abc", "5"}, none), std::nullopt);
    EXPECT_EQ(FFmpegCommandBuilder::duration(Trim{"1", "abc"}, none), std::nullopt);
}

TEST(FFmpegCommandBuilder, DurationOfRangesIgnoresTheTrimAndNeedsEveryRange) {
    const Trim ignored{"100", "200"};
    EXPECT_EQ(FFmpegCommandBuilder::duration(
                  ignored, std::vector<Trim>{{"0", "1.5"}, {std::nullopt, "2"}, {"10", "10.25"}}),
              "3.750000000");
    EXPECT_EQ(FFmpegCommandBuilder::duration(ignored, std::vector<Trim>{{"0", "1"}, {"3", "2"}}),
              std::nullopt);
    EXPECT_EQ(FFmpegCommandBuilder::duration(ignored, std::vector<Trim>{{"0", "1"}, {"2", {}}}),
              std::nullopt);
    EXPECT_EQ(FFmpegCommandBuilder::duration(ignored, std::vector<Trim>{}), std::nullopt);
    // Each range is finite, but their sum overflows.
    EXPECT_EQ(
        FFmpegCommandBuilder::duration(ignored, std::vector<Trim>{{"0", "1e308"}, {"0", "1e308"}}),
        std::nullopt);
}

TEST(FFmpegCommandBuilder, ChainByFormat) {
    ConversionOptions video;
    video.format = OutputFormat::mp4(VideoCodec::h264);
    EXPECT_EQ(FFmpegCommandBuilder::chain(video, std::nullopt), std::nullopt);
    video.scale = Scale::fitHeight(241);
    video.fps = 24;
    video.trim = Trim{std::nullopt, "5"};
    // Video never gets a trim filter; its length comes from the seek or -t.
    EXPECT_EQ(FFmpegCommandBuilder::chain(video, std::nullopt), "scale=-2:240,fps=24");

    ConversionOptions gif;
    gif.format = OutputFormat::gif();
    EXPECT_EQ(FFmpegCommandBuilder::chain(gif, std::nullopt), "fps=10");
    gif.scale = Scale::fitHeight(241);
    gif.trim = Trim{"1", "3.5"};
    EXPECT_EQ(FFmpegCommandBuilder::chain(gif, std::nullopt),
              "scale=-2:241,fps=10,trim=duration=2.500000000");
    EXPECT_EQ(FFmpegCommandBuilder::chain(gif, std::vector<Trim>{{"0", "1"}, {"2", "4"}}),
              "scale=-2:241,fps=10,trim=duration=3.000000000");
}

TEST(FFmpegCommandBuilder, JoinGraphWithAudioPadsToTheLastEnd) {
    // The pad follows the last range in the list, not the latest end.
    EXPECT_EQ(FFmpegCommandBuilder::joinGraph(
                  {Trim{"10", "12"}, Trim{"1:00", "1:00.5"}, Trim{"0", "0.000001"}}, true),
              "[0:V:0]split=3[vs0][vs1][vs2];"
              "[0:a:0]aresample=async=1:first_pts=0,apad=whole_dur=0.000001,asplit=3[as0][as1]"
              "[as2];"
              "[vs0]trim=start=10.000000:end=12.000000,setpts=PTS-STARTPTS[v0];"
              "[as0]atrim=start=10.000000:end=12.000000,asetpts=PTS-STARTPTS[a0];"
              "[vs1]trim=start=60.000000:end=60.500000,setpts=PTS-STARTPTS[v1];"
              "[as1]atrim=start=60.000000:end=60.500000,asetpts=PTS-STARTPTS[a1];"
              "[vs2]trim=start=0.000000:end=0.000001,setpts=PTS-STARTPTS[v2];"
              "[as2]atrim=start=0.000000:end=0.000001,asetpts=PTS-STARTPTS[a2];"
              "[v0][a0][v1][a1][v2][a2]concat=n=3:v=1:a=1[jv][ja]");
}

TEST(FFmpegCommandBuilder, JoinGraphTakes500Ranges) {
    const std::vector<Trim> ranges(kMaximumJoinRanges, Trim{"0", "1"});
    const std::string graph = FFmpegCommandBuilder::joinGraph(ranges, false);
    EXPECT_THAT(graph, testing::StartsWith("[0:V:0]split=500[vs0][vs1]"));
    EXPECT_THAT(graph, testing::HasSubstr("[vs499]trim=start=0.000000:end=1.000000,"
                                          "setpts=PTS-STARTPTS[v499]"));
    EXPECT_THAT(graph, testing::EndsWith("[v498][v499]concat=n=500:v=1:a=0[jv]"));
}

// Numbers in arguments never follow the user's locale.
TEST(FFmpegCommandBuilder, NumbersIgnoreTheProcessLocale) {
    const std::string previous = setlocale(LC_ALL, nullptr);
    if (setlocale(LC_ALL, "de_DE.UTF-8") == nullptr &&
        setlocale(LC_ALL, "fr_FR.UTF-8") == nullptr) {
        GTEST_SKIP() << "no locale with a decimal comma is installed";
    }
    const std::string graph = FFmpegCommandBuilder::joinGraph({Trim{"1.5", "2.25"}}, false);
    const std::optional<std::string> length =
        FFmpegCommandBuilder::duration(Trim{"1.5", "2.25"}, std::nullopt);
    setlocale(LC_ALL, previous.c_str());
    EXPECT_THAT(graph, testing::HasSubstr("trim=start=1.500000:end=2.250000"));
    EXPECT_EQ(length, "0.750000000");
}

TEST(FFmpegCommandBuilder, AudioPlanDecidesMp4AudioArguments) {
    const ConversionOptions& options = Preset::mp4H264().options;
    const auto audioPart = [&](AudioPlan plan, const Trim& trim) {
        ConversionOptions trimmed = options;
        trimmed.trim = trim;
        const Vector all = FFmpegCommandBuilder::mp4Arguments("/s.mov", "/o.mp4", trimmed, plan,
                                                              std::nullopt, "h264");
        // Between the encoder's pixel format and "-movflags".
        const auto from = std::find(all.begin(), all.end(), "yuv420p") + 1;
        const auto to = std::find(all.begin(), all.end(), "-movflags");
        return Vector(from, to);
    };
    const AudioPlan copy{AudioPlan::Mode::copy};
    const AudioPlan transcode{AudioPlan::Mode::transcodeAAC};
    const AudioPlan none{AudioPlan::Mode::none};
    EXPECT_THAT(audioPart(copy, Trim{}), ElementsAre("-c:a", "copy"));
    EXPECT_THAT(audioPart(copy, Trim{std::nullopt, "1"}),
                ElementsAre("-c:a", "aac", "-b:a", "128k"));
    EXPECT_THAT(audioPart(copy, Trim{"1", std::nullopt}),
                ElementsAre("-c:a", "aac", "-b:a", "128k"));
    EXPECT_THAT(audioPart(transcode, Trim{}), ElementsAre("-c:a", "aac", "-b:a", "128k"));
    EXPECT_THAT(audioPart(none, Trim{}), ElementsAre("-an"));
    EXPECT_THAT(audioPart(none, Trim{"1", "2"}), ElementsAre("-an"));
}

TEST(FFmpegCommandBuilder, GifsicleLossiness) {
    ConversionOptions options = Preset::gifFull().options;
    options.lossy = GifLossy::atLevel(0);
    EXPECT_THAT(FFmpegCommandBuilder::gifsicleArguments("/w/in.gif", "/w/out.gif", options),
                ElementsAre("--lossy=0", "-O3", "-o", "/w/out.gif", "/w/in.gif"));
    options.lossy = GifLossy::defaultLossiness();
    EXPECT_THAT(FFmpegCommandBuilder::gifsicleArguments("/w/in.gif", "/w/out.gif", options),
                ElementsAre("--lossy", "-O3", "-o", "/w/out.gif", "/w/in.gif"));
}

TEST(HardwareEncoderBlock, NvencQualityMapsLinearlyOntoConstantQuality) {
    const auto cq = [](int quality) {
        const HardwareEncoderBlock block = defaultHardwareEncoderBlock(VideoCodec::h264VT, quality);
        EXPECT_EQ(block.filterSuffix, std::nullopt);
        const auto at = std::find(block.arguments.begin(), block.arguments.end(), "-cq");
        return at == block.arguments.end() ? std::string() : *(at + 1);
    };
    EXPECT_EQ(cq(1), "51");
    EXPECT_EQ(cq(100), "1");
    EXPECT_EQ(cq(50), "26");
    EXPECT_EQ(cq(51), "26");
    EXPECT_EQ(cq(52), "25");
    EXPECT_EQ(cq(0), "51");
    EXPECT_EQ(cq(-7), "51");
    EXPECT_EQ(cq(101), "1");
    EXPECT_THAT(defaultHardwareEncoderBlock(VideoCodec::hevcVT, 100).arguments,
                ElementsAre("-c:v", "hevc_nvenc", "-rc", "vbr", "-cq", "1", "-b:v", "0"));
}

TEST(AudioExtraction, DefaultAacWithoutTrim) {
    const AudioExtractionOptions options =
        AudioExtractionOptions::make(AudioExtractionCodec::aac, 192);
    EXPECT_THAT(FFmpegCommandBuilder::audioExtractionArguments("/in/a.mov", "/w/a-audio.m4a",
                                                               options, std::nullopt),
                ElementsAre("-y", "-nostdin", "-v", "error", "-i", "/in/a.mov", "-vn", "-map",
                            "0:a:0", "-map_metadata", "0", "-c:a", "aac", "-b:a", "192k",
                            "-movflags", "+faststart", "-progress", "pipe:1", "/w/a-audio.m4a"));
}

TEST(AudioExtraction, TrimDropsChaptersAndBitrateIsForAacOnly) {
    const AudioExtractionOptions pcm = AudioExtractionOptions::make(
        AudioExtractionCodec::pcmS16LE, 320, 16000, 1, Trim{"0:01", "2.5"});
    EXPECT_THAT(
        FFmpegCommandBuilder::audioExtractionArguments("/in/a.mov", "/w/a.wav", pcm, std::nullopt),
        ElementsAre("-y", "-nostdin", "-v", "error", "-ss", "0:01", "-to", "2.5", "-i", "/in/a.mov",
                    "-vn", "-map", "0:a:0", "-map_metadata", "0", "-map_chapters", "-1", "-ar",
                    "16000", "-ac", "1", "-c:a", "pcm_s16le", "-progress", "pipe:1", "/w/a.wav"));

    const AudioExtractionOptions flac = AudioExtractionOptions::make(
        AudioExtractionCodec::flac, 320, std::nullopt, 2, Trim{std::nullopt, "3"});
    EXPECT_THAT(
        FFmpegCommandBuilder::audioExtractionArguments("/in/a.mov", "/w/a.flac", flac,
                                                       std::nullopt),
        ElementsAre("-y", "-nostdin", "-v", "error", "-to", "3", "-i", "/in/a.mov", "-vn", "-map",
                    "0:a:0", "-map_metadata", "0", "-map_chapters", "-1", "-ac", "2", "-c:a",
                    "flac", "-sample_fmt", "s16", "-progress", "pipe:1", "/w/a.flac"));
}

TEST(AudioExtraction, WhitelistStandsAfterTheSeekAndBeforeTheInput) {
    const AudioExtractionOptions options = AudioExtractionOptions::make(
        AudioExtractionCodec::aac, 64, std::nullopt, std::nullopt, Trim{"5", std::nullopt});
    EXPECT_THAT(
        FFmpegCommandBuilder::audioExtractionArguments("/in/a.mkv", "/w/o.m4a", options,
                                                       "mov,matroska"),
        ElementsAre("-y", "-nostdin", "-v", "error", "-ss", "5", "-format_whitelist",
                    "mov,matroska", "-protocol_whitelist", "file", "-i", "/in/a.mkv", "-vn", "-map",
                    "0:a:0", "-map_metadata", "0", "-map_chapters", "-1", "-c:a", "aac", "-b:a",
                    "64k", "-movflags", "+faststart", "-progress", "pipe:1", "/w/o.m4a"));
}

// Misuse the layers above must prevent stops the process.
using FFmpegCommandBuilderDeathTest = testing::Test;

TEST_F(FFmpegCommandBuilderDeathTest, Vp9InMp4) {
    ConversionOptions options;
    options.format = OutputFormat::mp4(VideoCodec::vp9);
    EXPECT_DEATH((void)FFmpegCommandBuilder::mp4Arguments("/s", "/o", options, {}, std::nullopt,
                                                          std::nullopt),
                 "programmer error: vp9 cannot go into an MP4");
}

TEST_F(FFmpegCommandBuilderDeathTest, WebmNeedsVp9) {
    ConversionOptions options;
    options.format = OutputFormat::webm(VideoCodec::av1);
    EXPECT_DEATH((void)FFmpegCommandBuilder::webmArguments("/s", "/o", options, {}, std::nullopt,
                                                           std::nullopt),
                 "needs webm\\(vp9\\)");
    options.format = OutputFormat::mp4(VideoCodec::vp9);
    EXPECT_DEATH((void)FFmpegCommandBuilder::webmArguments("/s", "/o", options, {}, std::nullopt,
                                                           std::nullopt),
                 "needs webm\\(vp9\\)");
}

TEST_F(FFmpegCommandBuilderDeathTest, BadJoinRanges) {
    EXPECT_DEATH((void)FFmpegCommandBuilder::joinGraph({}, false), "1 to 500 ranges, got 0");
    EXPECT_DEATH((void)FFmpegCommandBuilder::joinGraph(
                     std::vector<Trim>(kMaximumJoinRanges + 1, Trim{"0", "1"}), false),
                 "got 501");
    EXPECT_DEATH(
        (void)FFmpegCommandBuilder::joinGraph({Trim{"0", "1"}, Trim{std::nullopt, "2"}}, true),
        "join range 1");
    EXPECT_DEATH((void)FFmpegCommandBuilder::joinGraph({Trim{"0", "-1"}}, true), "join range 0");
    EXPECT_DEATH((void)FFmpegCommandBuilder::joinGraph({Trim{"inf", "1"}}, true), "join range 0");
    // A join reaches the graph through every format.
    ConversionOptions gif;
    gif.format = OutputFormat::gif();
    EXPECT_DEATH((void)FFmpegCommandBuilder::gifPaletteArguments("/s", "/p", gif,
                                                                 std::vector<Trim>{}, std::nullopt),
                 "got 0");
}

TEST_F(FFmpegCommandBuilderDeathTest, DefaultHardwareBlockOnlyForHardwareCodecs) {
    EXPECT_DEATH((void)defaultHardwareEncoderBlock(VideoCodec::h264, 50),
                 "no hardware encoder block for libx264");
}

}  // namespace
}  // namespace tessarin::engine
