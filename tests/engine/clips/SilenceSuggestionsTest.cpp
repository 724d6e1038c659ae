// Silence suggestions from the real ffmpeg on generated clips, and the strict reading of its
// output.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "engine/clips/SilenceSuggestions.hpp"
#include "engine/model/TimeText.hpp"
#include "tests/support/FakeTools.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using Kind = SilenceSuggestions::Failure::Kind;

Tools helperTools() {
    const std::optional<Tools> tools = Tools::inBundle(test::helperDirectory());
    if (!tools) {
        throw std::runtime_error("no helper tools");
    }
    return *tools;
}

struct Range {
    double start;
    double end;
};

std::vector<Range> rangesOf(const std::vector<ClipSelection>& clips) {
    std::vector<Range> ranges;
    for (const ClipSelection& clip : clips) {
        ranges.push_back({parseTimeSeconds(clip.trim().start.value_or("")).value_or(-1),
                          parseTimeSeconds(clip.trim().end.value_or("")).value_or(-1)});
    }
    return ranges;
}

std::optional<Kind> failureOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const SilenceSuggestions::Failure& failure) {
        return failure.kind();
    }
    return std::nullopt;
}

// The tone sounds 0-2 s and 4-6 s of the 10-second clip; padding keeps 0.15 s of each pause.
TEST(SilenceSuggestions, KeepsTheToneWithinItsPaddedRanges) {
    // A copy of its own: a parallel test that makes the shared clip renames it into place, and
    // the scan would rightly call that a change.
    const test::TempDir folder;
    const fs::path clip = folder / "talk.mp4";
    fs::copy_file(test::testClip(test::TestClip::pausedTone), clip);
    ProcessRunner runner;
    const std::vector<ClipSelection> clips =
        SilenceSuggestions::analyze(clip, helperTools(), SilenceSettings{}, 10.0, true, runner);
    const std::vector<Range> ranges = rangesOf(clips);
    ASSERT_EQ(ranges.size(), 2u);
    EXPECT_NEAR(ranges[0].start, 0.0, 0.1);
    EXPECT_NEAR(ranges[0].end, 2.15, 0.1);
    EXPECT_NEAR(ranges[1].start, 3.85, 0.1);
    EXPECT_NEAR(ranges[1].end, 6.15, 0.1);
    EXPECT_EQ(clips[0].name(), "Suggested 1");
    EXPECT_EQ(clips[1].name(), "Suggested 2");
}

TEST(SilenceSuggestions, RefusesSettingsAndSourcesBeforeScanning) {
    const Tools tools = helperTools();
    const fs::path clip = test::testClip(test::TestClip::pausedTone);
    const auto analyze = [&](SilenceSettings settings, std::optional<double> duration,
                             bool hasAudio, const fs::path& source) {
        return failureOf([&] {
            ProcessRunner runner;
            (void)SilenceSuggestions::analyze(source, tools, settings, duration, hasAudio, runner);
        });
    };
    EXPECT_EQ(analyze({-81, 0.5, 0.15, 0.5}, 10.0, true, clip), Kind::settings);
    EXPECT_EQ(analyze({-35, 0.5, 2.5, 0.5}, 10.0, true, clip), Kind::settings);
    EXPECT_EQ(analyze({-35, 0.05, 0.15, 0.5}, 10.0, true, clip), Kind::settings);
    const fs::path silent = test::testClip(test::TestClip::h264NoAudio);
    EXPECT_EQ(analyze({}, 1.0, false, silent), Kind::source);
    EXPECT_EQ(analyze({}, 21'600.5, true, clip), Kind::source);
    EXPECT_EQ(analyze({}, std::nullopt, true, clip), Kind::source);
    // A probe that was wrong about the audio still ends without suggestions.
    EXPECT_EQ(analyze({}, 1.0, true, silent), Kind::incomplete);
    EXPECT_STREQ(SilenceSuggestions::Failure(Kind::source).what(),
                 "Suggestions need a video with audio and a known length of at most six hours.");
}

// ffmpeg prints the silences it found before the damage; none of them may come back.
TEST(SilenceSuggestions, DamagedAudioGivesNoSuggestionsAtAll) {
    const Tools tools = helperTools();
    const test::TempDir folder;
    const fs::path clip = test::testClip(test::TestClip::pausedTone);
    std::string bytes;
    {
        std::ifstream in(clip, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    const fs::path truncated = folder / "truncated.mp4";
    std::ofstream(truncated, std::ios::binary) << bytes.substr(0, bytes.size() * 6 / 10);
    std::string damaged = bytes;
    for (const double at : {0.4, 0.5, 0.6, 0.7}) {
        damaged.replace(static_cast<std::size_t>(damaged.size() * at), 64, 64, '\xff');
    }
    const fs::path corrupted = folder / "corrupted.mp4";
    std::ofstream(corrupted, std::ios::binary) << damaged;

    for (const fs::path& source : {truncated, corrupted}) {
        EXPECT_EQ(failureOf([&] {
                      ProcessRunner runner;
                      (void)SilenceSuggestions::analyze(source, tools, {}, 10.0, true, runner);
                  }),
                  Kind::incomplete)
            << source.filename();
    }
}

TEST(SilenceSuggestions, ASourceTouchedDuringTheScanIsChanged) {
    const test::TempDir folder;
    const fs::path source = folder / "talk.mp4";
    fs::copy_file(test::testClip(test::TestClip::pausedTone), source);
    Tools tools = helperTools();
    // The scan itself goes well; only the stamp differs afterwards.
    tools.ffmpeg = test::writeScript(folder.path(), "ffmpeg",
                                     "touch -d '2001-02-03 04:05:06' \"$8\"\nexec '" +
                                         helperTools().ffmpeg.string() + "' \"$@\"\n");
    ProcessRunner runner;
    EXPECT_EQ(failureOf([&] {
                  (void)SilenceSuggestions::analyze(source, tools, {}, 10.0, true, runner);
              }),
              Kind::changed);
}

TEST(SilenceSuggestions, CancelBeforeTheRunIsCancelled) {
    ProcessRunner runner;
    runner.cancel(ProcessRunner::kUserCancelGrace);
    EXPECT_EQ(failureOf([&] {
                  (void)SilenceSuggestions::analyze(test::testClip(test::TestClip::pausedTone),
                                                    helperTools(), {}, 10.0, true, runner);
              }),
              Kind::cancelled);
}

constexpr const char* kFinished = "out_time_us=10000000\nprogress=end\n";

TEST(SilenceSuggestions, ReadsTheOutputStrictly) {
    const SilenceSettings settings;  // padding 0.15, shortest clip 0.5
    struct Case {
        const char* name;
        const char* metadata;
        const char* progress;
        std::optional<std::vector<std::pair<const char*, const char*>>> expected;
    };
    const std::vector<Case> cases = {
        {"no silence keeps the whole length", "", kFinished, {{{"0.000000", "10.000000"}}}},
        {"silence over everything keeps nothing",
         "lavfi.silence_start=0\nlavfi.silence_end=10\n",
         kFinished,
         {{}}},
        {"a silence open at the end closes there",
         "lavfi.silence_start=4\n",
         kFinished,
         {{{"0.000000", "4.150000"}}}},
        {"a clip shorter than the minimum is dropped",
         "lavfi.silence_start=0.3\nlavfi.silence_end=5\n",
         kFinished,
         {{{"4.850000", "10.000000"}}}},
        {"a pause shorter than twice the padding is ignored",
         "lavfi.silence_start=5\nlavfi.silence_end=5.2\n",
         kFinished,
         {{{"0.000000", "10.000000"}}}},
        {"frame lines between the values are skipped",
         "frame:1 pts:2 pts_time:3\r\nlavfi.silence_start=3\r\nframe:9\r\n"
         "lavfi.silence_end=4\r\nlavfi.silence_duration=1\r\n",
         kFinished,
         {{{"0.000000", "3.150000"}, {"3.850000", "10.000000"}}}},
        {"a close without an open", "lavfi.silence_end=4\n", kFinished, std::nullopt},
        {"an open inside an open", "lavfi.silence_start=1\nlavfi.silence_start=2\n", kFinished,
         std::nullopt},
        {"a close before its open", "lavfi.silence_start=3\nlavfi.silence_end=2\n", kFinished,
         std::nullopt},
        {"a time past the end", "lavfi.silence_start=10.5\n", kFinished, std::nullopt},
        {"a silence before the one already closed",
         "lavfi.silence_start=6\nlavfi.silence_end=8\nlavfi.silence_start=2\n"
         "lavfi.silence_end=4\n",
         kFinished, std::nullopt},
        {"a time that isn't a number", "lavfi.silence_start=nan\n", kFinished, std::nullopt},
        {"a scan that didn't end", "", "out_time_us=10000000\nprogress=continue\n", std::nullopt},
        {"a scan that stopped short", "", "out_time_us=9000000\nprogress=end\n", std::nullopt},
        {"no position at all", "", "progress=end\n", std::nullopt},
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(item.name);
        std::optional<std::vector<ClipSelection>> clips;
        const std::optional<Kind> failure = failureOf([&] {
            clips = SilenceSuggestions::interpret(item.metadata, item.progress, settings, 10.0);
        });
        if (!item.expected) {
            EXPECT_EQ(failure, Kind::incomplete);
            continue;
        }
        ASSERT_TRUE(clips.has_value());
        std::vector<std::pair<std::string, std::string>> got;
        for (const ClipSelection& clip : *clips) {
            got.emplace_back(*clip.trim().start, *clip.trim().end);
        }
        std::vector<std::pair<std::string, std::string>> want(item.expected->begin(),
                                                              item.expected->end());
        EXPECT_EQ(got, want);
    }
}

}  // namespace
}  // namespace tessarin::engine
