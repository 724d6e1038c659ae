// The window's models of the desktop integration, on a real event loop with private folders.
#include <gtest/gtest.h>

#include <QSignalSpy>

#include "app/shell/DesktopServices.hpp"
#include "app/shell/FileManagerActionsModel.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/Files.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;

class DesktopModelsTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::ensureCoreApplication();
        fs::create_directories(helper.parent_path());
        test::writeFile(helper, "#!/bin/sh\n", 0755);
    }
    test::TempDir dir;
    fs::path helper = dir / "libexec" / "tessarin" / "tessarin-action";
    std::shared_ptr<engine::SettingsStore> settings =
        std::make_shared<engine::SettingsStore>(dir / "config" / "settings.json");
};

// Waits for `model` to settle after an operation.
void waitUntilIdle(FileManagerActionsModel& model) {
    QSignalSpy changed(&model, &FileManagerActionsModel::changed);
    while (model.busy()) {
        ASSERT_TRUE(changed.wait(10000));
    }
}

TEST_F(DesktopModelsTest, ActionsAreRepairedAtLaunchAndTheirHealthPublished) {
    FileManagerActionsModel model(settings, helper, dir / "data");
    model.run();
    EXPECT_TRUE(model.busy());
    waitUntilIdle(model);
    ASSERT_EQ(model.rows().size(), 8u);
    EXPECT_TRUE(model.healthText().isEmpty()) << model.healthText().toStdString();
    EXPECT_TRUE(model.lastOutcome().contains("restart it"));

    fs::remove(engine::actionFilePath(dir / "data", engine::FileManager::dolphin,
                                      *engine::helperAction("gif")));
    model.refresh();
    waitUntilIdle(model);
    EXPECT_EQ(model.healthText().toStdString(),
              "1 of 24 Tessarin file-manager actions isn't active, so it's missing from the "
              "right-click menu.");
    // The user removed it: a repair leaves it removed.
    model.run();
    waitUntilIdle(model);
    EXPECT_FALSE(model.healthText().isEmpty());
}

TEST_F(DesktopModelsTest, AutomaticUpdateChecksAreOffUntilTurnedOn) {
    test::LoopbackHttpsServer server(nlohmann::json::array(
        {{{"status", 200},
          {"body", "<releases><release version=\"9.9.9\"><url>https://tessarin.org/9.9.9</url>"
                   "</release></releases>"}}}));
    DesktopServices services(settings, {dir / "bin" / "tessarin-gui", dir / "bin" / "tessarin",
                                        helper.parent_path(), dir / "data", dir / "home",
                                        dir / "state" / "tessarin.log"});
    services.setUpdateEndpoint({server.baseURL() + "/releases.xml",
                                test::testCertificate().certificate.string()});
    QSignalSpy checked(&services, &DesktopServices::updateChecked);

    EXPECT_FALSE(services.automaticUpdateChecks());
    services.launch();
    EXPECT_FALSE(checked.wait(500));
    EXPECT_TRUE(server.requests().empty());

    services.setAutomaticUpdateChecks(true);
    EXPECT_EQ(settings->boolValue("SUEnableAutomaticChecks"), true);
    services.launch();
    ASSERT_TRUE(checked.wait(10000));
    EXPECT_EQ(checked.at(0).at(0).toString().toStdString(),
              "Tessarin 9.9.9 is available (you have " TESSARIN_VERSION ").");
    EXPECT_EQ(checked.at(0).at(1).toString(), "https://tessarin.org/9.9.9");
    EXPECT_EQ(server.requests().size(), 1u);

    QSignalSpy report(&services, &DesktopServices::reportReady);
    services.buildReport();
    ASSERT_TRUE(report.wait(20000));
    const std::string text = report.at(0).at(0).toString().toStdString();
    EXPECT_TRUE(text.starts_with("Tessarin Diagnostics\n")) << text;
    EXPECT_NE(text.find("Update auto-check: on"), std::string::npos) << text;
    EXPECT_EQ(text.find(dir.path().string()), std::string::npos) << text;
}

}  // namespace
}  // namespace tessarin::app
