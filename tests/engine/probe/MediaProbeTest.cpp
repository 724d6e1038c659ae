#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <thread>

#include "engine/probe/MediaProbe.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

using test::TestClip;
using test::testClip;
using ::testing::ElementsAre;
using ::testing::Optional;

using test::helperTools;

MediaInfo probeClip(TestClip clip, bool includeChapters = false) {
    ProcessRunner runner;
    return MediaProbe::probe(testClip(clip), helperTools(), MediaInputPolicy::unrestricted, runner,
                             MediaProbe::kTimeoutSeconds, includeChapters);
}

MediaProbeError::Kind errorKind(const std::function<void()>& body) {
    try {
        body();
    } catch (const MediaProbeError& error) {
        return error.kind;
    }
    ADD_FAILURE() << "no MediaProbeError thrown";
    return MediaProbeError::Kind::unparseableOutput;
}

TEST(MediaProbe, ArgumentsFollowTheFixedOrder) {
    EXPECT_THAT(MediaProbe::arguments("/a b/c.mp4", false, false),
                ElementsAre("-v", "error", "-print_format", "json", "-show_format", "-show_streams",
                            "/a b/c.mp4"));
    const auto restricted = MediaProbe::arguments("c.mp4", true, true);
    ASSERT_EQ(restricted.size(), 12u);
    EXPECT_EQ(restricted[6], "-show_chapters");
    EXPECT_EQ(restricted[7], "-format_whitelist");
    EXPECT_EQ(restricted[8],
              "mov,matroska,avi,asf,asf_o,flv,live_flv,kux,mpegts,mpeg,mpegvideo,dv,ogg,nut,mxf,"
              "gxf,rm,wav,w64,flac,aac,ac3,eac3,dts,dtshd,mp3,aiff,caf,amr,amrnb,amrwb,ape,tta,wv,"
              "au,voc,ivf,mjpeg,srt,ass");
    EXPECT_EQ(restricted[9], "-protocol_whitelist");
    EXPECT_EQ(restricted[10], "file");
    EXPECT_EQ(restricted[11], "c.mp4");
}

TEST(MediaProbe, ReadsTheFactsOfEveryTestClip) {
    const MediaInfo h264 = probeClip(TestClip::h264Aac);
    EXPECT_EQ(h264.videoCodec, "h264");
    EXPECT_EQ(h264.width, 160);
    EXPECT_EQ(h264.height, 120);
    EXPECT_TRUE(h264.hasAudio);
    EXPECT_EQ(h264.audioCodec, "aac");
    EXPECT_THAT(h264.durationSeconds, Optional(::testing::DoubleNear(1.0, 0.1)));
    EXPECT_EQ(h264.videoFrameCount, 10);
    EXPECT_FALSE(h264.isHDR);
    ASSERT_EQ(h264.tracks.size(), 2u);
    EXPECT_EQ(h264.tracks[1].kind, "audio");

    const MediaInfo silent = probeClip(TestClip::h264NoAudio);
    EXPECT_FALSE(silent.hasAudio);
    EXPECT_EQ(silent.audioCodec, std::nullopt);

    const MediaInfo webm = probeClip(TestClip::vp9Opus);
    EXPECT_EQ(webm.videoCodec, "vp9");
    EXPECT_EQ(webm.audioCodec, "opus");
    EXPECT_THAT(webm.container, Optional(::testing::HasSubstr("webm")));

    EXPECT_EQ(probeClip(TestClip::hevc).videoCodec, "hevc");
    EXPECT_EQ(probeClip(TestClip::av1).videoCodec, "av1");
    EXPECT_EQ(probeClip(TestClip::h264Opus).audioCodec, "opus");

    const MediaInfo odd = probeClip(TestClip::oddDimensions);
    EXPECT_EQ(odd.width, 321);
    EXPECT_EQ(odd.height, 241);

    // Ten-bit SDR counts as HDR because it may need tone mapping.
    const MediaInfo tenBit = probeClip(TestClip::tenBit);
    EXPECT_EQ(tenBit.videoCodec, "h264");
    EXPECT_TRUE(tenBit.isHDR);
}

TEST(MediaProbe, CoverArtIsNotAPrimaryVideoStream) {
    const MediaInfo info = probeClip(TestClip::coverArtAudio);
    EXPECT_EQ(info.videoCodec, std::nullopt);
    EXPECT_EQ(info.width, std::nullopt);
    EXPECT_THAT(info.videoCodecs, ElementsAre(Optional(std::string("png"))));
    EXPECT_TRUE(info.hasAudio);
    const auto picture =
        std::find_if(info.tracks.begin(), info.tracks.end(),
                     [](const MediaTrack& track) { return track.kind == "video"; });
    ASSERT_NE(picture, info.tracks.end());
    EXPECT_TRUE(picture->attachedPicture);
}

TEST(MediaProbe, ChaptersOnlyWhenAskedFor) {
    EXPECT_TRUE(probeClip(TestClip::chapters, false).chapters.empty());
    const MediaInfo info = probeClip(TestClip::chapters, true);
    ASSERT_EQ(info.chapters.size(), 3u);
    EXPECT_EQ(info.chapters[0].title, "Opening");
    EXPECT_EQ(info.chapters[1].start, "1.000000");
    EXPECT_EQ(info.chapters[1].end, "2.000000");
    EXPECT_EQ(info.chapters[2].title, "Finale");
}

TEST(MediaProbe, TimelineThatDoesNotStartAtZero) {
    const MediaInfo info = probeClip(TestClip::offsetTimeline);
    EXPECT_THAT(info.timelineStart, Optional(::testing::Gt(9.0)));
    EXPECT_THAT(info.videoStart, Optional(::testing::Gt(9.0)));
    EXPECT_EQ(info.container, "mpegts");
}

TEST(MediaProbe, DecodesCraftedDocumentsTolerantly) {
    const MediaInfo noFormat = MediaProbe::decode(
        R"({"streams":[{"codec_type":"video","codec_name":"h264","width":64,"height":48}]})");
    EXPECT_EQ(noFormat.container, std::nullopt);
    EXPECT_EQ(noFormat.durationSeconds, std::nullopt);
    EXPECT_EQ(noFormat.width, 64);
    EXPECT_EQ(noFormat.tracks.at(0).index, 0);

    const MediaInfo missingIndex = MediaProbe::decode(
        R"({"streams":[{"index":4,"codec_type":"audio"},{"codec_type":"video","tags":{"title":"T","language":"fra"}}]})");
    EXPECT_EQ(missingIndex.tracks.at(0).index, 4);
    EXPECT_EQ(missingIndex.tracks.at(1).index, 1);
    EXPECT_EQ(missingIndex.tracks.at(1).title, "T");
    EXPECT_EQ(missingIndex.tracks.at(1).language, "fra");
    EXPECT_TRUE(missingIndex.hasAudio);
    EXPECT_EQ(missingIndex.audioCodec, std::nullopt);

    const MediaInfo na = MediaProbe::decode(
        R"({"streams":[{"codec_type":"video","duration":"N/A","nb_frames":"N/A","start_time":"-0.1"}],
            "format":{"duration":"N/A","start_time":"-0.1","format_name":"mov"}})");
    EXPECT_EQ(na.durationSeconds, std::nullopt);
    EXPECT_EQ(na.videoDuration, std::nullopt);
    EXPECT_EQ(na.videoFrameCount, std::nullopt);
    EXPECT_THAT(na.timelineStart, Optional(-0.1));
    EXPECT_THAT(na.videoStart, Optional(-0.1));

    const MediaInfo oddNumbers = MediaProbe::decode(
        R"({"streams":[{"codec_type":"video","duration":" 1.0","start_time":"1e1","nb_frames":"9223372036854775808"}],
            "format":{"duration":"inf","start_time":"nan"}})");
    EXPECT_EQ(oddNumbers.videoDuration, std::nullopt);
    EXPECT_THAT(oddNumbers.videoStart, Optional(10.0));
    EXPECT_EQ(oddNumbers.videoFrameCount, std::nullopt);
    EXPECT_EQ(oddNumbers.durationSeconds, std::nullopt);
    EXPECT_EQ(oddNumbers.timelineStart, std::nullopt);

    const MediaInfo negativeDuration =
        MediaProbe::decode(R"({"format":{"duration":"-0.1"},"streams":[]})");
    EXPECT_EQ(negativeDuration.durationSeconds, std::nullopt);

    const MediaInfo frames = MediaProbe::decode(
        R"({"streams":[{"codec_type":"video","nb_frames":"+12"},{"codec_type":"video","nb_frames":"x"}]})");
    EXPECT_EQ(frames.videoFrameCount, 12);
    EXPECT_EQ(frames.videoCodecs.size(), 2u);

    const MediaInfo coverOnly = MediaProbe::decode(
        R"({"streams":[{"codec_type":"video","codec_name":"mjpeg","width":600,"disposition":{"attached_pic":1}},
                       {"codec_type":"video","codec_name":"png","disposition":{"attached_pic":2}}]})");
    // Only exactly 1 marks a picture: the second stream is the primary video.
    EXPECT_EQ(coverOnly.videoCodec, "png");
    EXPECT_TRUE(coverOnly.tracks[0].attachedPicture);
    EXPECT_FALSE(coverOnly.tracks[1].attachedPicture);

    const MediaInfo coverArtOnly = MediaProbe::decode(
        R"({"streams":[{"index":0,"codec_type":"audio","codec_name":"aac"},
                       {"index":1,"codec_type":"video","codec_name":"mjpeg","width":600,
                        "height":600,"disposition":{"default":0,"attached_pic":1}}]})");
    EXPECT_EQ(coverArtOnly.width, std::nullopt);
    EXPECT_EQ(coverArtOnly.videoCodec, std::nullopt);
    EXPECT_THAT(coverArtOnly.videoCodecs, ElementsAre(Optional(std::string("mjpeg"))));
    EXPECT_TRUE(coverArtOnly.tracks.at(1).attachedPicture);
    EXPECT_EQ(coverArtOnly.audioCodec, "aac");

    // null counts as absent; unknown keys, also of unexpected types, are ignored.
    const MediaInfo nulls = MediaProbe::decode(
        R"({"streams":[{"index":null,"codec_type":"video","width":null,"tags":null,
                        "disposition":null,"side_data_list":[{"x":1}]}],
            "format":null,"chapters":null,"extra":true})");
    EXPECT_EQ(nulls.tracks.at(0).index, 0);
    EXPECT_EQ(nulls.width, std::nullopt);
    EXPECT_EQ(nulls.container, std::nullopt);

    const MediaInfo chapters = MediaProbe::decode(
        R"({"chapters":[{"id":0,"start_time":"0.000000","end_time":"1.500000",
                         "tags":{"title":"One"}},{"start_time":"1.500000"}]})");
    EXPECT_THAT(chapters.chapters,
                ElementsAre(MediaChapter{"0.000000", "1.500000", "One"},
                            MediaChapter{"1.500000", std::nullopt, std::nullopt}));

    EXPECT_EQ(MediaProbe::decode("{}"), MediaInfo{});
}

TEST(MediaProbe, HdrFromTransferPrimariesOrDepth) {
    const auto hdr = [](const std::string& stream) {
        return MediaProbe::decode(R"({"streams":[{"codec_type":"video",)" + stream + "}]}").isHDR;
    };
    EXPECT_TRUE(hdr(R"("color_transfer":"smpte2084")"));
    EXPECT_TRUE(hdr(R"("color_transfer":"arib-std-b67")"));
    EXPECT_TRUE(hdr(R"("color_primaries":"bt2020")"));
    EXPECT_TRUE(hdr(R"("pix_fmt":"yuv420p12be")"));
    // Deliberately: a 10-bit SDR source may still need tone mapping.
    EXPECT_TRUE(
        hdr(R"("pix_fmt":"yuv420p10le","color_transfer":"bt709","color_primaries":"bt709")"));
    EXPECT_FALSE(hdr(R"("pix_fmt":"yuv420p","color_transfer":"bt709")"));
    // HDR is judged on the primary video stream only.
    EXPECT_FALSE(
        MediaProbe::decode(
            R"({"streams":[{"codec_type":"video","pix_fmt":"yuv420p10le","disposition":{"attached_pic":1}}]})")
            .isHDR);
}

TEST(MediaProbe, RefusesWhatIsNotAnFfprobeDocument) {
    // A known key holding a type ffprobe never writes there means the bytes are something else.
    for (const char* text : {"",
                             "not json",
                             "[1,2]",
                             "null",
                             R"({"streams":[)",
                             "{} trailing",
                             R"({"streams":{}})",
                             R"({"format":[]})",
                             R"({"chapters":"x"})",
                             R"({"streams":[5]})",
                             R"({"streams":[{"codec_type":7}]})",
                             R"({"streams":[{"index":"3"}]})",
                             R"({"streams":[{"index":1.5}]})",
                             R"({"streams":[{"width":"64"}]})",
                             R"({"streams":[{"index":18446744073709551615}]})",
                             R"({"streams":[{"tags":{"title":5}}]})",
                             R"({"streams":[{"tags":{"other":[]}}]})",
                             R"({"streams":[{"disposition":{"attached_pic":"1"}}]})",
                             R"({"streams":[{"nb_frames":12}]})",
                             R"({"format":{"duration":1.0}})",
                             R"({"chapters":[{"tags":{"title":null}}]})"}) {
        EXPECT_EQ(errorKind([&] { (void)MediaProbe::decode(text); }),
                  MediaProbeError::Kind::unparseableOutput)
            << text;
    }
    // The JSON reader takes a NUL byte for the end of the input: ffprobe's empty document
    // followed by NULs is not a document either.
    EXPECT_EQ(errorKind([] { (void)MediaProbe::decode(std::string_view("{\n\n}\n\0\0", 7)); }),
              MediaProbeError::Kind::unparseableOutput);
}

TEST(MediaProbe, MapsToolFailures) {
    test::TempDir folder;
    const auto garbage = folder / "garbage.mp4";
    std::ofstream(garbage) << "this is not a video";
    ProcessRunner runner;
    try {
        (void)MediaProbe::probe(garbage, helperTools(), MediaInputPolicy::unrestricted, runner);
        FAIL() << "probe of garbage succeeded";
    } catch (const MediaProbeError& error) {
        EXPECT_EQ(error.kind, MediaProbeError::Kind::ffprobeFailed);
        EXPECT_NE(error.exitCode, 0);
        EXPECT_THAT(error.stderrText, ::testing::HasSubstr("Invalid data"));
    }

    Tools missing = helperTools();
    missing.ffprobe = folder / "no-such-ffprobe";
    ProcessRunner launchFails;
    try {
        (void)MediaProbe::probe(testClip(TestClip::h264Aac), missing,
                                MediaInputPolicy::unrestricted, launchFails);
        FAIL() << "probe with a missing ffprobe succeeded";
    } catch (const MediaProbeError& error) {
        EXPECT_EQ(error.kind, MediaProbeError::Kind::ffprobeFailed);
        EXPECT_EQ(error.exitCode, -1);
    }
}

// A stand-in ffprobe that behaves badly in one way each.
Tools toolsWithFakeProbe(const test::TempDir& folder, const std::string& script) {
    Tools tools = helperTools();
    tools.ffprobe = folder / "ffprobe";
    std::ofstream(tools.ffprobe) << "#!/bin/sh\n" << script << "\n";
    std::filesystem::permissions(tools.ffprobe, std::filesystem::perms::owner_all);
    return tools;
}

TEST(MediaProbe, OversizedTimedOutAndCancelledRuns) {
    test::TempDir folder;
    const Tools flood = toolsWithFakeProbe(folder, "head -c 5000000 /dev/zero");
    ProcessRunner floodRunner;
    EXPECT_EQ(errorKind([&] {
                  (void)MediaProbe::probe("x", flood, MediaInputPolicy::unrestricted, floodRunner);
              }),
              MediaProbeError::Kind::outputTooLarge);

    // A failing exit outranks the overflow: the exit status is the better explanation.
    test::TempDir failingFolder;
    const Tools failingFlood =
        toolsWithFakeProbe(failingFolder, "head -c 5000000 /dev/zero\necho broken >&2\nexit 3");
    ProcessRunner failingRunner;
    try {
        (void)MediaProbe::probe("x", failingFlood, MediaInputPolicy::unrestricted, failingRunner);
        FAIL() << "a failing ffprobe gave a result";
    } catch (const MediaProbeError& error) {
        EXPECT_EQ(error.kind, MediaProbeError::Kind::ffprobeFailed);
        EXPECT_EQ(error.exitCode, 3);
        EXPECT_EQ(error.stderrText, "broken");
    }

    test::TempDir slowFolder;
    const Tools slow = toolsWithFakeProbe(slowFolder, "exec sleep 30");
    ProcessRunner slowRunner;
    EXPECT_EQ(errorKind([&] {
                  (void)MediaProbe::probe("x", slow, MediaInputPolicy::unrestricted, slowRunner,
                                          0.5);
              }),
              MediaProbeError::Kind::timedOut);

    ProcessRunner cancelledBefore;
    cancelledBefore.cancel(ProcessRunner::kUserCancelGrace);
    EXPECT_EQ(errorKind([&] {
                  (void)MediaProbe::probe("x", slow, MediaInputPolicy::unrestricted,
                                          cancelledBefore);
              }),
              MediaProbeError::Kind::cancelled);
}

TEST(MediaProbe, CancelWhileFfprobeRuns) {
    test::TempDir folder;
    // The stand-in announces through a FIFO that it runs, so the cancel lands mid-run.
    const auto started = folder / "started";
    ASSERT_EQ(::mkfifo(started.c_str(), 0600), 0);
    const Tools tools =
        toolsWithFakeProbe(folder, "echo up > '" + started.string() + "'\nexec sleep 30");
    ProcessRunner runner;
    bool sawStart = false;
    std::thread canceller([&] {
        // Opening a FIFO without blocking succeeds at once; poll then waits for the writer.
        const int fd = ::open(started.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            pollfd readable{fd, POLLIN, 0};
            sawStart = ::poll(&readable, 1, 20'000) == 1;
            ::close(fd);
        }
        runner.cancel(ProcessRunner::kUserCancelGrace);
    });
    const auto kind = errorKind(
        [&] { (void)MediaProbe::probe("x", tools, MediaInputPolicy::unrestricted, runner); });
    canceller.join();
    EXPECT_TRUE(sawStart);
    EXPECT_EQ(kind, MediaProbeError::Kind::cancelled);
    ASSERT_TRUE(runner.cancellationOutcome().has_value());
    EXPECT_NE(runner.cancellationOutcome()->escalation, Escalation::notLaunched);
}

TEST(MediaProbe, SerialisesUnderTheFieldNames) {
    MediaInfo info;
    info.tracks = {MediaTrack{0, "video", "h264", std::nullopt, "eng", false}};
    info.width = 160;
    info.durationSeconds = 1.5;
    info.chapters = {MediaChapter{"0.000000", "1.000000", "One"}};
    info.videoCodecs = {"h264", std::nullopt};
    const nlohmann::ordered_json json = toJson(info);
    std::vector<std::string> keys;
    for (const auto& item : json.items()) {
        keys.push_back(item.key());
    }
    EXPECT_THAT(
        keys, ElementsAre("tracks", "videoCodec", "videoStart", "videoDuration", "container",
                          "timelineStart", "durationSeconds", "videoFrameCount", "width", "height",
                          "hasAudio", "audioCodec", "chapters", "videoCodecs", "isHDR"));
    EXPECT_EQ(json["tracks"][0].dump(),
              R"({"index":0,"kind":"video","codec":"h264","title":null,"language":"eng",)"
              R"("attachedPicture":false})");
    EXPECT_EQ(json["chapters"][0].dump(), R"({"start":"0.000000","end":"1.000000","title":"One"})");
    EXPECT_EQ(json["videoCodecs"].dump(), R"(["h264",null])");
    EXPECT_EQ(json["width"], 160);
    EXPECT_EQ(json["durationSeconds"], 1.5);
    EXPECT_TRUE(json["height"].is_null());
    EXPECT_EQ(json["hasAudio"], false);
}

TEST(MediaProbe, PolicyRejectionOnlyUnderTheTranscriptionPolicy) {
    test::TempDir folder;
    // A GIF is a real media file outside the allow-list.
    const auto gif = test::makeClip("policy.gif",
                                    {"-f", "lavfi", "-i", "testsrc2=size=32x32:rate=5:duration=1"});
    ProcessRunner runner;
    try {
        (void)MediaProbe::probe(gif, helperTools(), MediaInputPolicy::transcription, runner);
        FAIL() << "a GIF passed the transcription allow-list";
    } catch (const MediaProbeError& error) {
        EXPECT_EQ(error.kind, MediaProbeError::Kind::ffprobeFailed);
        EXPECT_TRUE(
            MediaProbe::isPolicyRejection(error.stderrText, MediaInputPolicy::transcription))
            << error.stderrText;
        EXPECT_FALSE(
            MediaProbe::isPolicyRejection(error.stderrText, MediaInputPolicy::unrestricted));
    }
    ProcessRunner allowed;
    EXPECT_EQ(MediaProbe::probe(testClip(TestClip::h264Aac), helperTools(),
                                MediaInputPolicy::transcription, allowed)
                  .videoCodec,
              "h264");
}

}  // namespace
}  // namespace tessarin::engine
