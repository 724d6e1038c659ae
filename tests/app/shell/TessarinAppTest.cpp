// The application core with a real settings file, real tools and a real event loop.
#include <gtest/gtest.h>

#include <QSignalSpy>
#include <algorithm>
#include <fstream>
#include <set>

#include "app/shell/TessarinApp.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;

class TessarinAppTest : public ::testing::Test {
protected:
    void SetUp() override { test::ensureCoreApplication(); }

    TessarinApp::Environment environment() {
        TessarinApp::Environment environment;
        environment.settings = test::openStore(home.standardFile());
        environment.tools = engine::Tools::inBundle(test::helperDirectory());
        environment.postNotification = [this](const std::string& title, const std::string&) {
            notifications.push_back(title);
        };
        return environment;
    }

    test::ConfigHome home;
    test::TempDir dir;
    std::vector<std::string> notifications;
};

TEST_F(TessarinAppTest, OpenedFilesAreStagedAndOtherSchemesDropped) {
    TessarinApp app(environment());
    app.launch();
    const fs::path video = test::emptyVideos(dir / "in", 1)[0];
    // Even with a chip selected in the window, files from outside never start a transcription.
    app.queue().setSelectedActionID(ActionID::transcribe());
    app.openURLs({QUrl::fromLocalFile(QString::fromStdString(video.string())),
                  QUrl("tessarin://convert?preset=mp4-h264&file=/etc/passwd"),
                  QUrl("https://example.invalid/movie.mp4")});
    ASSERT_EQ(app.queue().items().size(), 1U);
    EXPECT_EQ(app.queue().items()[0].source, video);
    EXPECT_EQ(app.queue().items()[0].state.kind, QueueItem::StateKind::needsPreset);
    EXPECT_EQ(app.quitDecision(), TessarinApp::QuitDecision::quitNow);
}

TEST_F(TessarinAppTest, LaunchGoesOnWhenTheHandoffSocketCannotBePublished) {
    TessarinApp::Environment launchEnvironment = environment();
    std::vector<std::string> order;
    launchEnvironment.publishHandoffSocket = [&] {
        order.push_back("socket");
        return false;
    };
    launchEnvironment.startQuickActionRegistrar = [&] { order.push_back("registrar"); };
    bool probed = false;
    launchEnvironment.probeHardware = [&](const engine::Tools&) {
        probed = true;
        return engine::HardwareEncoderSupport{};
    };
    TessarinApp app(std::move(launchEnvironment));
    QSignalSpy catalogChanged(&app, &TessarinApp::actionCatalogChanged);
    app.launch();
    EXPECT_EQ(order, (std::vector<std::string>{"socket", "registrar"}));
    ASSERT_TRUE(test::waitFor([&] { return catalogChanged.count() > 0; }));
    EXPECT_TRUE(probed);
}

TEST_F(TessarinAppTest, WorkInProgressNeedsTheQuitAlertAndQuitDropsIt) {
    TessarinApp app(environment());
    const std::vector<fs::path> videos = test::emptyVideos(dir / "in", 2);
    ASSERT_TRUE(
        app.queue().intake(test::urlsOf(videos), test::withAction(ActionID::preset("mp4-h264"))));
    EXPECT_EQ(app.quitDecision(), TessarinApp::QuitDecision::askConversionsInProgress);
    app.prepareForQuit();
    ASSERT_TRUE(test::waitFor([&] { return !app.queue().isWorking(); }));
    EXPECT_EQ(app.quitDecision(), TessarinApp::QuitDecision::quitNow);
    EXPECT_EQ(app.queue().items().size(), 1U);
}

TEST_F(TessarinAppTest, ChosenFolderAndPresetEditsReachTheQueue) {
    TessarinApp app(environment());
    fs::create_directory(dir / "out");
    ASSERT_EQ(app.outputDestination().chooseFolder(dir / "out"), std::nullopt);
    presets::PresetParameters edited = *app.presetStore().parameters("mp4-h264");
    edited.quality = 40;
    app.presetStore().setOverride("mp4-h264", edited);

    const fs::path source = test::copyClip(test::testClip(test::TestClip::h264Aac), dir / "a.mp4");
    ASSERT_TRUE(
        app.queue().intake(test::urlsOf({source}), test::withAction(ActionID::preset("mp4-h264"))));
    ASSERT_TRUE(test::waitFor([&] { return app.queue().items()[0].isFinished(); }));
    EXPECT_EQ(app.queue().items()[0].state.output, dir / "out" / "a-h264_crf40.mp4");
    EXPECT_EQ(notifications, std::vector<std::string>{"Conversion finished"});

    // The chips list every preset, the ones this machine can't run with their reason.
    const std::vector<ActionDescriptor> chips = app.actionCatalog();
    EXPECT_EQ(chips.size(), engine::Preset::builtins().size() + 4);
    const auto hardware = std::find_if(chips.begin(), chips.end(), [](const auto& chip) {
        return chip.id == ActionID::preset("mp4-h264-vt");
    });
    ASSERT_NE(hardware, chips.end());
    EXPECT_TRUE(hardware->disabledReason);
}

TEST_F(TessarinAppTest, FailuresAreKeptRedactedAndCapped) {
    TessarinApp app(environment());
    for (int i = 0; i < 25; ++i) {
        app.queue().recordEngineError("probe: failure " + std::to_string(i));
    }
    const auto recent = app.settings().stringListValue(kRecentEngineErrorsKey);
    ASSERT_TRUE(recent);
    ASSERT_EQ(recent->size(), kRecentEngineErrorsLimit);
    EXPECT_EQ(recent->front(), "probe: failure 5");

    const fs::path broken = dir / "secret-name.mp4";
    std::ofstream(broken) << "not a video";
    ASSERT_TRUE(
        app.queue().intake(test::urlsOf({broken}), test::withAction(ActionID::preset("mp4-h264"))));
    ASSERT_TRUE(test::waitFor([&] { return app.queue().items()[0].isFinished(); }));
    const std::string last = app.settings().stringListValue(kRecentEngineErrorsKey)->back();
    EXPECT_EQ(last.find("secret-name"), std::string::npos) << last;
    EXPECT_EQ(last.find(dir.path().string()), std::string::npos) << last;
    EXPECT_EQ(notifications, std::vector<std::string>{"Conversion failed"});
}

TEST_F(TessarinAppTest, InterfaceScaleIsStoredWithinItsRange) {
    TessarinApp app(environment());
    EXPECT_EQ(app.uiScale(), 1.0);
    app.setUIScale(1.5);
    EXPECT_EQ(app.uiScale(), 1.5);
    app.setUIScale(3.0);
    EXPECT_EQ(test::openStore(home.standardFile())->doubleValue(kUIScaleKey), 2.0);
}

TEST_F(TessarinAppTest, TheFramesChipIsOfferedAndTheQueueAsksTheStoredChoices) {
    test::writeSettingsFile(home.standardFile(),
                            {{"frames.format.v1", "png"}, {"frames.maxSize.v1", "huge"}});
    TessarinApp app(environment());
    const std::vector<ActionDescriptor> chips = app.actionCatalog();
    const auto frames = std::find_if(chips.begin(), chips.end(), [](const ActionDescriptor& chip) {
        return chip.id == ActionID::frames();
    });
    ASSERT_NE(frames, chips.end());
    EXPECT_EQ(frames->disabledReason, std::nullopt);

    ASSERT_TRUE(app.queue().framesOptions);
    engine::FrameExtractionOptions stored = app.queue().framesOptions();
    EXPECT_EQ(stored.format, engine::FrameImageFormat::png);
    EXPECT_EQ(stored.maxSize, engine::FrameExtractionOptions::kDefaultSize);
    app.framesSettings().setContactSheet(false);
    stored = app.queue().framesOptions();
    EXPECT_FALSE(stored.contactSheet);
    EXPECT_EQ(stored, app.framesSettings().options());
}

TEST(SettingsKeys, EveryKeyIsListedOnce) {
    std::set<std::string_view> seen;
    for (const SettingsKey& key : settingsKeys()) {
        EXPECT_TRUE(seen.insert(key.key).second) << key.key;
    }
    // The keys this build writes are all in the list.
    for (std::string_view written :
         {kUIScaleKey, kRecentEngineErrorsKey, std::string_view("presetOverrides"),
          std::string_view("customPresets"), std::string_view("outputMode"),
          std::string_view("outputFolderBookmark"), std::string_view("outputFolderPath"),
          kExternalSoftwareHEVCToolchainKey, kDidMigrateFromOrchardineDefaultsKey, kFramesModeKey,
          kFramesMaxFramesKey, kFramesMaxSizeKey, kFramesFormatKey, kFramesContactSheetKey}) {
        EXPECT_TRUE(seen.contains(written)) << written;
    }
}

}  // namespace
}  // namespace tessarin::app
