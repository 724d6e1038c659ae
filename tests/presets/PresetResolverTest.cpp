#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "presets/PresetResolver.hpp"

namespace tessarin::presets {
namespace {

using engine::Preset;
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

std::vector<std::string> ids(const std::vector<Preset>& presets) {
    std::vector<std::string> result;
    for (const Preset& preset : presets) {
        result.push_back(preset.id);
    }
    return result;
}

std::vector<std::string> builtinIDs() {
    return ids({Preset::builtins().begin(), Preset::builtins().end()});
}

PresetResolver loadTexts(const std::optional<std::string>& overrides,
                         const std::optional<std::string>& customs) {
    return PresetResolver::load(overrides, customs);
}

PresetResolver loadJSON(const json& overrides, const json& customs) {
    return loadTexts(overrides.dump(), customs.dump());
}

const Preset& find(const std::vector<Preset>& presets, std::string_view id) {
    const auto found = std::find_if(presets.begin(), presets.end(),
                                    [&](const Preset& preset) { return preset.id == id; });
    if (found == presets.end()) {
        throw std::runtime_error("no preset " + std::string(id));
    }
    return *found;
}

TEST(PresetResolverLoad, NothingStoredGivesTheBuiltinTable) {
    const std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> rows = {
        {std::nullopt, std::nullopt}, {"", ""},
        {"{not json", "[1,"},         {"[]", "{}"},  // each collection of the other's shape
        {"17", "\"text\""},           {"{}", "[]"},
    };
    for (const auto& [overrides, customs] : rows) {
        SCOPED_TRACE(overrides.value_or("<none>") + " / " + customs.value_or("<none>"));
        const PresetResolver resolver = loadTexts(overrides, customs);
        EXPECT_THAT(resolver.overrides, IsEmpty());
        EXPECT_THAT(resolver.customs, IsEmpty());
        EXPECT_THAT(resolver.repairedSummaries, IsEmpty());
        const std::vector<Preset> effective = resolver.effectivePresets(Preset::builtins());
        EXPECT_TRUE(std::equal(effective.begin(), effective.end(), Preset::builtins().begin(),
                               Preset::builtins().end()));
    }

    // The JSON reader stops at a NUL byte: collections followed by one and more text are not JSON.
    const PresetResolver cut =
        loadTexts(std::string("{\"mp4-h264\": {}}\0x", 18), std::string("[{}]\0x", 6));
    EXPECT_THAT(cut.overrides, IsEmpty());
    EXPECT_THAT(cut.customs, IsEmpty());
}

TEST(PresetResolverLoad, OverridesApplyToBuiltinsInShippedOrder) {
    json h264 = defaultParameters(PresetFormat::h264).toJSON();
    h264["quality"] = 28;
    h264["scaleMode"] = "fitHeight";
    h264["scaleValue"] = 481;
    json gif = parameters(Preset::gifFull(), PresetFormat::gif).toJSON();
    gif["scaleMode"] = "fitWidth";
    gif["scaleValue"] = 481;
    gif["lossyMode"] = "level";
    gif["lossyLevel"] = 40;

    const PresetResolver resolver =
        loadJSON({{"mp4-h264", h264}, {"gif-full", gif}}, json::array());
    EXPECT_THAT(resolver.repairedSummaries, IsEmpty());
    const std::vector<Preset> effective = resolver.effectivePresets(Preset::builtins());
    EXPECT_EQ(ids(effective), builtinIDs());

    const Preset& video = effective[0];
    EXPECT_EQ(video.displayName, "MP4 · Compatible (H.264)");
    EXPECT_EQ(video.fileExtension, "mp4");
    EXPECT_EQ(video.filenameSuffix, "-h264_crf28");
    EXPECT_EQ(video.options.crf, 28);
    EXPECT_EQ(video.options.scale, engine::Scale::fitHeight(480));

    const Preset& gifFull = find(effective, "gif-full");
    EXPECT_EQ(gifFull.filenameSuffix, "-full_size");
    EXPECT_EQ(gifFull.options.scale, engine::Scale::fitWidth(481));
    EXPECT_EQ(gifFull.options.lossy, engine::GifLossy::atLevel(40));
    EXPECT_EQ(gifFull.options.fps, 10);

    // Built-ins without an override stand as shipped.
    EXPECT_EQ(find(effective, "mp4-h265"), Preset::mp4H265());
}

TEST(PresetResolverLoad, BadOverridesAreRepairedOrDropped) {
    const json stored = {
        {"webm-vp9", 17},                              // built-in id: the format's defaults
        {"not-shipped", 17},                           // unknown id: dropped silently
        {"kept-as-is", {{"quality", 9999}}},           // unknown id: kept, unsanitised
        {"mp4-h265", {{"quality", 52}}},               // clamped into 0-51
        {"mp4-h264-half", {{"quality", "crisp"}}},     // noted: the format's default
        {"mp4-h264-vt", {{"scaleMode", "fitWidth"}}},  // sound
    };
    const PresetResolver resolver = loadJSON(stored, json::array());

    EXPECT_EQ(resolver.overrides.at("webm-vp9"), defaultParameters(PresetFormat::vp9));
    EXPECT_FALSE(resolver.overrides.contains("not-shipped"));
    EXPECT_EQ(resolver.overrides.at("kept-as-is").quality, 9999);
    EXPECT_EQ(resolver.overrides.at("mp4-h265").quality, 51);
    EXPECT_EQ(resolver.overrides.at("mp4-h264-half").quality, 23);

    // Sentences follow the order of the built-in table.
    EXPECT_THAT(resolver.repairedSummaries,
                ElementsAre("Preset MP4 · Compatible (H.264, ½ size) had invalid values and was "
                            "repaired",
                            "Preset MP4 · Smaller (H.265) had invalid values and was repaired",
                            "Preset WebM · Efficient (VP9) had invalid values and was repaired"));
    EXPECT_EQ(resolver.repairedIDs,
              (std::set<std::string>{"mp4-h264-half", "mp4-h265", "webm-vp9"}));

    // The override of an id this version doesn't ship has no effect.
    EXPECT_EQ(ids(resolver.effectivePresets(Preset::builtins())), builtinIDs());
}

json customRecord(std::string id, std::string name, std::string format, json parameters) {
    return {{"schemaVersion", 1},
            {"id", std::move(id)},
            {"name", std::move(name)},
            {"format", std::move(format)},
            {"parameters", std::move(parameters)}};
}

TEST(PresetResolverLoad, CustomsFollowBuiltinsInStoredOrder) {
    const json customs = {
        customRecord("custom-1", "My GIF", "gif", {{"scaleMode", "half"}}), "not a record",
        customRecord("custom-2", "Archive", "vp9", {{"quality", 20}}),      17,
        customRecord("custom-3", "Fast", "hevcVT", json::object()),
    };
    const PresetResolver resolver = loadJSON(json::object(), customs);
    EXPECT_THAT(resolver.repairedSummaries, IsEmpty());
    const std::vector<Preset> effective = resolver.effectivePresets(Preset::builtins());
    std::vector<std::string> expectedIDs = builtinIDs();
    expectedIDs.insert(expectedIDs.end(), {"custom-1", "custom-2", "custom-3"});
    EXPECT_EQ(ids(effective), expectedIDs);

    const Preset& gif = find(effective, "custom-1");
    EXPECT_EQ(gif.displayName, "My GIF");
    EXPECT_EQ(gif.filenameSuffix, "-my-gif");
    EXPECT_EQ(gif.fileExtension, "gif");
    EXPECT_EQ(gif.options.scale, engine::Scale::half());
    EXPECT_FALSE(gif.options.crf.has_value());

    EXPECT_EQ(find(effective, "custom-2").fileExtension, "webm");
    EXPECT_EQ(find(effective, "custom-2").options.crf, 20);
    EXPECT_EQ(find(effective, "custom-3").fileExtension, "mp4");
    // A hardware custom decoded with the h264 fallback quality keeps 23 (inside 1-100).
    EXPECT_EQ(find(effective, "custom-3").options.crf, 23);
}

TEST(PresetResolverLoad, RepairedCustomsGiveOneSentenceEach) {
    json withoutID = customRecord("x", "No Id", "h264", json::object());
    withoutID.erase("id");
    const json customs = {
        withoutID,
        customRecord("custom-b", "Bad Quality", "h265", {{"quality", 80}}),
        customRecord("custom-c", "Bad Format", "mpeg2", json::object()),
        customRecord("custom-d", "Fine", "av1", {{"quality", 40}}),
        customRecord("custom-e", "Wrong Type", "gif", {{"optimizeGif", "yes"}}),
    };
    const PresetResolver resolver = loadJSON({{"gif-small", {{"fps", 0}}}}, customs);
    EXPECT_THAT(resolver.repairedSummaries,
                ElementsAre("Preset GIF · Small (⅓ size) had invalid values and was repaired",
                            "Preset No Id had invalid values and was repaired",
                            "Preset Bad Quality had invalid values and was repaired",
                            "Preset Bad Format had invalid values and was repaired",
                            "Preset Wrong Type had invalid values and was repaired"));
    ASSERT_EQ(resolver.customs.size(), 5U);
    EXPECT_THAT(resolver.customs[0].id, MatchesRegex("custom-[0-9A-F-]{36}"));
    EXPECT_TRUE(resolver.repairedIDs.contains(resolver.customs[0].id));
    EXPECT_FALSE(resolver.repairedIDs.contains("custom-d"));
    EXPECT_EQ(resolver.customs[1].parameters.quality, 51);
    EXPECT_EQ(resolver.customs[2].format, PresetFormat::h264);
    EXPECT_EQ(resolver.overrides.at("gif-small").fps, 1);
}

// What the application does at launch: a repair is saved once, and the next load is quiet.
TEST(PresetResolverLoad, SavedRepairsLoadWithoutSentences) {
    json withoutID = customRecord("x", "No Id", "gif", {{"lossyMode", "max"}});
    withoutID.erase("id");
    const PresetResolver first =
        loadJSON({{"mp4-av1", {{"quality", -4}}}, {"gif-full", 3}}, json::array({withoutID}));
    ASSERT_EQ(first.repairedSummaries.size(), 3U);

    const PresetResolver second = loadTexts(PresetResolver::encodeOverrides(first.overrides),
                                            PresetResolver::encodeCustoms(first.customs));
    EXPECT_THAT(second.repairedSummaries, IsEmpty());
    EXPECT_EQ(second.overrides, first.overrides);
    EXPECT_EQ(second.customs, first.customs);
}

TEST(PresetResolverCustoms, NewerRecordSurvivesEditsOfOtherCustoms) {
    const json newer = json::parse(R"({
        "schemaVersion": 7,
        "id": "custom-0A0B0C0D-1111-4222-8333-444455556666",
        "name": "Newer",
        "format": "hevcVT",
        "parameters": {"quality": 0, "toneMap": "hable"},
        "chapters": [{"at": 1.5, "title": "One"}],
        "owner": null
    })");
    const json customs = {
        customRecord("custom-1", "First", "h264", json::object()),
        newer,
        customRecord("custom-3", "Third", "gif", json::object()),
    };
    PresetResolver resolver = loadJSON(json::object(), customs);
    // Its parameters were sanitised for use (quality 0 is below 1-100), but that is no repair
    // of the stored record, which is never changed.
    EXPECT_THAT(resolver.repairedSummaries, IsEmpty());
    ASSERT_EQ(resolver.customs.size(), 3U);
    EXPECT_TRUE(resolver.customs[1].isReadOnly());
    EXPECT_EQ(resolver.customs[1].parameters.quality, 1);
    EXPECT_EQ(find(resolver.effectivePresets(Preset::builtins()),
                   "custom-0A0B0C0D-1111-4222-8333-444455556666")
                  .filenameSuffix,
              "-newer");

    // Add, edit and delete the others, then save and load again, twice over.
    std::vector<CustomPreset> edited = resolver.customs;
    CustomPreset added;
    added.id = makeCustomPresetID();
    added.name = "New Preset";
    added.parameters = defaultParameters(PresetFormat::h264);
    edited.push_back(added);
    edited[0].name = "First, renamed";
    edited[0].parameters.quality = 30;
    edited.erase(edited.begin() + 2);

    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        const std::string saved = PresetResolver::encodeCustoms(edited);
        const json savedJSON = json::parse(saved);
        ASSERT_EQ(savedJSON.size(), 3U);
        EXPECT_EQ(savedJSON[1], newer);
        EXPECT_EQ(savedJSON[0].at("name"), "First, renamed");
        EXPECT_EQ(savedJSON[2].at("id"), added.id);

        const PresetResolver reloaded = loadTexts(std::nullopt, saved);
        EXPECT_THAT(reloaded.repairedSummaries, IsEmpty());
        EXPECT_EQ(reloaded.customs, edited);
        edited = reloaded.customs;
    }
}

TEST(PresetResolverCustoms, MadeUpIdOfANewerRecordIsStoredAndStable) {
    const json customs = json::array({json::parse(R"({"schemaVersion": "two", "keep": 1})")});
    const PresetResolver first = loadJSON(json::object(), customs);
    ASSERT_EQ(first.customs.size(), 1U);
    EXPECT_TRUE(first.customs[0].needsIDWriteBack);
    EXPECT_THAT(first.repairedSummaries, IsEmpty());

    const json saved = json::parse(PresetResolver::encodeCustoms(first.customs));
    EXPECT_EQ(saved[0].at("keep"), 1);
    EXPECT_EQ(saved[0].at("schemaVersion"), "two");
    EXPECT_EQ(saved[0].at("id"), first.customs[0].id);

    const PresetResolver second = loadTexts(std::nullopt, saved.dump());
    EXPECT_EQ(second.customs[0].id, first.customs[0].id);
    EXPECT_FALSE(second.customs[0].needsIDWriteBack);
}

TEST(PresetResolverPolicy, FilterRemovesTheHEVCFamilyWithoutASource) {
    const json customs = {
        customRecord("custom-h265", "Soft HEVC", "h265", json::object()),
        customRecord("custom-vt", "Hard HEVC", "hevcVT", json::object()),
        customRecord("custom-gif", "Loop", "gif", json::object()),
    };
    const PresetResolver resolver =
        loadJSON({{"mp4-h265", {{"quality", 20}}}, {"mp4-h264", {{"quality", 20}}}}, customs);

    const std::vector<Preset> without = resolver.effectivePresets(
        Preset::builtins(),
        engine::EncoderCapabilityPolicy{engine::SoftwareHEVCSource::unavailable});
    EXPECT_EQ(ids(without),
              (std::vector<std::string>{"mp4-h264", "mp4-h264-half", "gif-small", "gif-full",
                                        "mp4-av1", "webm-vp9", "mp4-h264-vt", "custom-gif"}));
    EXPECT_EQ(without[0].filenameSuffix, "-h264_crf20");

    for (const auto source :
         {engine::SoftwareHEVCSource::privateBundled, engine::SoftwareHEVCSource::external}) {
        EXPECT_EQ(
            resolver.effectivePresets(Preset::builtins(), engine::EncoderCapabilityPolicy{source}),
            resolver.effectivePresets(Preset::builtins()));
    }
}

TEST(PresetResolverNaming, SuffixFollowsAnEditedQuality) {
    struct Row {
        const Preset& builtin;
        int quality;
        std::string expected;
    };
    engine::Preset noDigits = Preset::mp4H264();
    noDigits.filenameSuffix = "-compatible";
    engine::Preset digitsInside = Preset::mp4H264();
    digitsInside.filenameSuffix = "-h264-final";
    // Trailing digits that are not the quality: only a changed quality replaces them.
    engine::Preset otherDigits = Preset::mp4H264();
    otherDigits.filenameSuffix = "-x264v2";
    const std::vector<Row> rows = {
        {Preset::mp4H264(), 33, "-h264_crf33"},
        {Preset::mp4H264(), 18, "-h264_crf18"},
        {Preset::mp4H264(), 0, "-h264_crf0"},
        {Preset::mp4H264Half(), 35, "-h264_half_size_crf35"},
        {Preset::mp4H265(), 35, "-h265_crf35"},
        {Preset::mp4H265(), 28, "-h265_crf28"},
        {Preset::mp4AV1(), 32, "-av1_crf32"},  // the default the suffix relies on
        {Preset::mp4AV1(), 45, "-av1_crf45"},
        {Preset::webmVP9(), 31, "-vp9_crf31"},
        {Preset::mp4H264Hardware(), 50, "-h264_vt_q50"},
        {Preset::mp4H265Hardware(), 75, "-h265_vt_q75"},
        {Preset::gifSmall(), 40, "-third_size"},
        {Preset::gifFull(), 0, "-full_size"},
        {noDigits, 20, "-compatible"},
        {digitsInside, 20, "-h264-final"},
        {otherDigits, 33, "-x264v2"},
        {otherDigits, 20, "-x264v20"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.builtin.id + " " + std::to_string(row.quality));
        const PresetFormat format = presetFormat(row.builtin.options.format);
        PresetParameters p = parameters(row.builtin, format);
        p.quality = row.quality;
        EXPECT_EQ(PresetResolver::suffix(row.builtin, p, format), row.expected);
    }

    // Other fields changed with the quality kept: the suffix stands.
    PresetParameters resized = parameters(Preset::mp4H265(), PresetFormat::h265);
    resized.scaleMode = PresetParameters::ScaleMode::p480;
    resized.speedPreset = "slow";
    EXPECT_EQ(PresetResolver::suffix(Preset::mp4H265(), resized, PresetFormat::h265),
              "-h265_crf35");
}

TEST(PresetResolverNaming, SlugIsLowercasedAndDashed) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"My GIF", "my-gif"},
        {"!!!", "custom"},
        {"", "custom"},
        {"  Ärger  ", "rger"},
        {"A  B", "a-b"},
        {"--Lead and trail--", "lead-and-trail"},
        {"H.265 @ 720p", "h-265-720p"},
        {"Café 2", "caf-2"},
        {"\u212A", "k"},                 // the Kelvin sign lowercases to an ASCII k
        {"\u0130stanbul", "i-stanbul"},  // İ lowercases to i and a combining dot
        {"日本語", "custom"},
        {"Emoji 🎬 clip", "emoji-clip"},
        {"bad \xff byte", "bad-byte"},
    };
    for (const auto& [name, expected] : rows) {
        EXPECT_EQ(PresetResolver::slug(name), expected) << name;
    }
}

}  // namespace
}  // namespace tessarin::presets
