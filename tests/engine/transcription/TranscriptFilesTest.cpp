// Transcript files: SRT and WebVTT of known segments against golden files, cues from timed words,
// the merge of overlapping chunks, and the writer that never overwrites.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "engine/transcription/TranscriptMerge.hpp"
#include "engine/transcription/TranscriptRendering.hpp"
#include "engine/transcription/TranscriptWriter.hpp"
#include "engine/transcription/TranscriptionError.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

std::string golden(const std::string& name) {
    std::stringstream text;
    text << std::ifstream(fs::path(TESSARIN_GOLDEN_DIR) / name, std::ios::binary).rdbuf();
    return text.str();
}

const std::vector<TranscriptSegment> kSegments{
    {0.0, 2.5, "Hello & welcome to <the> show.", 0, std::nullopt},
    {2.5, 3661.5, "  A long\n  second line  \n\n", 1, std::nullopt},
    {2.6, 2.7, " \n ", 4, std::nullopt},  // blank: skipped, numbers stay consecutive
    {3661.5, 3663.004, "No speaker here.", std::nullopt, std::nullopt},
};

TEST(TranscriptRendering, SubtitlesOfKnownSegmentsMatchTheGoldenFiles) {
    EXPECT_EQ(render(TranscriptFormat::srt, "", kSegments, true), golden("segments.srt"));
    EXPECT_EQ(render(TranscriptFormat::vtt, "", kSegments, true), golden("segments.vtt"));
    const std::vector<TranscriptSegment> parts{{1, 2, "first", 1, 1}, {3, 4, "second", 1, 2}};
    EXPECT_EQ(render(TranscriptFormat::srt, "", parts, true), golden("parts.srt"));
}

TEST(TranscriptRendering, PlainTextLabelsSpeakersOnlyWhenAsked) {
    const std::vector<TranscriptSegment> segments{{0, 1, "Hi.", 0, std::nullopt},
                                                  {1, 2, "Hello.", 1, 2},
                                                  {2, 3, "Applause.", std::nullopt, std::nullopt}};
    EXPECT_EQ(render(TranscriptFormat::text, "Hi. Hello.", segments, false), "Hi. Hello.");
    EXPECT_EQ(render(TranscriptFormat::text, "Hi. Hello.", segments, true),
              "Speaker 1: Hi.\n\nPart 2, Speaker 2: Hello.\n\nApplause.");
    EXPECT_EQ(render(TranscriptFormat::text, "as it came", {}, true), "as it came");
}

TEST(TranscriptRendering, EmptyTranscriptsAndUnusableTimes) {
    EXPECT_EQ(render(TranscriptFormat::srt, "", {}, false), "");
    EXPECT_EQ(render(TranscriptFormat::vtt, " ", {}, false), "WEBVTT\n\n");
    EXPECT_EQ(cueTime(3661.5, ','), "01:01:01,500");
    for (const TranscriptSegment& bad :
         {TranscriptSegment{2, 2.0004, "same millisecond"}, TranscriptSegment{-1, 1, "negative"},
          TranscriptSegment{0, std::nan(""), "nan"}, TranscriptSegment{0, 1, "speaker", -1},
          TranscriptSegment{0, 1, "part", 0, 0}}) {
        EXPECT_THROW((void)render(TranscriptFormat::srt, "", {bad}, true),
                     TranscriptFormattingError)
            << bad.text;
    }
    EXPECT_THROW((void)render(TranscriptFormat::vtt, "text without times", {}, false),
                 TranscriptFormattingError);
}

TEST(TranscriptRendering, WordsBecomeShortWrappedCues) {
    std::vector<TranscriptWord> words;
    for (int index = 0; index < 12; ++index) {
        words.push_back({"word" + std::to_string(index), index * 0.4, index * 0.4 + 0.3, 0});
    }
    words.push_back({std::string(90, 'w'), 5.0, 5.5, 0});  // a cue of its own
    words.push_back({"  ", 5.5, 5.6, 0});                  // blank: skipped
    words.push_back({"after", 5.6, 5.9, 1});               // another speaker
    const auto cues = cuesFromWords(words);
    ASSERT_TRUE(cues.has_value());
    std::vector<std::string> texts;
    for (const TranscriptSegment& cue : *cues) {
        texts.push_back(cue.text);
    }
    EXPECT_THAT(texts,
                ElementsAre("word0 word1 word2 word3 word4 word5 word6\nword7 word8 word9 word10 "
                            "word11",
                            std::string(90, 'w'), "after"));
    EXPECT_EQ((*cues)[0].start, 0.0);
    EXPECT_DOUBLE_EQ((*cues)[0].end, 11 * 0.4 + 0.3);
    EXPECT_EQ((*cues)[2].speaker, 1);

    // Past 6 s from the cue's start, a new cue begins.
    const auto timed = cuesFromWords({{"a", 0, 1}, {"b", 5, 6}, {"c", 6, 6.5}});
    ASSERT_TRUE(timed.has_value());
    EXPECT_EQ(timed->size(), 2u);
    // Times that go backwards make the list unusable.
    EXPECT_EQ(cuesFromWords({{"a", 1, 2}, {"b", 0.5, 3}}), std::nullopt);
    EXPECT_EQ(cuesFromWords({{"a", 1, 1}}), std::nullopt);
}

std::vector<std::string> textsOf(const std::vector<TranscriptWord>& words) {
    std::vector<std::string> out;
    for (const TranscriptWord& word : words) {
        out.push_back(word.word);
    }
    return out;
}

TEST(TranscriptMerge, TheOverlapIsDroppedOnceWhenTextAndTimesAgree) {
    std::vector<TranscriptWord> merged;
    mergeWords(merged, {{"So", 26.0, 26.4}, {"the", 26.5, 26.7}, {"plan,", 27.0, 27.5}}, 0,
               std::nullopt, 1);
    // The first chunk ended at 28 s; the second, starting 2 s earlier, repeats "the plan".
    mergeWords(merged, {{"The", 0.5, 0.7}, {"Plan", 1.0, 1.5}, {"works", 2.1, 2.6}}, 26.0, 28.0, 2);
    EXPECT_THAT(textsOf(merged), ElementsAre("So", "the", "plan,", "works"));
    EXPECT_EQ(merged.back().part, 2);
    EXPECT_DOUBLE_EQ(merged.back().start, 28.1);
    EXPECT_EQ(merged.front().part, 1);

    // The same words at times that don't overlap are said twice, and both stay.
    std::vector<TranscriptWord> repeated{{"yes", 10, 10.5}, {"yes", 27.0, 27.4}};
    mergeWords(repeated, {{"yes", 0.5, 1.0}, {"indeed", 2.2, 2.5}}, 24.0, 28.0, 2);
    EXPECT_THAT(textsOf(repeated), ElementsAre("yes", "yes", "yes", "indeed"));
}

TEST(TranscriptMerge, AWordCutAtTheBoundaryIsTakenWholeFromTheNextChunk) {
    std::vector<TranscriptWord> merged{{"we", 28.5, 28.8}, {"trans-", 29.6, 30.0}};
    mergeWords(merged, {{"we", 0.5, 0.8}, {"transcribe", 1.6, 2.4}, {"it", 2.5, 2.7}}, 28.0, 30.0,
               2);
    EXPECT_THAT(textsOf(merged), ElementsAre("we", "transcribe", "it"));
}

TEST(TranscriptWriter, ItNeverOverwritesAndLeavesNoTemporaryBehind) {
    test::TempDir folder;
    std::ofstream(folder / "lecture.transcript.srt") << "earlier";
    const fs::path first = TranscriptWriter::write("new", folder.path(), "lecture", TranscriptFormat::srt);
    EXPECT_EQ(first.filename(), "lecture-2.transcript.srt");
    const fs::path second = TranscriptWriter::write("newer", folder.path(), "lecture", TranscriptFormat::srt);
    EXPECT_EQ(second.filename(), "lecture-3.transcript.srt");
    const fs::path text = TranscriptWriter::write("t", folder.path(), "lecture", TranscriptFormat::text);
    EXPECT_EQ(text.filename(), "lecture.transcript.txt");
    std::stringstream kept;
    kept << std::ifstream(folder / "lecture.transcript.srt").rdbuf();
    EXPECT_EQ(kept.str(), "earlier");
    std::stringstream written;
    written << std::ifstream(first).rdbuf();
    EXPECT_EQ(written.str(), "new");

    for (int attempt = 1; attempt <= TranscriptWriter::kMaxAttempts; ++attempt) {
        std::ofstream(folder / TranscriptWriter::fileName("full", attempt, TranscriptFormat::vtt));
    }
    try {
        (void)TranscriptWriter::write("x", folder.path(), "full", TranscriptFormat::vtt);
        ADD_FAILURE();
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), TranscriptionError::Code::writeFailed);
    }
    std::size_t hidden = 0;
    for (const auto& entry : fs::directory_iterator(folder.path())) {
        hidden += entry.path().filename().string().starts_with(".") ? 1 : 0;
    }
    EXPECT_EQ(hidden, 0u);

    EXPECT_EQ(TranscriptWriter::claim(folder / "absent", folder / "other"),
              TranscriptWriter::ClaimResult::failed);
    std::ofstream(folder / "temp") << "t";
    EXPECT_EQ(TranscriptWriter::claim(folder / "temp", first), TranscriptWriter::ClaimResult::exists);
}

TEST(TranscriptWriter, AProbeTellsWhetherAFolderTakesFiles) {
    test::TempDir folder;
    EXPECT_TRUE(TranscriptWriter::probe(folder.path()));
    EXPECT_TRUE(fs::is_empty(folder.path()));
    EXPECT_FALSE(TranscriptWriter::probe(folder / "missing"));
    if (geteuid() != 0) {  // root writes anywhere
        chmod(folder.path().c_str(), 0500);
        EXPECT_FALSE(TranscriptWriter::probe(folder.path()));
        EXPECT_THROW((void)TranscriptWriter::write("x", folder.path(), "a", TranscriptFormat::text),
                     TranscriptionError);
        chmod(folder.path().c_str(), 0700);
    }
}

}  // namespace
}  // namespace tessarin::engine
