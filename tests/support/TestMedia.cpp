#include "tests/support/TestMedia.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "engine/probe/MediaProbe.hpp"
#include "engine/process/ProcessRunner.hpp"

namespace tessarin::test {

namespace fs = std::filesystem;

namespace {

const std::vector<std::string> kPattern = {"-f", "lavfi", "-i",
                                           "testsrc2=size=160x120:rate=10:duration=1"};
const std::vector<std::string> kTone = {"-f", "lavfi", "-i",
                                        "sine=frequency=440:sample_rate=48000:duration=1"};

std::vector<std::string> join(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

const std::vector<std::string> kX264 = {"-c:v",      "libx264",  "-preset",
                                        "ultrafast", "-pix_fmt", "yuv420p"};
const std::vector<std::string> kAac = {"-c:a", "aac", "-b:a", "64k"};
const std::vector<std::string> kOpus = {"-c:a", "libopus", "-b:a", "48k"};

// FNV-1a, so that a recipe names the same file whatever the standard library's hash does.
uint64_t recipeHash(std::string_view recipe) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (const char c : recipe) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

fs::path cacheDirectory() {
    const fs::path directory = TESSARIN_TEST_CACHE_DIR;
    fs::create_directories(directory);
    return directory;
}

void runFfmpeg(const std::vector<std::string>& arguments) {
    engine::ProcessRunner runner;
    const engine::ProcessResult result =
        runner.run(helperDirectory() / "ffmpeg", arguments, false, false, 120.0);
    if (result.exitCode != 0 || result.wasCancelled) {
        ADD_FAILURE() << "ffmpeg failed making a test clip (exit " << result.exitCode
                      << "): " << result.stderrTail;
        throw std::runtime_error("test clip generation failed");
    }
}

// Chapters come from an ffmetadata file, named by its content like the clips.
fs::path chapterMetadata() {
    const std::string content =
        ";FFMETADATA1\n"
        "[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1000\ntitle=Opening\n"
        "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1000\nEND=2000\ntitle=Middle part\n"
        "[CHAPTER]\nTIMEBASE=1/1000\nSTART=2000\nEND=3000\ntitle=Finale\n";
    const fs::path path =
        cacheDirectory() / fmt::format("chapters-{:016x}.ffmetadata", recipeHash(content));
    if (!fs::exists(path)) {
        const fs::path temporary = path.string() + fmt::format(".{}.{}.tmp", getpid(), gettid());
        std::ofstream(temporary, std::ios::binary) << content;
        fs::rename(temporary, path);
    }
    return path;
}

fs::path coverPicture() {
    return makeClip("cover.png",
                    {"-f", "lavfi", "-i", "testsrc2=size=64x64:duration=1", "-frames:v", "1"});
}

}  // namespace

fs::path helperDirectory() {
    return TESSARIN_HELPER_DIR;
}

engine::Tools helperTools() {
    const fs::path folder = helperDirectory();
    return engine::Tools{folder / "ffmpeg", folder / "ffprobe", folder / "gifsicle", std::nullopt};
}

fs::path makeClip(const std::string& name, const std::vector<std::string>& ffmpegArguments) {
    std::string recipe = name;
    for (const std::string& argument : ffmpegArguments) {
        recipe += '\x1f';
        recipe += argument;
    }
    const fs::path extension = fs::path(name).extension();
    const fs::path target =
        cacheDirectory() / fmt::format("{}-{:016x}{}", fs::path(name).stem().string(),
                                       recipeHash(recipe), extension.string());
    if (fs::exists(target)) {
        return target;
    }
    const fs::path temporary =
        target.parent_path() /
        fmt::format(".{}.{}.{}{}", target.stem().string(), getpid(), gettid(), extension.string());
    std::vector<std::string> arguments = {"-y", "-nostdin", "-v", "error"};
    arguments.insert(arguments.end(), ffmpegArguments.begin(), ffmpegArguments.end());
    arguments.push_back(temporary.string());
    try {
        runFfmpeg(arguments);
    } catch (...) {
        std::error_code ignored;
        fs::remove(temporary, ignored);
        throw;
    }
    fs::rename(temporary, target);
    return target;
}

fs::path testClip(TestClip clip) {
    switch (clip) {
        case TestClip::h264Aac:
            return makeClip("h264-aac.mp4", join({kPattern, kTone, kX264, kAac, {"-shortest"}}));
        case TestClip::h264NoAudio:
            return makeClip("h264-silent.mp4", join({kPattern, kX264}));
        case TestClip::h264Opus:
            return makeClip("h264-opus.mkv", join({kPattern, kTone, kX264, kOpus, {"-shortest"}}));
        case TestClip::vp9Opus:
            return makeClip("vp9-opus.webm",
                            join({kPattern,
                                  kTone,
                                  {"-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8",
                                   "-b:v", "200k", "-pix_fmt", "yuv420p"},
                                  kOpus,
                                  {"-shortest"}}));
        case TestClip::hevc:
            return makeClip("hevc-aac.mp4",
                            join({kPattern,
                                  kTone,
                                  {"-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
                                   "log-level=error", "-pix_fmt", "yuv420p", "-tag:v", "hvc1"},
                                  kAac,
                                  {"-shortest"}}));
        case TestClip::av1:
            return makeClip("av1-aac.mp4",
                            join({kPattern,
                                  kTone,
                                  {"-c:v", "libsvtav1", "-preset", "12", "-pix_fmt", "yuv420p"},
                                  kAac,
                                  {"-shortest"}}));
        case TestClip::tenBit:
            return makeClip(
                "h264-10bit.mp4",
                join({kPattern,
                      {"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p10le"}}));
        case TestClip::coverArtAudio:
            return makeClip("cover-art.m4a",
                            join({kTone,
                                  {"-i", coverPicture().string(), "-map", "0:a", "-map", "1:v"},
                                  kAac,
                                  {"-c:v", "png", "-disposition:v:0", "attached_pic"}}));
        case TestClip::chapters:
            return makeClip(
                "chapters.mp4",
                join({{"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10:duration=3", "-i",
                       chapterMetadata().string(), "-map", "0:v", "-map_chapters", "1"},
                      kX264}));
        case TestClip::oddDimensions:
            return makeClip(
                "odd-321x241.mp4",
                join({{"-f", "lavfi", "-i", "testsrc=size=321x241:rate=10:duration=1"},
                      kTone,
                      {"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv444p"},
                      kAac,
                      {"-shortest"}}));
        case TestClip::offsetTimeline:
            return makeClip(
                "offset-timeline.ts",
                join({kPattern, kTone, kX264, kAac, {"-shortest", "-output_ts_offset", "10"}}));
        case TestClip::pausedTone:
            return makeClip(
                "paused-tone.mp4",
                join(
                    {{"-f", "lavfi", "-i", "color=c=navy:size=160x120:rate=10:duration=10", "-f",
                      "lavfi", "-i", "sine=frequency=440:sample_rate=48000:duration=10",
                      "-filter_complex", "[1:a]volume=enable='between(t,2,4)+gte(t,6)':volume=0[a]",
                      "-map", "0:v", "-map", "[a]"},
                     kX264,
                     kAac,
                     {"-movflags", "+faststart", "-shortest"}}));
        case TestClip::keyframesEverySecond:
            return makeClip("keyframes-every-1s.mp4",
                            {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10:duration=4",
                             "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
                             "-x264-params", "keyint=10:min-keyint=10:scenecut=0"});
        case TestClip::keyframesEvery5s:
            return makeClip(
                "keyframes-every-5s.mp4",
                {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=25:duration=20", "-f", "lavfi",
                 "-i", "sine=frequency=440:sample_rate=48000:duration=20", "-c:v", "libx264",
                 "-preset", "ultrafast", "-x264-params", "keyint=125:min-keyint=125:scenecut=0",
                 "-pix_fmt", "yuv420p", "-c:a", "aac", "-shortest"});
    }
    throw std::logic_error("unknown test clip");
}

engine::MediaInfo probeFile(const fs::path& file) {
    engine::ProcessRunner runner;
    return engine::MediaProbe::probe(file, helperTools(), engine::MediaInputPolicy::unrestricted,
                                     runner);
}

std::vector<std::string> videoPacketHashes(const fs::path& file) {
    engine::ProcessRunner runner;
    const engine::ProcessResult result =
        runner.run(helperTools().ffprobe,
                   {"-v", "error", "-select_streams", "v:0", "-show_packets", "-show_data_hash",
                    "MD5", "-show_entries", "packet=data_hash", "-of", "csv=p=0", file.string()},
                   true);
    EXPECT_EQ(result.exitCode, 0) << result.stderrTail;
    std::vector<std::string> hashes;
    std::istringstream lines(result.stdoutData.value_or(""));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("MD5:")) {
            hashes.push_back(line);
        }
    }
    return hashes;
}

}  // namespace tessarin::test
