#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "engine/text/UnicodeText.hpp"

namespace tessarin::engine {
namespace {

// ---- Decoding ---------------------------------------------------------------------------------

struct DecodeCase {
    std::string label;
    std::string bytes;
    std::u32string lossy;
    bool wellFormed;
};

class DecodeTest : public testing::TestWithParam<DecodeCase> {};

TEST_P(DecodeTest, StrictRefusesWhatLossyReplaces) {
    const DecodeCase& row = GetParam();
    EXPECT_EQ(decodeUtf8Lossy(row.bytes), row.lossy);
    EXPECT_EQ(decodeUtf8(row.bytes),
              row.wellFormed ? std::optional<std::u32string>(row.lossy) : std::nullopt);
    if (row.wellFormed) {
        EXPECT_EQ(encodeUtf8(row.lossy), row.bytes);
    }
}

// One U+FFFD stands for each maximal subpart of an ill-formed sequence: a lead byte and the
// continuation bytes that could still have followed it.
INSTANTIATE_TEST_SUITE_P(
    Table, DecodeTest,
    testing::Values(
        DecodeCase{"empty", "", U"", true}, DecodeCase{"ascii", "Intro 1", U"Intro 1", true},
        DecodeCase{"everyLength", "\u00e9\u65e5\U0001F3AC", U"\u00e9\u65e5\U0001F3AC", true},
        DecodeCase{"largest", "\U0010FFFF", U"\U0010FFFF", true},
        DecodeCase{"nonCharacter", "\xEF\xBF\xBE", U"\uFFFE", true},
        DecodeCase{"strayByte", "bad \xFF byte", U"bad \uFFFD byte", false},
        DecodeCase{"loneContinuation", "\x80", U"\uFFFD", false},
        DecodeCase{"latin1", "caf\xE9", U"caf\uFFFD", false},
        DecodeCase{"overlongTwo", "\xC0\xAF", U"\uFFFD\uFFFD", false},
        DecodeCase{"overlongThree", "\xE0\x80\xAF", U"\uFFFD\uFFFD\uFFFD", false},
        DecodeCase{"overlongFour", "\xF0\x8F\xBF\xBF", U"\uFFFD\uFFFD\uFFFD\uFFFD", false},
        DecodeCase{"surrogate", "\xED\xA0\x80", U"\uFFFD\uFFFD\uFFFD", false},
        DecodeCase{"aboveLargest", "\xF4\x90\x80\x80", U"\uFFFD\uFFFD\uFFFD\uFFFD", false},
        DecodeCase{"leadOutOfRange", "\xF5\x80", U"\uFFFD\uFFFD", false},
        DecodeCase{"truncatedAtEnd", "a\xF0\x9F\x8E", U"a\uFFFD", false},
        DecodeCase{"truncatedBeforeAscii", "\xE6\x97x", U"\uFFFDx", false}),
    [](const testing::TestParamInfo<DecodeCase>& info) { return info.param.label; });

// ---- Character sets ---------------------------------------------------------------------------

struct ClassCase {
    char32_t scalar;
    bool control;
    bool blank;
    bool whitespaceOrNewline;
};

class ClassTest : public testing::TestWithParam<ClassCase> {};

TEST_P(ClassTest, SortsTheScalar) {
    const ClassCase& row = GetParam();
    const auto code = static_cast<uint32_t>(row.scalar);
    EXPECT_EQ(isControl(row.scalar), row.control) << std::hex << code;
    EXPECT_EQ(isBlank(row.scalar), row.blank) << std::hex << code;
    EXPECT_EQ(isWhitespaceOrNewline(row.scalar), row.whitespaceOrNewline) << std::hex << code;
}

INSTANTIATE_TEST_SUITE_P(
    Table, ClassTest,
    testing::Values(ClassCase{U'a', false, false, false}, ClassCase{U' ', false, true, true},
                    ClassCase{U'\t', true, true, true}, ClassCase{U'\n', true, false, true},
                    ClassCase{U'\x7f', true, false, false}, ClassCase{U'\u0085', true, false, true},
                    ClassCase{U'\u00A0', false, true, true},
                    ClassCase{U'\u200B', true, false, false},
                    ClassCase{U'\u2028', false, false, true},
                    ClassCase{U'\u3000', false, true, true},
                    ClassCase{U'\uFEFF', true, false, false}),
    [](const testing::TestParamInfo<ClassCase>& info) {
        char name[16];
        std::snprintf(name, sizeof name, "U%04X", static_cast<unsigned>(info.param.scalar));
        return std::string(name);
    });

TEST(UnicodeText, TrimmedStripsOnlyTheEnds) {
    EXPECT_EQ(trimmed(U" \t a b \u00A0", isBlank), U"a b");
    EXPECT_EQ(trimmed(U"\n a\n", isBlank), U"\n a\n");
    EXPECT_EQ(trimmed(U"\n a\n", isWhitespaceOrNewline), U"a");
    EXPECT_EQ(trimmed(U"   ", isBlank), U"");
}

// ---- Characters -------------------------------------------------------------------------------

struct CharacterCase {
    std::string label;
    std::u32string scalars;
    std::size_t count;
    std::u32string firstTwo;
};

class CharacterTest : public testing::TestWithParam<CharacterCase> {};

TEST_P(CharacterTest, CountsWhatAUserSees) {
    const CharacterCase& row = GetParam();
    EXPECT_EQ(characterCount(row.scalars), row.count);
    EXPECT_EQ(characterPrefix(row.scalars, 2), row.firstTwo);
    EXPECT_EQ(characterPrefix(row.scalars, 0), U"");
    EXPECT_EQ(characterPrefix(row.scalars, row.count + 1), row.scalars);
}

INSTANTIATE_TEST_SUITE_P(
    Table, CharacterTest,
    testing::Values(CharacterCase{"empty", U"", 0, U""}, CharacterCase{"ascii", U"abc", 3, U"ab"},
                    CharacterCase{"crlfIsOne", U"a\r\nb", 3, U"a\r\n"},
                    CharacterCase{"combining", U"e\u0301e\u0301e", 3, U"e\u0301e\u0301"},
                    CharacterCase{"flags", U"\U0001F1EB\U0001F1F7\U0001F1E9\U0001F1EAx", 3,
                                  U"\U0001F1EB\U0001F1F7\U0001F1E9\U0001F1EA"},
                    CharacterCase{"zwjFamily", U"\U0001F468\u200D\U0001F469\u200D\U0001F467!", 2,
                                  U"\U0001F468\u200D\U0001F469\u200D\U0001F467!"},
                    CharacterCase{"japanese", U"日本語", 3, U"日本"}),
    [](const testing::TestParamInfo<CharacterCase>& info) { return info.param.label; });

// ---- Lower-casing -----------------------------------------------------------------------------

TEST(UnicodeText, LowercasesWithFullMappingsAndNoLanguageRules) {
    EXPECT_EQ(lowercased(U"MIXED Case 42"), U"mixed case 42");
    EXPECT_EQ(lowercased(U"\u00C4RGER"), U"\u00E4rger");
    EXPECT_EQ(lowercased(U"\u212A"), U"k");                      // the Kelvin sign
    EXPECT_EQ(lowercased(U"\u0130stanbul"), U"i\u0307stanbul");  // no Turkish rule
    EXPECT_EQ(lowercased(U"\u039F\u0394\u039F\u03A3"), U"\u03BF\u03B4\u03BF\u03C2");  // final sigma
    EXPECT_EQ(lowercased(U"\U00010400"), U"\U00010428");  // outside the first plane
    EXPECT_EQ(lowercased(decodeUtf8Lossy("BAD \xFF BYTE")), U"bad \uFFFD byte");
}

}  // namespace
}  // namespace tessarin::engine
