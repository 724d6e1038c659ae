#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "presets/PresetSettings.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::presets {
namespace {

using engine::Preset;
using engine::SettingsStore;
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(PresetSettings, NoStoreOrNothingStoredGivesEmptyCollections) {
    const PresetResolver none = loadPresetResolver(nullptr);
    EXPECT_THAT(none.overrides, IsEmpty());
    EXPECT_THAT(none.customs, IsEmpty());

    test::TempDir dir;
    const SettingsStore empty(dir / "settings.json");
    EXPECT_EQ(loadPresetResolver(&empty), none);

    std::ofstream(dir / "corrupt.json") << R"({"presetOverrides": {"mp4-h264": )";
    const SettingsStore corrupt(dir / "corrupt.json");
    EXPECT_EQ(loadPresetResolver(&corrupt), none);
}

TEST(PresetSettings, SavedCollectionsLoadBackFromAReopenedStore) {
    test::TempDir dir;
    std::map<std::string, PresetParameters> overrides;
    overrides["mp4-h265"] = parameters(Preset::mp4H265(), PresetFormat::h265);
    overrides["mp4-h265"].quality = 22;
    CustomPreset custom;
    custom.id = makeCustomPresetID();
    custom.name = "Small loop";
    custom.format = PresetFormat::gif;
    custom.parameters = defaultParameters(PresetFormat::gif);
    {
        SettingsStore store(dir / "settings.json");
        store.setDouble("uiScale", 1.25);
        saveOverrides(store, overrides);
        saveCustoms(store, {custom});
    }
    const SettingsStore reopened(dir / "settings.json");
    EXPECT_EQ(reopened.doubleValue("uiScale"), 1.25);
    EXPECT_TRUE(json::parse(*reopened.dataValue("presetOverrides")).is_object());
    EXPECT_TRUE(json::parse(*reopened.dataValue("customPresets")).is_array());

    const PresetResolver loaded = loadPresetResolver(&reopened);
    EXPECT_EQ(loaded.overrides, overrides);
    EXPECT_THAT(loaded.customs, ElementsAre(custom));
    const std::vector<Preset> effective = loaded.effectivePresets(Preset::builtins());
    EXPECT_EQ(effective[2].filenameSuffix, "-h265_crf22");
    EXPECT_EQ(effective.back().filenameSuffix, "-small-loop");
}

TEST(PresetSettings, RepairIsWrittenOnceAndTheNextLoadIsQuiet) {
    test::TempDir dir;
    SettingsStore store(dir / "settings.json");
    store.setData("presetOverrides", R"({"gif-small": {"dither": "heckbert"}})");
    const json newer = {{"schemaVersion", 3}, {"name", "Later"}, {"shape", "round"}};
    store.setData("customPresets", json::array({newer}).dump());

    const PresetResolver first = loadPresetResolver(&store);
    EXPECT_THAT(first.repairedSummaries,
                ElementsAre("Preset GIF · Small (⅓ size) had invalid values and was repaired"));
    ASSERT_EQ(first.customs.size(), 1U);
    ASSERT_TRUE(first.customs[0].needsIDWriteBack);
    savePresets(store, first.overrides, first.customs);

    const SettingsStore reopened(dir / "settings.json");
    const PresetResolver second = loadPresetResolver(&reopened);
    EXPECT_THAT(second.repairedSummaries, IsEmpty());
    EXPECT_EQ(second.overrides.at("gif-small").dither, "sierra2_4a");
    json expected = newer;
    expected["id"] = first.customs[0].id;
    EXPECT_EQ(json::parse(*reopened.dataValue("customPresets")), json::array({expected}));
}

TEST(PresetSettings, UnencodableNameLeavesTheStoredValueAsItWas) {
    test::TempDir dir;
    SettingsStore store(dir / "settings.json");
    store.setData("customPresets", "[]");
    CustomPreset custom;
    custom.id = "custom-X";
    custom.name = "bad \xff";
    EXPECT_ANY_THROW(saveCustoms(store, {custom}));
    EXPECT_ANY_THROW(savePresets(store, {}, {custom}));
    EXPECT_EQ(store.dataValue("customPresets"), "[]");
    EXPECT_FALSE(store.contains("presetOverrides"));
}

}  // namespace
}  // namespace tessarin::presets
