#include <gtest/gtest.h>

#include <random>
#include <string>

#include "engine/process/BoundedTailBuffer.hpp"

namespace tessarin::engine {
namespace {

std::string numberedLines(int first, int last) {
    std::string text;
    for (int i = first; i <= last; ++i) {
        text += "line " + std::to_string(i) + "\n";
    }
    return text;
}

TEST(BoundedTailBuffer, TailKeepsTheLastLinesOfMany) {
    BoundedTailBuffer buffer(4096);
    buffer.append(numberedLines(1, 40));
    // The final line break leaves an empty last line, which counts and is then trimmed.
    std::string expected = numberedLines(12, 40);
    expected.pop_back();
    EXPECT_EQ(buffer.tail(30), expected);
    EXPECT_FALSE(buffer.truncated());
}

TEST(BoundedTailBuffer, TailOfFewerLinesThanAskedReturnsAllTrimmed) {
    BoundedTailBuffer buffer(4096);
    buffer.append("  \nfirst\n\nthird  \n\n");
    EXPECT_EQ(buffer.tail(30), "first\n\nthird");
    EXPECT_EQ(buffer.tail(0), "");
}

TEST(BoundedTailBuffer, CarriageReturnsBreakLines) {
    BoundedTailBuffer buffer(4096);
    buffer.append("a\r\nb\rframe=1\rframe=2\r\nlast");
    EXPECT_EQ(buffer.tail(2), "frame=2\nlast");
    EXPECT_EQ(buffer.tail(5), "a\nb\nframe=1\nframe=2\nlast");
}

TEST(BoundedTailBuffer, DropsFromTheFrontAndMarksTruncation) {
    BoundedTailBuffer buffer(8);
    buffer.append("0123");
    buffer.append("4567");
    EXPECT_FALSE(buffer.truncated());
    EXPECT_EQ(buffer.data(), "01234567");
    buffer.append("89");
    EXPECT_TRUE(buffer.truncated());
    EXPECT_EQ(buffer.data(), "23456789");
    EXPECT_EQ(buffer.tail(30), "\xE2\x80\xA6[truncated]\n23456789");
    buffer.append("abcdefghijkl");
    EXPECT_EQ(buffer.data(), "efghijkl");
}

TEST(BoundedTailBuffer, RingMatchesTheTailOfEverythingAppended) {
    std::mt19937 random(7);
    for (const std::size_t capacity : {1UL, 13UL, 1000UL}) {
        BoundedTailBuffer buffer(capacity);
        std::string everything;
        for (int round = 0; round < 300; ++round) {
            const std::size_t length = random() % (2 * capacity + 3);
            std::string chunk(length, '\0');
            for (char& c : chunk) {
                c = static_cast<char>('a' + random() % 26);
            }
            buffer.append(chunk);
            everything += chunk;
            const std::size_t kept = std::min(capacity, everything.size());
            ASSERT_EQ(buffer.data(), everything.substr(everything.size() - kept))
                << "capacity " << capacity << " round " << round;
            ASSERT_EQ(buffer.truncated(), everything.size() > capacity);
        }
    }
}

TEST(BoundedTailBuffer, InvalidUtf8IsRepairedInTheTail) {
    BoundedTailBuffer buffer(64);
    buffer.append("bad \xFF byte\nhalf \xE2\x82");
    EXPECT_EQ(buffer.tail(30), "bad \xEF\xBF\xBD byte\nhalf \xEF\xBF\xBD");
}

TEST(BoundedTailBuffer, TruncationCanCutAMultibyteCharacter) {
    BoundedTailBuffer buffer(4);
    buffer.append(
        "\xE2\x82\xAC"
        "abc");  // "€abc": the front of the euro sign is dropped
    EXPECT_EQ(buffer.tail(1),
              "\xE2\x80\xA6[truncated]\n\xEF\xBF\xBD"
              "abc");
}

}  // namespace
}  // namespace tessarin::engine
