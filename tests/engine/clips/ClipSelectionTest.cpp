#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "engine/clips/ClipSelection.hpp"

namespace tessarin::engine {
namespace {

using Kind = ClipSelection::Invalid::Kind;
using testing::ElementsAre;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

std::string repeated(std::string_view piece, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) {
        result += piece;
    }
    return result;
}

// Runs `body` and gives the case it threw, or nothing when it returned.
template <typename Body>
std::optional<Kind> failureOf(Body body) {
    try {
        body();
    } catch (const ClipSelection::Invalid& invalid) {
        return invalid.kind();
    }
    return std::nullopt;
}

// "start-end" of a trim, an open side shown as "_".
std::string rangeText(const Trim& trim) {
    return trim.start.value_or("_") + "-" + trim.end.value_or("_");
}

std::vector<std::string> rangeTexts(const std::vector<Trim>& trims) {
    std::vector<std::string> texts;
    for (const Trim& trim : trims) {
        texts.push_back(rangeText(trim));
    }
    return texts;
}

// ---- Time rule -------------------------------------------------------------------------------

struct TimeCase {
    std::string text;
    std::optional<std::string> stored;  // the normalised text, or nothing for "absent"
    std::optional<Kind> failure;
};

class TimeRuleTest : public testing::TestWithParam<TimeCase> {};

TEST_P(TimeRuleTest, AcceptsStoresOrRefuses) {
    const TimeCase& row = GetParam();
    std::optional<std::string> stored;
    const std::optional<Kind> failure =
        failureOf([&] { stored = ClipSelection::normalizeTime(row.text); });
    EXPECT_EQ(failure, row.failure) << '"' << row.text << '"';
    if (!row.failure) {
        EXPECT_EQ(stored, row.stored) << '"' << row.text << '"';
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, TimeRuleTest,
    testing::Values(
        TimeCase{"90", "90", {}}, TimeCase{"1:30", "1:30", {}}, TimeCase{"1:30.5", "1:30.5", {}},
        TimeCase{"01:02:03", "01:02:03", {}}, TimeCase{"1:5", "1:5", {}}, TimeCase{"0", "0", {}},
        TimeCase{"12.500000", "12.500000", {}}, TimeCase{"123456:59:59.25", "123456:59:59.25", {}},
        // Spaces and tabs around the text go, and the text is kept as typed, not reformatted.
        TimeCase{" \t1:05\t ", "1:05", {}}, TimeCase{"\u00A090.0\u3000", "90.0", {}},
        // Blanks alone mean an absent side.
        TimeCase{"", std::nullopt, {}}, TimeCase{"   ", std::nullopt, {}},
        TimeCase{"\t \t", std::nullopt, {}},
        // Refused.
        TimeCase{"1:60", {}, Kind::time}, TimeCase{"1:2:3:4", {}, Kind::time},
        TimeCase{"1.5:00", {}, Kind::time}, TimeCase{"-1", {}, Kind::time},
        TimeCase{".5", {}, Kind::time}, TimeCase{"1:", {}, Kind::time},
        TimeCase{"1:30.", {}, Kind::time}, TimeCase{"1::30", {}, Kind::time},
        TimeCase{"1:300", {}, Kind::time}, TimeCase{"1 :30", {}, Kind::time},
        TimeCase{"1e2", {}, Kind::time}, TimeCase{"+5", {}, Kind::time},
        TimeCase{"1,5", {}, Kind::time}, TimeCase{"inf", {}, Kind::time},
        TimeCase{"5s", {}, Kind::time}, TimeCase{"\n5", {}, Kind::time},
        TimeCase{"5\n", {}, Kind::time}, TimeCase{"\u0661\u0662", {}, Kind::time},
        TimeCase{"\xff", {}, Kind::time},
        // Matches the pattern but its value is not finite.
        TimeCase{std::string(400, '9'), {}, Kind::time}));

// ---- Constructor: range and name rules, in order ----------------------------------------------

struct SegmentCase {
    std::string segment;
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::string name;
    std::optional<Kind> failure;
};

class SegmentTest : public testing::TestWithParam<SegmentCase> {};

TEST_P(SegmentTest, ParsesOrRefuses) {
    const SegmentCase& row = GetParam();
    std::optional<ClipSelection> clip;
    const std::optional<Kind> failure =
        failureOf([&] { clip.emplace(ClipSelection::fromSegment(row.segment)); });
    ASSERT_EQ(failure, row.failure) << '"' << row.segment << '"';
    if (!row.failure) {
        EXPECT_EQ(clip->trim().start, row.start) << '"' << row.segment << '"';
        EXPECT_EQ(clip->trim().end, row.end) << '"' << row.segment << '"';
        EXPECT_EQ(clip->name(), row.name) << '"' << row.segment << '"';
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, SegmentTest,
    testing::Values(
        SegmentCase{"1,2", "1", "2", "", {}}, SegmentCase{"0,,x,y", "0", std::nullopt, "x,y", {}},
        SegmentCase{"1,2,a,b,c", "1", "2", "a,b,c", {}},
        SegmentCase{",,", std::nullopt, std::nullopt, "", {}},
        SegmentCase{",1:00", std::nullopt, "1:00", "", {}},
        SegmentCase{" 1 ,\t2\t, Intro , part 2 ", "1", "2", "Intro , part 2", {}},
        SegmentCase{"0,0.000001", "0", "0.000001", "", {}},
        SegmentCase{"10,5", {}, {}, "", Kind::range}, SegmentCase{",0", {}, {}, "", Kind::range},
        SegmentCase{"5,5", {}, {}, "", Kind::range},
        SegmentCase{"1:00,59.9", {}, {}, "", Kind::range},
        SegmentCase{"5", {}, {}, "", Kind::syntax}, SegmentCase{"", {}, {}, "", Kind::syntax},
        // The time rule comes before the range rule, which comes before the name rule.
        SegmentCase{"x,5,\x01", {}, {}, "", Kind::time},
        SegmentCase{"5,x,\x01", {}, {}, "", Kind::time},
        SegmentCase{"10,5,\x01", {}, {}, "", Kind::range},
        SegmentCase{"1,5,\x01", {}, {}, "", Kind::name}));

struct NameCase {
    std::string label;
    std::string name;
    std::optional<std::string> stored;  // nothing: refused with `name`
};

class NameRuleTest : public testing::TestWithParam<NameCase> {};

TEST_P(NameRuleTest, CountsCharactersAndRefusesControls) {
    const NameCase& row = GetParam();
    std::optional<ClipSelection> clip;
    const std::optional<Kind> failure = failureOf([&] { clip.emplace(Trim{}, row.name); });
    if (row.stored) {
        ASSERT_EQ(failure, std::nullopt);
        EXPECT_EQ(clip->name(), *row.stored);
    } else {
        EXPECT_EQ(failure, Kind::name);
    }
}

const std::string kCombiningE = "e\u0301";         // one character, two scalars, three bytes
const std::string kFlag = "\U0001F1EB\U0001F1F7";  // one character, two scalars, eight bytes

INSTANTIATE_TEST_SUITE_P(
    Table, NameRuleTest,
    testing::Values(
        NameCase{"empty", "", ""}, NameCase{"blanksOnly", " \t ", ""},
        NameCase{"trimmed", "\t Intro \u00A0", "Intro"},
        NameCase{"ascii80", std::string(80, 'a'), std::string(80, 'a')},
        NameCase{"ascii81", std::string(81, 'a'), std::nullopt},
        NameCase{"ascii80AfterTrim", " " + std::string(80, 'a') + "\t", std::string(80, 'a')},
        NameCase{"combining80", repeated(kCombiningE, 80), repeated(kCombiningE, 80)},
        NameCase{"combining81", repeated(kCombiningE, 81), std::nullopt},
        NameCase{"flags80", repeated(kFlag, 80), repeated(kFlag, 80)},
        NameCase{"flags81", repeated(kFlag, 81), std::nullopt},
        NameCase{"japanese", "日本語のタイトル", "日本語のタイトル"},
        NameCase{"innerTab", "a\tb", std::nullopt}, NameCase{"newline", "a\nb", std::nullopt},
        NameCase{"trailingNewline", "ab\n", std::nullopt},
        NameCase{"delete", "a\x7f", std::nullopt}, NameCase{"c1Control", "a\u0085b", std::nullopt},
        NameCase{"zeroWidthSpace", "a\u200Bb", std::nullopt},
        NameCase{"malformedUtf8", "caf\xe9", std::nullopt}),
    [](const testing::TestParamInfo<NameCase>& info) { return info.param.label; });

TEST(ClipSelection, IsIdentifiedByItsId) {
    const Uuid id = Uuid::random();
    const ClipSelection first(id, Trim{"1", "2"}, "A");
    const ClipSelection renamed(id, Trim{"3", "4"}, "B");
    const ClipSelection twin(Trim{"1", "2"}, "A");
    EXPECT_EQ(first.id(), id);
    EXPECT_EQ(first, renamed);
    EXPECT_NE(first, twin);
    EXPECT_NE(twin.id(), ClipSelection(Trim{"1", "2"}, "A").id());
}

TEST(ClipSelection, FailuresCarryTheirSentences) {
    EXPECT_STREQ(ClipSelection::Invalid(Kind::time).what(),
                 "Use a finite time in SS, MM:SS or HH:MM:SS format.");
    EXPECT_STREQ(ClipSelection::Invalid(Kind::syntax).what(),
                 "Use START,END or START,END,NAME for each --segment.");
    EXPECT_STREQ(ClipSelection::Invalid(Kind::count).what(), "Choose between 1 and 500 clips.");
    try {
        (void)ClipSelection::fromSegment("10,5");
        FAIL() << "no failure";
    } catch (const std::exception& failure) {
        EXPECT_STREQ(failure.what(), "Clip end must be after start.");
    }
}

// ---- Microsecond text -------------------------------------------------------------------------

TEST(MicrosecondText, WritesSixDigitsThatTheTimeRuleAccepts) {
    const std::pair<int64_t, std::string> rows[] = {
        {0, "0.000000"},
        {1, "0.000001"},
        {999'999, "0.999999"},
        {1'000'000, "1.000000"},
        {12'500'000, "12.500000"},
        {3'723'000'007, "3723.000007"},
        {std::numeric_limits<int64_t>::max(), "9223372036854.775807"},
    };
    for (const auto& [microseconds, text] : rows) {
        EXPECT_EQ(microsecondText(microseconds), text);
        EXPECT_EQ(ClipSelection::normalizeTime(text), text);
    }
}

TEST(MicrosecondTextDeathTest, NegativeCountIsAProgrammerError) {
    EXPECT_DEATH((void)microsecondText(-1), "programmer error");
}

// ---- Splitting --------------------------------------------------------------------------------

struct SplitCase {
    std::string label;
    std::optional<double> duration;
    std::optional<double> seconds;
    std::optional<int64_t> count;
    std::vector<std::string> boundaries;  // n + 1 texts when it succeeds
    std::optional<Kind> failure;
};

class SplitTest : public testing::TestWithParam<SplitCase> {};

TEST_P(SplitTest, LandsOnTheTotalOrRefuses) {
    const SplitCase& row = GetParam();
    std::vector<ClipSelection> clips;
    const std::optional<Kind> failure =
        failureOf([&] { clips = ClipSelection::split(row.duration, row.seconds, row.count); });
    ASSERT_EQ(failure, row.failure);
    if (row.failure) {
        return;
    }
    ASSERT_EQ(clips.size() + 1, row.boundaries.size());
    for (std::size_t k = 0; k < clips.size(); ++k) {
        EXPECT_EQ(clips[k].trim().start, row.boundaries[k]) << "clip " << k;
        EXPECT_EQ(clips[k].trim().end, row.boundaries[k + 1]) << "clip " << k;
        EXPECT_EQ(clips[k].name(), "Part " + std::to_string(k + 1));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, SplitTest,
    testing::Values(
        SplitCase{"byLength",
                  10.0,
                  3.0,
                  {},
                  {"0.000000", "3.000000", "6.000000", "9.000000", "10.000000"},
                  {}},
        SplitCase{"byCount", 10.0, {}, 3, {"0.000000", "3.333333", "6.666666", "10.000000"}, {}},
        SplitCase{"byCountSpreadsRemainder",
                  1.0,
                  {},
                  3,
                  {"0.000000", "0.333333", "0.666666", "1.000000"},
                  {}},
        SplitCase{"lengthDividesExactly",
                  10.0,
                  2.5,
                  {},
                  {"0.000000", "2.500000", "5.000000", "7.500000", "10.000000"},
                  {}},
        // 0.1 three times in floating point is 0.30000000000000004; whole microseconds aren't.
        SplitCase{
            "tenthsDoNotDrift", 0.3, 0.1, {}, {"0.000000", "0.100000", "0.200000", "0.300000"}, {}},
        SplitCase{"lengthOverWhole", 10.0, 20.0, {}, {"0.000000", "10.000000"}, {}},
        SplitCase{"fractionOfAMicrosecondDropped",
                  10.0000009,
                  {},
                  2,
                  {"0.000000", "5.000000", "10.000000"},
                  {}},
        SplitCase{"oneMicrosecond", 0.000001, {}, 1, {"0.000000", "0.000001"}, {}},
        SplitCase{"microsecondPieces",
                  0.000003,
                  {},
                  3,
                  {"0.000000", "0.000001", "0.000002", "0.000003"},
                  {}},
        SplitCase{"hugeDuration", 9.2e12, {}, 1, {"0.000000", "9200000000000.000000"}, {}},
        // Failures, first the duration, then the count or the length.
        SplitCase{"noDuration", std::nullopt, 3.0, {}, {}, Kind::duration},
        SplitCase{"noDurationAndBoth", std::nullopt, 3.0, 3, {}, Kind::duration},
        SplitCase{"zeroDuration", 0.0, {}, 1, {}, Kind::duration},
        SplitCase{"belowAMicrosecond", 0.0000009, {}, 1, {}, Kind::duration},
        SplitCase{"negativeDuration", -5.0, {}, 1, {}, Kind::duration},
        SplitCase{"infiniteDuration", kInfinity, {}, 1, {}, Kind::duration},
        SplitCase{"nanDuration", kNaN, {}, 1, {}, Kind::duration},
        SplitCase{"durationOverflows", 9.3e12, {}, 1, {}, Kind::duration},
        SplitCase{"neither", 10.0, {}, {}, {}, Kind::count},
        SplitCase{"zeroCount", 10.0, {}, 0, {}, Kind::count},
        SplitCase{"negativeCount", 10.0, {}, -1, {}, Kind::count},
        SplitCase{"count501", 10.0, {}, 501, {}, Kind::count},
        SplitCase{"countOverMicroseconds", 0.000002, {}, 3, {}, Kind::count},
        SplitCase{"both", 10.0, 3.0, 3, {}, Kind::interval},
        SplitCase{"zeroLength", 10.0, 0.0, {}, {}, Kind::interval},
        SplitCase{"lengthBelowAMicrosecond", 10.0, 0.0000009, {}, {}, Kind::interval},
        SplitCase{"infiniteLength", 10.0, kInfinity, {}, {}, Kind::interval},
        SplitCase{"nanLength", 10.0, kNaN, {}, {}, Kind::interval},
        SplitCase{"lengthOverflows", 10.0, 1e13, {}, {}, Kind::interval},
        SplitCase{"lengthGiving501", 501.0, 1.0, {}, {}, Kind::count}),
    [](const testing::TestParamInfo<SplitCase>& info) { return info.param.label; });

TEST(ClipSelectionSplit, FiveHundredIsTheLimitAndEveryBoundaryIsShared) {
    const std::vector<ClipSelection> byLength = ClipSelection::split(500.0, 1.0, std::nullopt);
    ASSERT_EQ(byLength.size(), 500u);
    EXPECT_EQ(byLength.back().trim().end, "500.000000");

    // 7 s in 499 clips leaves a remainder to spread; no clip may be empty or overlap.
    const std::vector<ClipSelection> byCount = ClipSelection::split(7.0, std::nullopt, 499);
    ASSERT_EQ(byCount.size(), 499u);
    EXPECT_EQ(byCount.front().trim().start, "0.000000");
    EXPECT_EQ(byCount.back().trim().end, "7.000000");
    for (std::size_t k = 1; k < byCount.size(); ++k) {
        EXPECT_EQ(byCount[k].trim().start, byCount[k - 1].trim().end) << "clip " << k;
    }
}

// ---- Join and complement ----------------------------------------------------------------------

struct JoinCase {
    std::string label;
    std::vector<std::string> segments;  // START,END of each clip
    std::optional<double> duration;
    bool removing = false;
    std::vector<std::string> ranges;  // expected "start-end"
    std::optional<Kind> failure;
};

class JoinTest : public testing::TestWithParam<JoinCase> {};

TEST_P(JoinTest, MergesOrTakesOut) {
    const JoinCase& row = GetParam();
    std::vector<ClipSelection> clips;
    for (const std::string& segment : row.segments) {
        clips.push_back(ClipSelection::fromSegment(segment));
    }
    std::vector<Trim> trims;
    const std::optional<Kind> failure =
        failureOf([&] { trims = ClipSelection::join(clips, row.duration, row.removing); });
    ASSERT_EQ(failure, row.failure);
    EXPECT_EQ(rangeTexts(trims), row.ranges);
}

INSTANTIATE_TEST_SUITE_P(
    Table, JoinTest,
    testing::Values(
        JoinCase{"touchingMerge", {"0,5", "5,10"}, 10.0, false, {"0.000000-10.000000"}, {}},
        JoinCase{"removingEverything", {"0,5", "5,10"}, 10.0, true, {}, Kind::join},
        JoinCase{"removeLeavesOutside",
                 {"2,4", "6,8"},
                 10.0,
                 true,
                 {"0.000000-2.000000", "4.000000-6.000000", "8.000000-10.000000"},
                 {}},
        JoinCase{"sorted",
                 {"6,8", "0:02,0:04"},
                 10.0,
                 false,
                 {"2.000000-4.000000", "6.000000-8.000000"},
                 {}},
        JoinCase{"contained", {"1,5", "2,3"}, 10.0, false, {"1.000000-5.000000"}, {}},
        JoinCase{"overlapExtends",
                 {"1,5", "4,7", "9,9.5"},
                 10.0,
                 false,
                 {"1.000000-7.000000", "9.000000-9.500000"},
                 {}},
        JoinCase{"openEndRemoved", {"8,"}, 10.0, true, {"0.000000-8.000000"}, {}},
        JoinCase{"openStartKept", {",3"}, 10.0, false, {"0.000000-3.000000"}, {}},
        JoinCase{"whollyOpen", {","}, 10.0, false, {"0.000000-10.000000"}, {}},
        JoinCase{"removeHead", {"0,2"}, 10.0, true, {"2.000000-10.000000"}, {}},
        // The end is capped at the whole microseconds of the duration.
        JoinCase{
            "endCappedAtTotal", {"0,10.0000006"}, 10.0000006, false, {"0.000000-10.000000"}, {}},
        JoinCase{"cappedRemovalLeavesNothing", {"0,10.0000006"}, 10.0000006, true, {}, Kind::join},
        JoinCase{"endPastDuration", {"2,12"}, 10.0, false, {}, Kind::join},
        JoinCase{"startPastDuration", {"11,"}, 10.0, false, {}, Kind::join},
        JoinCase{"sameMicrosecond", {"10.0000001,10.0000002"}, 11.0, false, {}, Kind::join},
        JoinCase{"noDuration", {"1,2"}, std::nullopt, false, {}, Kind::join},
        JoinCase{"zeroDuration", {"1,2"}, 0.0, false, {}, Kind::join},
        JoinCase{"nanDuration", {"1,2"}, kNaN, false, {}, Kind::join},
        JoinCase{"overflowingDuration", {"1,2"}, 1e13, false, {}, Kind::join},
        JoinCase{"noClips", {}, 10.0, false, {}, Kind::join}),
    [](const testing::TestParamInfo<JoinCase>& info) { return info.param.label; });

TEST(ClipSelectionJoin, FiveHundredRangesAndTheirComplementOfFiveHundredOne) {
    std::vector<ClipSelection> clips;
    for (int k = 0; k < 500; ++k) {
        clips.emplace_back(Trim{std::to_string(2 * k + 1), std::to_string(2 * k + 2)});
    }
    const std::vector<Trim> kept = ClipSelection::join(clips, 1001.0, false);
    ASSERT_EQ(kept.size(), 500u);
    EXPECT_EQ(rangeText(kept.back()), "999.000000-1000.000000");
    EXPECT_EQ(failureOf([&] { (void)ClipSelection::join(clips, 1001.0, true); }), Kind::join);
    // Without the gap at the end the complement has exactly 500 ranges.
    EXPECT_EQ(ClipSelection::join(clips, 1000.0, true).size(), 500u);

    clips.emplace_back(Trim{"0", "1"});
    EXPECT_EQ(failureOf([&] { (void)ClipSelection::join(clips, 1001.0, false); }), Kind::join);
}

// ---- Chapters ---------------------------------------------------------------------------------

struct ChapterCase {
    std::string label;
    std::vector<MediaChapter> chapters;
    std::optional<double> duration;
    std::vector<std::string> names;
    std::optional<Kind> failure;
};

class ChaptersTest : public testing::TestWithParam<ChapterCase> {};

TEST_P(ChaptersTest, BecomeClipsOrRefuse) {
    const ChapterCase& row = GetParam();
    std::vector<ClipSelection> clips;
    const std::optional<Kind> failure =
        failureOf([&] { clips = ClipSelection::fromChapters(row.chapters, row.duration); });
    ASSERT_EQ(failure, row.failure);
    if (row.failure) {
        return;
    }
    ASSERT_EQ(clips.size(), row.chapters.size());
    std::vector<std::string> names;
    for (std::size_t i = 0; i < clips.size(); ++i) {
        names.push_back(clips[i].name());
        // The chapter's own texts are kept, not reformatted.
        EXPECT_EQ(clips[i].trim().start, row.chapters[i].start);
        EXPECT_EQ(clips[i].trim().end, row.chapters[i].end);
    }
    EXPECT_EQ(names, row.names);
}

MediaChapter chapter(std::string start, std::string end,
                     std::optional<std::string> title = std::nullopt) {
    return MediaChapter{std::move(start), std::move(end), std::move(title)};
}

INSTANTIATE_TEST_SUITE_P(
    Table, ChaptersTest,
    testing::Values(
        ChapterCase{
            "titledAndUntitled",
            {chapter("0.000000", "5.000000", "Intro"), chapter("5.000000", "10.000000", "")},
            10.0,
            {"Intro", "Chapter 2"},
            {}},
        ChapterCase{"gapsPass",
                    {chapter("0", "2", "A"), chapter("5", "8"), chapter("9.5", "9.75", "C")},
                    std::nullopt,
                    {"A", "Chapter 2", "C"},
                    {}},
        ChapterCase{"controlsBecomeBlanks",
                    {chapter("0", "1", "Intro\tPart\n1"), chapter("1", "2", "a\x01\x01z"),
                     chapter("2", "3", "\n\t  \u200B")},
                    3.0,
                    {"Intro Part 1", "a  z", "Chapter 3"},
                    {}},
        ChapterCase{"titleTrimmed", {chapter("0", "1", " \u00A0Café\n ")}, {}, {"Café"}, {}},
        ChapterCase{"titleCutTo80",
                    {chapter("0", "1", std::string(100, 'x'))},
                    {},
                    {std::string(80, 'x')},
                    {}},
        ChapterCase{"titleCutByCharacters",
                    {chapter("0", "1", std::string(79, 'x') + "e\u0301" + "yz")},
                    {},
                    {std::string(79, 'x') + "e\u0301"},
                    {}},
        ChapterCase{"titleCutBeforeBlank",
                    {chapter("0", "1", std::string(79, 'x') + " tail")},
                    {},
                    {std::string(79, 'x')},
                    {}},
        ChapterCase{"endAtDuration", {chapter("0", "10")}, 10.0, {"Chapter 1"}, {}},
        // Refused.
        ChapterCase{"secondStartsBeforeFirstEnds",
                    {chapter("0", "5", "A"), chapter("4", "10", "B")},
                    10.0,
                    {},
                    Kind::chapters},
        ChapterCase{"outOfOrder", {chapter("5", "10"), chapter("0", "5")}, {}, {}, Kind::chapters},
        ChapterCase{"emptyChapter", {chapter("3", "3")}, {}, {}, Kind::chapters},
        ChapterCase{"negativeStart", {chapter("-1", "3")}, {}, {}, Kind::chapters},
        ChapterCase{
            "pastDuration", {chapter("0", "5"), chapter("5", "11")}, 10.0, {}, Kind::chapters},
        ChapterCase{"nanDuration", {chapter("0", "5")}, kNaN, {}, Kind::chapters},
        ChapterCase{"infiniteDuration", {chapter("0", "5")}, kInfinity, {}, Kind::chapters},
        ChapterCase{"missingEnd", {MediaChapter{"0", std::nullopt, "A"}}, {}, {}, Kind::chapters},
        ChapterCase{"leadingBlank", {chapter(" 1", "3")}, {}, {}, Kind::chapters},
        ChapterCase{"trailingJunk", {chapter("1", "3s")}, {}, {}, Kind::chapters},
        ChapterCase{"infiniteEnd", {chapter("0", "inf")}, {}, {}, Kind::chapters},
        ChapterCase{"none", {}, {}, {}, Kind::chapters},
        // Plain decimals that the time rule refuses end the whole conversion with `time`.
        ChapterCase{"exponentForm", {chapter("0", "1"), chapter("1", "1e1")}, {}, {}, Kind::time}),
    [](const testing::TestParamInfo<ChapterCase>& info) { return info.param.label; });

TEST(ClipSelectionChapters, FiveHundredIsTheLimit) {
    std::vector<MediaChapter> chapters;
    for (int k = 0; k < 500; ++k) {
        chapters.push_back(chapter(std::to_string(k), std::to_string(k + 1)));
    }
    EXPECT_EQ(ClipSelection::fromChapters(chapters, 500.0).size(), 500u);
    chapters.push_back(chapter("500", "501"));
    EXPECT_EQ(failureOf([&] { (void)ClipSelection::fromChapters(chapters, std::nullopt); }),
              Kind::chapters);
}

// ---- File suffix ------------------------------------------------------------------------------

struct SuffixCase {
    std::string name;
    std::size_t index;
    std::string suffix;
};

class FileSuffixTest : public testing::TestWithParam<SuffixCase> {};

TEST_P(FileSuffixTest, SlugsTheName) {
    const SuffixCase& row = GetParam();
    EXPECT_EQ(ClipSelection(Trim{}, row.name).fileSuffix(row.index), row.suffix)
        << '"' << row.name << '"';
}

INSTANTIATE_TEST_SUITE_P(
    Table, FileSuffixTest,
    testing::Values(
        SuffixCase{"Intro & Credits", 2, "-clip-003-intro-credits"}, SuffixCase{"", 0, "-clip-001"},
        SuffixCase{"Part 1", 0, "-clip-001-part-1"},
        SuffixCase{"MIXED Case 42", 11, "-clip-012-mixed-case-42"},
        SuffixCase{"--Hello--World--", 0, "-clip-001-hello-world"},
        // Letters outside a-z leave nothing but a separator; a name made only of them has an
        // empty slug and the position alone names the file.
        SuffixCase{"日本語のタイトル", 4, "-clip-005"}, SuffixCase{"Привет мир", 0, "-clip-001"},
        SuffixCase{"عنوان", 0, "-clip-001"}, SuffixCase{"Café Olé", 0, "-clip-001-caf-ol"},
        SuffixCase{"Été 2024", 0, "-clip-001-t-2024"},
        // Lower-casing is Unicode's: the dotted capital I gives i and a combining dot, the
        // Kelvin sign gives k.
        SuffixCase{"İstanbul", 0, "-clip-001-i-stanbul"}, SuffixCase{"\u212A2", 0, "-clip-001-k2"},
        SuffixCase{std::string(60, 'a'), 0, "-clip-001-" + std::string(48, 'a')},
        // The slug is cut after separators are trimmed, so a cut may end on one.
        SuffixCase{std::string(47, 'a') + " b", 0, "-clip-001-" + std::string(47, 'a') + "-"},
        SuffixCase{"x", 999, "-clip-1000-x"}));

// ---- Task for one clip ------------------------------------------------------------------------

TEST(TaskForClip, GivesTheClipsRangeAndAppendsItsSuffix) {
    const ClipSelection clip(Trim{"1:00", "1:30"}, "Intro & Credits");
    const Trim clipTrim{"1:00", "1:30"};

    Preset preset = Preset::mp4H264();
    preset.options.trim = Trim{"5", "6"};
    const MediaTask convert = taskForClip(MediaTask::convert(preset), clip, 2);
    Preset expected = preset;
    expected.options.trim = clipTrim;
    expected.filenameSuffix = preset.filenameSuffix + "-clip-003-intro-credits";
    EXPECT_EQ(convert, MediaTask::convert(expected));

    const AudioExtractionOptions audio =
        AudioExtractionOptions::make(AudioExtractionCodec::flac, 192);
    const MediaTask extract = taskForClip(MediaTask::extractAudio(audio), clip, 0);
    AudioExtractionOptions expectedAudio = audio;
    expectedAudio.trim = clipTrim;
    expectedAudio.naming.filenameSuffix = "-audio-clip-001-intro-credits";
    EXPECT_EQ(extract, MediaTask::extractAudio(expectedAudio));

    EXPECT_EQ(taskForClip(MediaTask::fastCut(Trim{"0", "1"}), clip, 0),
              MediaTask::fastCut(clipTrim));

    const std::vector<Trim> ranges = {Trim{"0.000000", "1.000000"}};
    Preset joined = preset;
    joined.options.trim = Trim{};
    Preset expectedJoin = joined;
    expectedJoin.filenameSuffix += "-clip-001-intro-credits";
    EXPECT_EQ(taskForClip(MediaTask::join(joined, ranges, true), clip, 0),
              MediaTask::join(expectedJoin, ranges, true));
}

}  // namespace
}  // namespace tessarin::engine
