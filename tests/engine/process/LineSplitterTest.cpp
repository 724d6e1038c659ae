#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "engine/process/LineSplitter.hpp"

namespace tessarin::engine {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> feedInChunks(LineSplitter& splitter, const std::string& bytes,
                                      std::size_t chunk) {
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < bytes.size(); i += chunk) {
        for (std::string& line : splitter.feed(std::string_view(bytes).substr(i, chunk))) {
            lines.push_back(std::move(line));
        }
    }
    return lines;
}

TEST(LineSplitter, SplitsAtLineFeedsAndKeepsCarriageReturns) {
    LineSplitter splitter(100);
    EXPECT_THAT(splitter.feed("a\nb\r\n\nc"), ElementsAre("a", "b\r", ""));
    EXPECT_THAT(splitter.feed("d\n"), ElementsAre("cd"));
    EXPECT_EQ(splitter.flush(), std::nullopt);
    EXPECT_THAT(splitter.feed("rest"), ElementsAre());
    EXPECT_EQ(splitter.flush(), "rest");
    EXPECT_EQ(splitter.flush(), std::nullopt);
}

// The boundary cases, whole and spread over chunks of various sizes.
TEST(LineSplitter, LineAtTheLimitIsDeliveredAndOneByteMoreIsDroppedWhole) {
    constexpr std::size_t kLimit = 65'536;
    const std::string atLimit(kLimit, 'a');
    const std::string overLimit(kLimit + 1, 'b');
    const std::string stream = atLimit + "\n" + overLimit + "\nafter\n" + overLimit + "\nend";
    for (const std::size_t chunk : {stream.size(), std::size_t{1000}, std::size_t{7},
                                    std::size_t{65'536}, std::size_t{65'537}}) {
        LineSplitter splitter(kLimit);
        const std::vector<std::string> lines = feedInChunks(splitter, stream, chunk);
        ASSERT_EQ(lines.size(), 2U) << "chunk " << chunk;
        EXPECT_EQ(lines[0], atLimit);
        EXPECT_EQ(lines[1], "after");
        EXPECT_EQ(splitter.flush(), "end");
    }
}

TEST(LineSplitter, OversizedUnterminatedRestIsNotFlushed) {
    LineSplitter splitter(4);
    EXPECT_THAT(splitter.feed("ok\nabc"), ElementsAre("ok"));
    EXPECT_THAT(splitter.feed("de"), ElementsAre());
    EXPECT_EQ(splitter.flush(), std::nullopt);
    // Flushing also ends the discarding.
    EXPECT_THAT(splitter.feed("xy\n"), ElementsAre("xy"));
}

TEST(LineSplitter, InvalidUtf8IsRepaired) {
    LineSplitter splitter(100);
    EXPECT_THAT(splitter.feed("caf\xC3\xA9 \xC3(\n"), ElementsAre("caf\xC3\xA9 \xEF\xBF\xBD("));
}

TEST(RepairUtf8, ReplacesEachMaximalInvalidSubpart) {
    const std::string fffd = "\xEF\xBF\xBD";
    struct Case {
        std::string input;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"plain", "plain"},
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},  // a valid 4-byte character
        {"\xC0\xAF", fffd + fffd},                 // overlong encoding
        {"\xED\xA0\x80", fffd + fffd + fffd},      // a surrogate
        {"\xE2\x82"
         "x",
         fffd + "x"},                                      // truncated 3-byte sequence
        {"\xF0\x9F\x98", fffd},                            // truncated at the end
        {"\x80\x80", fffd + fffd},                         // stray continuation bytes
        {"\xF5\x80", fffd + fffd},                         // beyond U+10FFFF
        {std::string("a\0b", 3), std::string("a\0b", 3)},  // NUL passes through
    };
    for (const Case& c : cases) {
        EXPECT_EQ(repairUtf8(c.input), c.expected) << "input of " << c.input.size() << " bytes";
    }
}

}  // namespace
}  // namespace tessarin::engine
