#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QSignalSpy>
#include <algorithm>
#include <string>
#include <vector>

#include "app/settings/PresetStore.hpp"
#include "engine/model/Preset.hpp"
#include "presets/PresetResolver.hpp"
#include "tests/app/support/AppTestSupport.hpp"

namespace tessarin::app {
namespace {

using nlohmann::json;
using presets::PresetFormat;
using presets::PresetParameters;
using test::ConfigHome;
using test::readSettingsFile;
using test::writeSettingsFile;

// No encoder query and no stored toolchain: these cases start no worker thread.
std::unique_ptr<PresetStore> launch(std::shared_ptr<engine::SettingsStore> defaults) {
    return std::make_unique<PresetStore>(std::move(defaults),
                                         engine::ExternalSoftwareHEVCValidator{}, nullptr);
}

std::vector<std::string> ids(const std::vector<engine::Preset>& presets) {
    std::vector<std::string> result;
    for (const engine::Preset& preset : presets) {
        result.push_back(preset.id);
    }
    return result;
}

json withQuality(int quality) {
    PresetParameters parameters;
    parameters.quality = quality;
    return parameters.toJSON();
}

json customRecord(const std::string& id, const std::string& name, int quality) {
    return {{"schemaVersion", 1},
            {"id", id},
            {"name", name},
            {"format", "h264"},
            {"parameters", withQuality(quality)}};
}

// A record from a newer version, with members this one has never heard of.
json futureRecord() {
    return json::parse(R"({
        "schemaVersion": 7,
        "id": "custom-FUTURE",
        "name": "From the future",
        "format": "h266",
        "parameters": {"quality": 999, "hdr": {"curve": "pq", "nits": [1000, 4000.5]}},
        "layers": [null, true, -3, 2.25, "x"],
        "extra": {}
    })");
}

class PresetStoreTest : public ::testing::Test {
protected:
    void SetUp() override { test::ensureCoreApplication(); }

    ConfigHome home;
};

TEST_F(PresetStoreTest, MigrationCopiesOnceAndNeverOverwrites) {
    const json oldOverrides = {{"mp4-h264", withQuality(20)}};
    const json oldCustoms = json::array({customRecord("custom-OLD", "Old GIF", 23)});
    const json oldSuite = {{"presetOverrides", oldOverrides},
                           {"customPresets", oldCustoms},
                           {"uiScale", 1.5},
                           {"diagnosticsConsent", true},
                           {"recentEngineErrors", json::array({"x"})},
                           {"outputMode", "folder"}};
    writeSettingsFile(home.oldSuiteFile(), oldSuite);
    // Already set here: the old value must not replace it.
    writeSettingsFile(home.standardFile(), {{"uiScale", 1.25}});

    {
        auto store = launch(test::openStore(home.standardFile()));
        EXPECT_EQ(store->overrides().at("mp4-h264").quality, 20);
        ASSERT_EQ(store->customs().size(), 1u);
        EXPECT_EQ(store->customs()[0].name, "Old GIF");
    }
    const json migrated = readSettingsFile(home.standardFile());
    EXPECT_EQ(migrated["presetOverrides"], oldOverrides);
    EXPECT_EQ(migrated["customPresets"], oldCustoms);
    EXPECT_EQ(migrated["uiScale"], 1.25);
    EXPECT_EQ(migrated["diagnosticsConsent"], true);
    EXPECT_EQ(migrated["recentEngineErrors"], json::array({"x"}));
    EXPECT_FALSE(migrated.contains("outputMode")) << "only the listed keys move";
    EXPECT_EQ(migrated["didMigrateFromOrchardineDefaults"], true);
    EXPECT_EQ(readSettingsFile(home.oldSuiteFile()), oldSuite) << "the old suite is only read";

    // The user deletes everything here; the old suite changes meanwhile. Nothing comes back.
    json emptied = migrated;
    emptied.erase("presetOverrides");
    emptied.erase("customPresets");
    writeSettingsFile(home.standardFile(), emptied);
    json changedOld = oldSuite;
    changedOld["presetOverrides"] = {{"mp4-av1", withQuality(40)}};
    writeSettingsFile(home.oldSuiteFile(), changedOld);

    auto second = launch(test::openStore(home.standardFile()));
    EXPECT_TRUE(second->overrides().empty());
    EXPECT_TRUE(second->customs().empty());
    EXPECT_EQ(readSettingsFile(home.standardFile()), emptied);
}

TEST_F(PresetStoreTest, OnlyTheStandardStoreMigrates) {
    writeSettingsFile(home.oldSuiteFile(),
                      {{"customPresets", json::array({customRecord("custom-OLD", "Old", 23)})}});
    const auto elsewhere = home.path() / "other" / "settings.json";

    auto store = launch(test::openStore(elsewhere));
    EXPECT_TRUE(store->customs().empty());
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
}

TEST_F(PresetStoreTest, RepairedStoreIsSavedAndTheNextLaunchReportsNothing) {
    json badCustom = customRecord("custom-BAD", "Broken", 23);
    badCustom["parameters"]["quality"] = "high";
    writeSettingsFile(
        home.standardFile(),
        {{"didMigrateFromOrchardineDefaults", true},
         {"presetOverrides", {{"mp4-h265", 17}, {"no-such-preset", 17}}},
         {"customPresets", json::array({customRecord("custom-OK", "Fine", 23), badCustom})}});

    auto first = launch(test::openStore(home.standardFile()));
    ASSERT_TRUE(first->repairNotice().has_value());
    EXPECT_EQ(*first->repairNotice(),
              "Preset MP4 · Smaller (H.265) had invalid values and was repaired\n"
              "Preset Broken had invalid values and was repaired");
    EXPECT_EQ(first->overrides().at("mp4-h265"), presets::defaultParameters(PresetFormat::h265));
    EXPECT_FALSE(first->hasOverride("no-such-preset"));

    const json saved = readSettingsFile(home.standardFile());
    EXPECT_EQ(saved["presetOverrides"],
              json({{"mp4-h265", presets::defaultParameters(PresetFormat::h265).toJSON()}}));
    ASSERT_EQ(saved["customPresets"].size(), 2u);
    EXPECT_EQ(saved["customPresets"][1]["parameters"]["quality"], 23);

    QSignalSpy noticeChanged(first.get(), &PresetStore::repairNoticeChanged);
    first->clearRepairNotice();
    EXPECT_FALSE(first->repairNotice().has_value());
    EXPECT_EQ(noticeChanged.count(), 1);

    auto second = launch(test::openStore(home.standardFile()));
    EXPECT_FALSE(second->repairNotice().has_value());
    EXPECT_EQ(second->overrides(), first->overrides());
    EXPECT_EQ(second->customs(), first->customs());
}

TEST_F(PresetStoreTest, UnknownSchemaSurvivesEditsOfOtherCustomsUnchanged) {
    writeSettingsFile(
        home.standardFile(),
        {{"didMigrateFromOrchardineDefaults", true},
         {"customPresets", json::array({customRecord("custom-A", "Alpha", 23), futureRecord(),
                                        customRecord("custom-C", "Gamma", 25)})}});
    auto store = launch(test::openStore(home.standardFile()));
    EXPECT_FALSE(store->repairNotice().has_value()) << "a newer record is no repair";
    ASSERT_EQ(store->customs().size(), 3u);
    const presets::CustomPreset future = store->customs()[1];
    EXPECT_TRUE(PresetStore::isReadOnly(future));
    EXPECT_FALSE(PresetStore::isReadOnly(store->customs()[0]));
    EXPECT_TRUE(store->preset("custom-FUTURE").has_value()) << "read-only presets still convert";

    const presets::CustomPreset added = store->addCustom();
    EXPECT_THAT(added.id, ::testing::StartsWith("custom-"));
    EXPECT_EQ(added.name, "New Preset");
    presets::CustomPreset alpha = store->customs()[0];
    alpha.name = "Alpha renamed";
    alpha.parameters.quality = 30;
    EXPECT_TRUE(store->updateCustom(alpha));
    EXPECT_TRUE(store->deleteCustom("custom-C"));

    presets::CustomPreset edited = future;
    edited.name = "Overwritten";
    EXPECT_FALSE(store->updateCustom(edited)) << "a read-only custom is never edited";

    const json stored = readSettingsFile(home.standardFile())["customPresets"];
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_EQ(stored[0]["name"], "Alpha renamed");
    EXPECT_EQ(stored[0]["parameters"]["quality"], 30);
    EXPECT_EQ(stored[1], futureRecord());
    EXPECT_EQ(stored[2]["id"], added.id);

    // And across a launch that saves everything again.
    auto next = launch(test::openStore(home.standardFile()));
    ASSERT_EQ(next->customs().size(), 3u);
    next->deleteCustom(added.id);
    EXPECT_EQ(readSettingsFile(home.standardFile())["customPresets"][1], futureRecord());
}

TEST_F(PresetStoreTest, MadeUpIDOfANewerRecordIsStoredOnce) {
    json withoutID = futureRecord();
    withoutID.erase("id");
    writeSettingsFile(home.standardFile(), {{"didMigrateFromOrchardineDefaults", true},
                                            {"customPresets", json::array({withoutID})}});

    auto first = launch(test::openStore(home.standardFile()));
    ASSERT_EQ(first->customs().size(), 1u);
    const std::string madeUp = first->customs()[0].id;
    json expected = withoutID;
    expected["id"] = madeUp;
    EXPECT_EQ(readSettingsFile(home.standardFile())["customPresets"][0], expected);

    auto second = launch(test::openStore(home.standardFile()));
    EXPECT_EQ(second->customs()[0].id, madeUp);
}

TEST_F(PresetStoreTest, OverridesApplyAndRevert) {
    auto store = launch(test::openStore(home.standardFile()));
    const engine::Preset& shipped = *engine::Preset::builtin("mp4-h264");
    ASSERT_EQ(store->parameters("mp4-h264"), presets::parameters(shipped, PresetFormat::h264));
    EXPECT_FALSE(store->parameters("no-such-preset").has_value());
    QSignalSpy presetsChanged(store.get(), &PresetStore::effectivePresetsChanged);
    QSignalSpy overridesChanged(store.get(), &PresetStore::overridesChanged);

    PresetParameters edited = *store->parameters("mp4-h264");
    edited.quality = 28;
    edited.scaleMode = PresetParameters::ScaleMode::p720;
    store->setOverride("mp4-h264", edited);
    EXPECT_TRUE(store->hasOverride("mp4-h264"));
    EXPECT_EQ(store->parameters("mp4-h264"), edited);
    const std::optional<engine::Preset> effective = store->preset("mp4-h264");
    ASSERT_TRUE(effective.has_value());
    EXPECT_EQ(effective->options.crf, 28);
    EXPECT_EQ(effective->options.scale, engine::Scale::fitHeight(720));
    EXPECT_EQ(effective->filenameSuffix, "-h264_crf28");
    EXPECT_EQ(effective->displayName, shipped.displayName);
    EXPECT_EQ(presetsChanged.count(), 1);
    EXPECT_EQ(overridesChanged.count(), 1);

    // Stored: the next launch sees it.
    EXPECT_EQ(launch(test::openStore(home.standardFile()))->overrides().at("mp4-h264"), edited);

    store->revert("mp4-h264");
    EXPECT_FALSE(store->hasOverride("mp4-h264"));
    EXPECT_EQ(store->preset("mp4-h264"), shipped);
    EXPECT_EQ(readSettingsFile(home.standardFile())["presetOverrides"], json::object());
    EXPECT_EQ(presetsChanged.count(), 2);

    store->revert("mp4-h264");
    EXPECT_EQ(presetsChanged.count(), 2) << "reverting nothing changes nothing";
    EXPECT_EQ(overridesChanged.count(), 2);
}

TEST_F(PresetStoreTest, EveryChangeRefreshesTheEffectiveList) {
    auto store = launch(test::openStore(home.standardFile()));
    // Without any source of H.265 the HEVC family is left out.
    std::vector<std::string> expected;
    for (const engine::Preset& preset : engine::Preset::builtins()) {
        if (!engine::isHEVCFamily(preset.options.format.codec) || preset.options.format.isGif()) {
            expected.push_back(preset.id);
        }
    }
    ASSERT_EQ(ids(store->effectivePresets()), expected);

    presets::CustomPreset custom = store->addCustom();
    expected.push_back(custom.id);
    EXPECT_EQ(ids(store->effectivePresets()), expected);

    custom.name = "My GIF";
    custom.format = PresetFormat::gif;
    custom.parameters = presets::defaultParameters(PresetFormat::gif);
    ASSERT_TRUE(store->updateCustom(custom));
    const std::optional<engine::Preset> gif = store->preset(custom.id);
    ASSERT_TRUE(gif.has_value());
    EXPECT_EQ(gif->filenameSuffix, "-my-gif");
    EXPECT_EQ(gif->fileExtension, "gif");

    custom.format = PresetFormat::h265;
    ASSERT_TRUE(store->updateCustom(custom));
    EXPECT_FALSE(store->preset(custom.id).has_value()) << "H.265 is not allowed here";

    ASSERT_TRUE(store->deleteCustom(custom.id));
    EXPECT_FALSE(store->deleteCustom(custom.id));
    expected.pop_back();
    EXPECT_EQ(ids(store->effectivePresets()), expected);
}

}  // namespace
}  // namespace tessarin::app
