// The window's models of the desktop integration, on a real event loop with private folders.
#include <gtest/gtest.h>

#include <QSignalSpy>
#include <thread>

#include "app/shell/DesktopServices.hpp"
#include "app/shell/FileManagerActionsModel.hpp"
#include "app/shell/RemoteSharesModel.hpp"
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

    // Enable All can't take over someone else's file: its follow-up says not all are shown.
    test::writeFile(engine::actionFilePath(dir / "data", engine::FileManager::dolphin,
                                           *engine::helperAction("gif")),
                    "[Desktop Entry]\nType=Service\n", 0755);
    QSignalSpy finished(&model, &FileManagerActionsModel::enableAllFinished);
    model.install();
    ASSERT_TRUE(finished.wait(10000));
    EXPECT_FALSE(finished.at(0).at(0).toBool());
    EXPECT_EQ(finished.at(0).at(1).toString(), FileManagerActionsModel::kNotConfirmed);
    EXPECT_TRUE(model.lastOutcome().contains("weren't made by Tessarin"));
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

// The network as the browser sees it: a fixed list, reported from a thread of its own.
class ListedHosts final : public engine::SMBBrowsing {
public:
    explicit ListedHosts(std::vector<engine::DiscoveredHost> hosts) : hosts_(std::move(hosts)) {}
    ~ListedHosts() override { stop(); }
    void start(std::function<void(std::vector<engine::DiscoveredHost>)> onChange,
               std::function<void(std::string)>) override {
        thread_ = std::thread([this, onChange = std::move(onChange)] { onChange(hosts_); });
    }
    void stop() override {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::vector<engine::DiscoveredHost> hosts_;
    std::thread thread_;
};

// Mounting goes through a `gio` script; its answer decides what the window shows.
TEST_F(DesktopModelsTest, SharesAreListedMountedAndTheirFailuresWorded) {
    const fs::path gio = dir / "gio";
    test::writeFile(gio,
                    "#!/bin/sh\ncase \"$2\" in\n"
                    "  smb://nas.local/) exit 0 ;;\n"
                    "  smb://locked.local/) echo 'gio: Permission denied' >&2; exit 2 ;;\n"
                    "  *) sleep 30 ;;\n"
                    "esac\n",
                    0755);
    const std::vector<engine::DiscoveredHost> network = {
        {"Locked", "local", 2, "locked.local."}, {"NAS", "local", 2, "nas.local."},
        {"Slow", "local", 2, "slow.local."}};
    {
        RemoteSharesModel model(std::make_unique<ListedHosts>(network),
                                engine::makeGioMounter(gio));
        QSignalSpy changed(&model, &RemoteSharesModel::changed);
        QSignalSpy mounted(&model, &RemoteSharesModel::mounted);
        model.start();
        ASSERT_TRUE(changed.wait(10000));
        ASSERT_EQ(model.hosts(), network);

        model.pick(network[1]);
        EXPECT_TRUE(model.mounting());
        ASSERT_TRUE(mounted.wait(10000));
        EXPECT_EQ(mounted.at(0).at(0).toString(), "smb://nas.local/");
        EXPECT_TRUE(model.error().isEmpty());

        model.pick(network[0]);
        while (model.mounting()) {
            ASSERT_TRUE(changed.wait(10000));
        }
        EXPECT_EQ(model.error().toStdString(),
                  "Sign-in was declined. Check the account and password.");
        EXPECT_EQ(mounted.size(), 1);
    }
    {
        // Closing the dialog during a mount cancels it; its late end changes nothing.
        RemoteSharesModel model(std::make_unique<ListedHosts>(network),
                                engine::makeGioMounter(gio));
        QSignalSpy changed(&model, &RemoteSharesModel::changed);
        QSignalSpy mounted(&model, &RemoteSharesModel::mounted);
        model.start();
        ASSERT_TRUE(changed.wait(10000));
        model.pick(network[2]);
        const int changesBefore = changed.size();
        const auto started = std::chrono::steady_clock::now();
        model.stop();
        while (model.mounting()) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
            ASSERT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
        }
        EXPECT_EQ(changed.size(), changesBefore);
        EXPECT_TRUE(model.error().isEmpty());
        EXPECT_EQ(mounted.size(), 0);
    }
    {
        // No avahi-daemon runs here: the real browser says so in the window's words.
        RemoteSharesModel model;
        QSignalSpy changed(&model, &RemoteSharesModel::changed);
        model.start();
        ASSERT_TRUE(changed.wait(10000));
        EXPECT_EQ(model.error().toStdString(), engine::kBrowseFailed);
        EXPECT_TRUE(model.hosts().empty());
    }
}

}  // namespace
}  // namespace tessarin::app
