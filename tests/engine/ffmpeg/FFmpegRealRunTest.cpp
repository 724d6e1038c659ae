// Feeds every golden vector to the real ffmpeg (and gifsicle) on tiny generated clips and
// probes the result back: a vector that reads right but that ffmpeg refuses, or that
// yields the wrong stream, fails here.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/ffmpeg/FFmpegCommandBuilder.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"
#include "tests/engine/ffmpeg/GoldenRows.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using golden::SourceAudio;
using Vector = std::vector<std::string>;

// The allow-list of the transcription input policy, written out here rather than shared.
constexpr const char* kTranscriptionFormats =
    "mov,matroska,avi,asf,asf_o,flv,live_flv,kux,mpegts,mpeg,mpegvideo,dv,ogg,nut,mxf,gxf,rm,wav,"
    "w64,flac,aac,ac3,eac3,dts,dtshd,mp3,aiff,caf,amr,amrnb,amrwb,ape,tta,wv,au,voc,ivf,mjpeg,srt,"
    "ass";

constexpr double kRunTimeout = 60;

const Tools& tools() {
    static const Tools located = [] {
        if (std::optional<Tools> fromEnvironment = Tools::fromEnvironment()) {
            return *fromEnvironment;
        }
        std::optional<Tools> inHelperFolder = Tools::inBundle(test::helperDirectory());
        if (!inHelperFolder) {
            std::abort();
        }
        return *inHelperFolder;
    }();
    return located;
}

// One-second 160x120 clips at 10 frames a second.
fs::path sourceClip(SourceAudio audio, const std::string& videoCodec) {
    if (videoCodec == "av1") {
        EXPECT_EQ(audio, SourceAudio::aac) << "the AV1 clip carries AAC";
        return test::testClip(test::TestClip::av1);
    }
    switch (audio) {
        case SourceAudio::aac:
            return test::testClip(test::TestClip::h264Aac);
        case SourceAudio::opus:
            return test::testClip(test::TestClip::h264Opus);
        case SourceAudio::none:
            return test::testClip(test::TestClip::h264NoAudio);
    }
    return {};
}

struct RunOutcome {
    ProcessResult result;
    std::string describe() const {
        return "exit " + std::to_string(result.exitCode) + ": " + result.stderrTail;
    }
};

RunOutcome run(const fs::path& executable, const Vector& arguments) {
    ProcessRunner runner;
    return {runner.run(executable, arguments, /*captureStdout=*/true, /*mergeStderr=*/false,
                       kRunTimeout)};
}

struct Probed {
    std::optional<std::string> videoCodec;
    std::optional<std::string> audioCodec;
    double seconds = 0;
};

Probed probe(const fs::path& file) {
    const RunOutcome outcome = run(tools().ffprobe, {"-v", "error", "-show_entries",
                                                     "stream=codec_type,codec_name:format=duration",
                                                     "-of", "json", file.string()});
    EXPECT_EQ(outcome.result.exitCode, 0) << outcome.describe();
    Probed probed;
    const nlohmann::json document =
        nlohmann::json::parse(outcome.result.stdoutData.value_or("{}"), nullptr, false);
    if (document.is_discarded()) {
        ADD_FAILURE() << "ffprobe printed no JSON for " << file;
        return probed;
    }
    for (const nlohmann::json& stream : document.value("streams", nlohmann::json::array())) {
        const std::string type = stream.value("codec_type", "");
        std::optional<std::string>& slot = type == "video"   ? probed.videoCodec
                                           : type == "audio" ? probed.audioCodec
                                                             : probed.videoCodec;
        if ((type == "video" || type == "audio") && !slot) {
            slot = stream.value("codec_name", "");
        }
    }
    if (document.contains("format")) {
        probed.seconds = std::atof(document["format"].value("duration", "0").c_str());
    }
    return probed;
}

// Whether this machine can run the encoder block at all; the answer is the reason if not.
std::optional<std::string> hardwareUnavailable(const HardwareEncoderBlock& block) {
    static std::mutex mutex;
    static std::map<Vector, std::optional<std::string>> answers;
    const std::lock_guard lock(mutex);
    const auto known = answers.find(block.arguments);
    if (known != answers.end()) {
        return known->second;
    }
    Vector arguments = {"-y", "-nostdin", "-v", "error",
                        "-f", "lavfi",    "-i", "testsrc2=size=160x120:rate=10:duration=0.3"};
    if (block.filterSuffix) {
        arguments.insert(arguments.end(), {"-vf", *block.filterSuffix});
    }
    arguments.insert(arguments.end(), block.arguments.begin(), block.arguments.end());
    arguments.insert(arguments.end(), {"-f", "null", "-"});
    const RunOutcome outcome = run(tools().ffmpeg, arguments);
    std::optional<std::string> reason;
    if (outcome.result.exitCode != 0) {
        reason = "no working hardware encoder here (" + block.arguments.at(1) +
                 " test encode failed: " + outcome.describe() + ")";
    }
    answers.emplace(block.arguments, reason);
    return reason;
}

std::string extensionFor(const OutputFormat& format) {
    switch (format.kind) {
        case OutputFormat::Kind::mp4:
            return ".mp4";
        case OutputFormat::Kind::webm:
            return ".webm";
        case OutputFormat::Kind::gif:
            return ".gif";
    }
    return "";
}

class RealRun : public testing::TestWithParam<golden::Row> {};

TEST_P(RealRun, ProducesAPlayableFile) {
    const golden::Row& row = GetParam();
    if (row.needsHardware) {
        const HardwareEncoderBlock block =
            row.hardware ? *row.hardware
                         : defaultHardwareEncoderBlock(
                               row.options.format.codec,
                               row.options.crf.value_or(defaultQuality(row.options.format.codec)));
        if (std::optional<std::string> reason = hardwareUnavailable(block)) {
            GTEST_SKIP() << *reason;
        }
    }

    const test::TempDir folder;
    golden::Paths paths;
    paths.source = sourceClip(row.audio, row.sourceVideoCodec);
    paths.output = folder.path() / ("result" + extensionFor(row.options.format));
    paths.palette = folder.path() / "palette.png";
    paths.renderedGif = folder.path() / "rendered.gif";

    const std::vector<Vector> vectors = golden::buildFFmpeg(row, paths);
    ASSERT_EQ(vectors.size(), row.ffmpeg.size());
    for (std::size_t i = 0; i < vectors.size(); ++i) {
        ASSERT_EQ(vectors[i], golden::expand(row.ffmpeg[i], paths));
        const RunOutcome outcome = run(tools().ffmpeg, vectors[i]);
        ASSERT_EQ(outcome.result.exitCode, 0) << "ffmpeg run " << i << ": " << outcome.describe();
        ASSERT_FALSE(outcome.result.wasCancelled);
        // The progress stream the job reads ends with this line.
        EXPECT_NE(outcome.result.stdoutData.value_or("").find("progress=end"), std::string::npos);
    }
    if (row.options.format.isGif()) {
        ASSERT_GT(fs::file_size(paths.palette), 0u);
        const Vector gifsicle =
            FFmpegCommandBuilder::gifsicleArguments(paths.renderedGif, paths.output, row.options);
        ASSERT_EQ(gifsicle, golden::expand(row.gifsicle, paths));
        const RunOutcome outcome = run(tools().gifsicle, gifsicle);
        ASSERT_EQ(outcome.result.exitCode, 0) << "gifsicle: " << outcome.describe();
    }

    const Probed probed = probe(paths.output);
    EXPECT_EQ(probed.videoCodec, row.outputCodec);
    EXPECT_GT(probed.seconds, 0);
    EXPECT_NEAR(probed.seconds, row.outputSeconds, 0.35);
    std::optional<std::string> audioCodec;
    if (row.audio != SourceAudio::none && !row.options.format.isGif()) {
        audioCodec = row.options.format.kind == OutputFormat::Kind::webm ? "opus" : "aac";
    }
    EXPECT_EQ(probed.audioCodec, audioCodec);
}

INSTANTIATE_TEST_SUITE_P(Rows, RealRun, testing::ValuesIn(golden::rows()),
                         [](const testing::TestParamInfo<golden::Row>& info) {
                             return info.param.name;
                         });

struct ExtractionCase {
    const char* name;
    AudioExtractionOptions options;
    const char* codec;
    double seconds;
};

void PrintTo(const ExtractionCase& row, std::ostream* out) {
    *out << row.name;
}

class RealAudioExtraction : public testing::TestWithParam<ExtractionCase> {};

TEST_P(RealAudioExtraction, WritesTheFirstAudioTrack) {
    const ExtractionCase& row = GetParam();
    const test::TempDir folder;
    const fs::path output = folder.path() / ("a" + row.options.naming.filenameSuffix + "." +
                                             row.options.naming.fileExtension);
    const RunOutcome outcome =
        run(tools().ffmpeg, FFmpegCommandBuilder::audioExtractionArguments(
                                sourceClip(SourceAudio::opus, "h264"), output, row.options,
                                std::string(kTranscriptionFormats)));
    ASSERT_EQ(outcome.result.exitCode, 0) << outcome.describe();
    const Probed probed = probe(output);
    EXPECT_EQ(probed.videoCodec, std::nullopt);
    EXPECT_EQ(probed.audioCodec, row.codec);
    EXPECT_NEAR(probed.seconds, row.seconds, 0.15);
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, RealAudioExtraction,
    testing::Values(
        ExtractionCase{"aac", AudioExtractionOptions::make(AudioExtractionCodec::aac, 96), "aac",
                       1.0},
        ExtractionCase{"pcmTrimmedMono16k",
                       AudioExtractionOptions::make(AudioExtractionCodec::pcmS16LE, 96, 16000, 1,
                                                    Trim{"0.25", "0.75"}),
                       "pcm_s16le", 0.5},
        ExtractionCase{"flacEndOnly",
                       AudioExtractionOptions::make(AudioExtractionCodec::flac, 96, std::nullopt,
                                                    std::nullopt, Trim{std::nullopt, "0.5"}),
                       "flac", 0.5}),
    [](const testing::TestParamInfo<ExtractionCase>& info) { return info.param.name; });

// A container outside the allow-list is refused by ffmpeg itself.
TEST(RealAudioExtraction, WhitelistRefusesOtherContainers) {
    const fs::path sox = test::makeClip(
        "builder-tone.sox",
        {"-f", "lavfi", "-i", "sine=frequency=440:sample_rate=8000:duration=0.5", "-f", "sox"});
    const test::TempDir folder;
    const RunOutcome outcome =
        run(tools().ffmpeg, FFmpegCommandBuilder::audioExtractionArguments(
                                sox, folder.path() / "tone.m4a",
                                AudioExtractionOptions::make(AudioExtractionCodec::aac, 96),
                                std::string(kTranscriptionFormats)));
    EXPECT_NE(outcome.result.exitCode, 0);
    EXPECT_NE(outcome.result.stderrTail.find("not on whitelist"), std::string::npos)
        << outcome.result.stderrTail;
}

}  // namespace
}  // namespace tessarin::engine
