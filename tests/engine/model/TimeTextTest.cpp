#include <gtest/gtest.h>
#include <locale.h>

#include <limits>
#include <optional>
#include <string>

#include "engine/model/TimeText.hpp"

namespace tessarin::engine {
namespace {

struct TimeCase {
    const char* text;
    std::optional<double> seconds;
};

class ParseTimeSecondsTest : public testing::TestWithParam<TimeCase> {};

TEST_P(ParseTimeSecondsTest, ReadsOrRefuses) {
    const TimeCase& row = GetParam();
    const std::optional<double> parsed = parseTimeSeconds(row.text);
    if (row.seconds) {
        ASSERT_TRUE(parsed.has_value()) << '"' << row.text << '"';
        EXPECT_DOUBLE_EQ(*parsed, *row.seconds) << '"' << row.text << '"';
    } else {
        EXPECT_FALSE(parsed.has_value()) << '"' << row.text << "\" gave " << *parsed;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ParseTimeSecondsTest,
    testing::Values(TimeCase{"90", 90}, TimeCase{"1:30", 90}, TimeCase{"0:01:30.0", 90},
                    TimeCase{"1.5:00", 90}, TimeCase{"1:", 1}, TimeCase{"1::2", 62},
                    TimeCase{"::5", 5}, TimeCase{"0", 0}, TimeCase{"1:00:00", 3600},
                    TimeCase{"1e2", 100}, TimeCase{"0.25", 0.25},
                    // refused
                    TimeCase{"", std::nullopt}, TimeCase{":", std::nullopt},
                    TimeCase{"::", std::nullopt}, TimeCase{"1:2:3:4", std::nullopt},
                    TimeCase{" 5", std::nullopt}, TimeCase{"5 ", std::nullopt},
                    TimeCase{"-1", std::nullopt}, TimeCase{"1:-2", std::nullopt},
                    TimeCase{"inf", std::nullopt}, TimeCase{"nan", std::nullopt},
                    TimeCase{"1e400", std::nullopt}, TimeCase{"abc", std::nullopt},
                    TimeCase{"1,5", std::nullopt}, TimeCase{"5s", std::nullopt}));

// Three pieces of 1e307 each overflow the running total although each piece is finite.
TEST(ParseTimeSeconds, RefusesTotalThatOverflows) {
    EXPECT_FALSE(parseTimeSeconds("1e307:0:0").has_value());
    EXPECT_TRUE(parseTimeSeconds("1e300:0:0").has_value());
}

// A user's locale with a decimal comma must not change how times read.
TEST(ParseTimeSeconds, IgnoresTheProcessLocale) {
    const std::string previous = setlocale(LC_NUMERIC, nullptr);
    if (setlocale(LC_NUMERIC, "de_DE.UTF-8") == nullptr &&
        setlocale(LC_NUMERIC, "fr_FR.UTF-8") == nullptr) {
        GTEST_SKIP() << "no locale with a decimal comma is installed";
    }
    const std::optional<double> point = parseTimeSeconds("1.5");
    const std::optional<double> comma = parseTimeSeconds("1,5");
    setlocale(LC_NUMERIC, previous.c_str());
    ASSERT_TRUE(point.has_value());
    EXPECT_DOUBLE_EQ(*point, 1.5);
    EXPECT_FALSE(comma.has_value());
}

TEST(ValidateTrim, EndAtZeroWithoutStartSelectsNothing) {
    const std::optional<JobFailure> failure = validateTrim(std::nullopt, "0", std::nullopt);
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(*failure, JobFailure("trim", std::nullopt,
                                   "Trim start (0) is at or after trim end (0) — the range "
                                   "selects nothing."));
}

TEST(ValidateTrim, StartAtOrAfterEndQuotesTheTypedTexts) {
    const std::optional<JobFailure> failure = validateTrim("0:10", "5.0", 60.0);
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->stderrTail,
              "Trim start (0:10) is at or after trim end (5.0) — the range selects nothing.");
    EXPECT_EQ(failure->step, "trim");
    EXPECT_FALSE(failure->wasCancelled);

    EXPECT_TRUE(validateTrim("5", "5", std::nullopt).has_value());
    EXPECT_FALSE(validateTrim("4.999", "5", std::nullopt).has_value());
}

TEST(ValidateTrim, UnparsedTextsTakeNoPart) {
    EXPECT_FALSE(validateTrim("abc", "5", std::nullopt).has_value());
    EXPECT_FALSE(validateTrim("3", "abc", std::nullopt).has_value());
    EXPECT_FALSE(validateTrim("9", "abc", 100.0).has_value());
    EXPECT_FALSE(validateTrim(std::nullopt, "abc", 100.0).has_value());
    EXPECT_FALSE(validateTrim("abc", "abc", 100.0).has_value());
    // "abc" as a start is not "0": end 0 still compares against a start that did not parse.
    EXPECT_TRUE(validateTrim("abc", "0", std::nullopt).has_value());
}

TEST(ValidateTrim, StartAtTheSourceDurationSelectsNoFrames) {
    const std::optional<JobFailure> failure = validateTrim("12", std::nullopt, 12.0);
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(*failure,
              JobFailure::sentence("trim",
                                   "Trim start (12) is at or past the source duration (12s) — the "
                                   "range selects no frames."));
    EXPECT_FALSE(validateTrim("11.999", std::nullopt, 12.0).has_value());

    const std::optional<JobFailure> fractional = validateTrim("0:13", std::nullopt, 12.5);
    ASSERT_TRUE(fractional.has_value());
    EXPECT_EQ(fractional->stderrTail,
              "Trim start (0:13) is at or past the source duration (12.5s) — the range selects "
              "no frames.");
}

TEST(ValidateTrim, UnknownOrZeroDurationSkipsTheDurationCheck) {
    EXPECT_FALSE(validateTrim("100", std::nullopt, std::nullopt).has_value());
    EXPECT_FALSE(validateTrim("100", std::nullopt, 0.0).has_value());
    EXPECT_FALSE(validateTrim(std::nullopt, std::nullopt, 5.0).has_value());
}

TEST(FormatSeconds, WholeValuesAsIntegersOthersWithOneDecimal) {
    EXPECT_EQ(formatSeconds(12.0), "12s");
    EXPECT_EQ(formatSeconds(12.5), "12.5s");
    EXPECT_EQ(formatSeconds(0.0), "0s");
    EXPECT_EQ(formatSeconds(0.04), "0.0s");
    EXPECT_EQ(formatSeconds(-3.0), "-3s");
    EXPECT_EQ(formatSeconds(9007199254740992.0), "9007199254740992s");
    // 2^63 does not fit a signed 64-bit integer, so it takes the decimal form.
    EXPECT_EQ(formatSeconds(9223372036854775808.0), "9223372036854775808.0s");
    EXPECT_EQ(formatSeconds(std::numeric_limits<double>::infinity()), "infs");
}

}  // namespace
}  // namespace tessarin::engine
