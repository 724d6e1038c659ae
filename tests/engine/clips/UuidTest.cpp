#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "engine/clips/Uuid.hpp"

namespace tessarin::engine {
namespace {

using namespace std::string_literals;

TEST(Uuid, RandomIsVersionFourAndRoundTripsThroughText) {
    const Uuid id = Uuid::random();
    EXPECT_EQ(id.bytes[6] >> 4, 4);
    EXPECT_EQ(id.bytes[8] & 0xC0, 0x80);
    EXPECT_NE(id, Uuid::random());
    EXPECT_EQ(Uuid::fromText(id.text()), id);
}

TEST(Uuid, FromTextTakesEitherCaseAndPrintsLowerCase) {
    const std::optional<Uuid> parsed = Uuid::fromText("6BA7B810-9DAD-11D1-80B4-00C04FD430C8");
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->bytes[0], 0x6B);
    EXPECT_EQ(parsed->bytes[15], 0xC8);
    EXPECT_EQ(parsed->text(), "6ba7b810-9dad-11d1-80b4-00c04fd430c8");
    EXPECT_EQ(Uuid::fromText("6ba7b810-9dad-11d1-80b4-00c04fd430c8"), parsed);
}

TEST(Uuid, FromTextRefusesAllButTheDashedForm) {
    for (const std::string& bad : {
             ""s,
             "6ba7b810-9dad-11d1-80b4-00c04fd430c"s,     // short
             "6ba7b810-9dad-11d1-80b4-00c04fd430c8 "s,   // long
             "6ba7b8109dad11d180b400c04fd430c8"s,        // no dashes
             "{6ba7b810-9dad-11d1-80b4-00c04fd430c8}"s,  // braces
             "6ba7b810-9dad-11d1-80b4-00c04fd430cg"s,    // not hexadecimal
             "6ba7b810+9dad-11d1-80b4-00c04fd430c8"s,    // a dash elsewhere
             "6ba7b81-09dad-11d1-80b4-00c04fd430c8"s,
             "+ba7b810-9dad-11d1-80b4-00c04fd430c8"s,  // what strtoul alone would take
             " ba7b810-9dad-11d1-80b4-00c04fd430c8"s,
             "0xa7b810-9dad-11d1-80b4-00c04fd430c8"s,
             "6ba7b810-9dad-11d1-80b4-00c04fd430c\0"s,  // NUL inside the length
             "6ba7b810-9dad-11d1-80b4-00c04fd430\xC3\xA9"s,
         }) {
        EXPECT_EQ(Uuid::fromText(bad), std::nullopt) << '"' << bad << '"';
    }
    // Only the view is read, not what follows it in memory.
    const std::string longer = "6ba7b810-9dad-11d1-80b4-00c04fd430c8ff";
    EXPECT_TRUE(Uuid::fromText(std::string_view(longer).substr(0, 36)).has_value());
}

}  // namespace
}  // namespace tessarin::engine
