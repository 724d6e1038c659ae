#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "presets/CustomPreset.hpp"

namespace tessarin::presets {
namespace {

using nlohmann::json;
using ::testing::MatchesRegex;

constexpr const char* kCustomIDPattern =
    "custom-[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}";

struct Decoded {
    CustomPreset custom;
    std::set<std::string> noted;
};

Decoded decode(const json& value) {
    DecodeRepairLog log;
    CustomPreset custom = CustomPreset::fromJSON(value, &log);
    return {custom, log.recordedFields()};
}

const json kNewerRecord = json::parse(R"({
    "schemaVersion": 7,
    "id": "custom-7F1C2B9A-0000-4000-8000-000000000007",
    "name": "From the future",
    "format": "av1",
    "parameters": {"quality": 70, "fps": 24, "grain": {"level": 3}},
    "palette": [1, 2.5, "x", null, true],
    "tags": {"pinned": true}
})");

TEST(CustomPresetDecoding, CurrentRecordRoundTrips) {
    CustomPreset custom;
    custom.id = makeCustomPresetID();
    custom.name = "My GIF";
    custom.format = PresetFormat::gif;
    custom.parameters = defaultParameters(PresetFormat::gif);
    custom.parameters.dither = "bayer";
    const json stored = json::parse(custom.toJSON().dump());
    EXPECT_EQ(stored.at("schemaVersion"), 1);
    EXPECT_EQ(stored.at("format"), "gif");

    const Decoded decoded = decode(stored);
    EXPECT_TRUE(decoded.noted.empty());
    EXPECT_EQ(decoded.custom, custom);
    EXPECT_FALSE(decoded.custom.isReadOnly());
}

TEST(CustomPresetDecoding, MissingFieldsAreMadeUpAndNoted) {
    const Decoded decoded = decode(json::object());
    EXPECT_THAT(decoded.custom.id, MatchesRegex(kCustomIDPattern));
    EXPECT_EQ(decoded.custom.name, "Preset");
    EXPECT_EQ(decoded.custom.format, PresetFormat::h264);
    EXPECT_EQ(decoded.custom.parameters, defaultParameters(PresetFormat::h264));
    EXPECT_EQ(decoded.custom.schemaVersion, 1);
    EXPECT_FALSE(decoded.custom.needsIDWriteBack);
    EXPECT_EQ(decoded.noted, (std::set<std::string>{"format", "id", "name", "parameters"}));

    // Two made-up ids differ.
    EXPECT_NE(decoded.custom.id, decode(json::object()).custom.id);
}

TEST(CustomPresetDecoding, FieldErrorsAreNotedUnderTheirOwnNames) {
    const Decoded decoded = decode({{"id", 12},
                                    {"name", "Clip"},
                                    {"format", "prores"},
                                    {"parameters", {{"quality", "high"}, {"fps", 12}}}});
    EXPECT_THAT(decoded.custom.id, MatchesRegex(kCustomIDPattern));
    EXPECT_EQ(decoded.custom.format, PresetFormat::h264);
    EXPECT_EQ(decoded.custom.parameters.fps, 12);
    EXPECT_EQ(decoded.noted, (std::set<std::string>{"format", "id", "quality"}));

    // Parameters given a format's defaults follow the format that was read.
    EXPECT_EQ(decode({{"format", "gif"}, {"parameters", 3}}).custom.parameters,
              defaultParameters(PresetFormat::gif));
}

TEST(CustomPresetDecoding, SchemaVersionDecidesThePath) {
    struct Row {
        json version;
        std::optional<int64_t> expected;
        bool unsupported;
    };
    const std::vector<Row> rows = {
        {1, 1, false},
        {0, 0, false},
        {-3, -3, false},
        {1.0, 1, false},
        {2, 2, true},
        {7, 7, true},
        {"two", std::nullopt, true},
        {1.5, std::nullopt, true},
        {nullptr, std::nullopt, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.version.dump());
        json record = {{"schemaVersion", row.version},
                       {"id", "custom-A"},
                       {"name", "N"},
                       {"format", "vp9"},
                       {"parameters", json::object()}};
        const Decoded decoded = decode(record);
        EXPECT_EQ(decoded.custom.schemaVersion, row.expected);
        EXPECT_EQ(decoded.custom.unsupportedBlob.has_value(), row.unsupported);
        EXPECT_EQ(decoded.custom.isReadOnly(), row.unsupported);
        EXPECT_EQ(decoded.custom.format, PresetFormat::vp9);
        EXPECT_TRUE(decoded.noted.empty());
        // A supported record is written back as the current schema.
        const json written = decoded.custom.toJSON();
        EXPECT_EQ(written.at("schemaVersion"), row.unsupported ? row.version : json(1));
    }
}

TEST(CustomPresetDecoding, NewerRecordIsKeptWholeAndUsableWithSanitisedValues) {
    const Decoded decoded = decode(kNewerRecord);
    const CustomPreset& custom = decoded.custom;
    EXPECT_TRUE(decoded.noted.empty());
    EXPECT_TRUE(custom.isReadOnly());
    EXPECT_FALSE(custom.needsIDWriteBack);
    EXPECT_EQ(custom.id, "custom-7F1C2B9A-0000-4000-8000-000000000007");
    EXPECT_EQ(custom.name, "From the future");
    EXPECT_EQ(custom.format, PresetFormat::av1);
    EXPECT_EQ(custom.parameters.quality, 63);  // 70 is beyond AV1's range here
    EXPECT_EQ(custom.parameters.fps, 24);

    const json written = json::parse(custom.toJSON().dump());
    EXPECT_EQ(written, kNewerRecord);
    // Number kinds survive too: 2.5 stays a double, 1 an integer.
    EXPECT_TRUE(written.at("palette").at(1).is_number_float());
    EXPECT_TRUE(written.at("palette").at(0).is_number_integer());
}

TEST(CustomPresetDecoding, UnsupportedRecordWithoutIdGetsOneWrittenIntoTheBlob) {
    const Decoded decoded = decode(json::parse(R"({"schemaVersion": "two", "extra": [1]})"));
    const CustomPreset& custom = decoded.custom;
    EXPECT_FALSE(custom.schemaVersion.has_value());
    EXPECT_THAT(custom.id, MatchesRegex(kCustomIDPattern));
    EXPECT_EQ(custom.name, "Preset");
    EXPECT_EQ(custom.format, PresetFormat::h264);
    EXPECT_EQ(custom.parameters, defaultParameters(PresetFormat::h264));
    EXPECT_TRUE(custom.needsIDWriteBack);
    EXPECT_TRUE(decoded.noted.empty());

    json expected = json::parse(R"({"schemaVersion": "two", "extra": [1]})");
    expected["id"] = custom.id;
    EXPECT_EQ(custom.toJSON(), expected);
}

TEST(CustomPresetDecoding, OnlyAnObjectDecodes) {
    for (const json& value : {json(1), json("custom"), json::array({1}), json(nullptr)}) {
        EXPECT_THROW((void)CustomPreset::fromJSON(value), PresetDecodeError) << value.dump();
    }
}

TEST(JSONFragment, KeepsEveryValueAndTellsIntegersFromDoubles) {
    const json value = json::parse(
        R"({"a": [true, false, null, 0, -5, 18446744073709551615, 1.25, 3.0, "ü"], "b": {}})");
    const JSONFragment fragment = JSONFragment::fromJSON(value);
    EXPECT_TRUE(fragment.isObject());
    EXPECT_EQ(fragment.toJSON(), value);

    const JSONFragment seven = JSONFragment::fromJSON(json::parse("7"));
    const JSONFragment sevenPointZero = JSONFragment::fromJSON(json::parse("7.0"));
    EXPECT_NE(seven, sevenPointZero);
    EXPECT_EQ(sevenPointZero, JSONFragment{7.0});
    EXPECT_EQ(seven, JSONFragment{int64_t{7}});
    // Unsigned values beyond the signed range become doubles.
    const auto& big = std::get<JSONFragment::Object>(fragment.value).at("a").value;
    EXPECT_TRUE(std::holds_alternative<double>(std::get<JSONFragment::Array>(big).at(5).value));
    EXPECT_EQ(JSONFragment::fromJSON(json::parse(R"({"x": [1, {"y": null}]})")),
              JSONFragment::fromJSON(json::parse(R"({"x":[1,{"y":null}]})")));
}

}  // namespace
}  // namespace tessarin::presets
