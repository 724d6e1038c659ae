// The settings window over a real preset store and settings file: the preset editor's
// validation and revert, the output mode, the Frames choices, the interface scale and the About
// page's tool versions, plus the screenshots of each tab.
#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QLabel>
#include <QLayout>
#include <QListWidget>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QTest>
#include <QTimer>
#include <thread>

#include "gui/AboutPage.hpp"
#include "gui/DesktopPage.hpp"
#include "gui/GeneralSettingsPage.hpp"
#include "gui/NoticeBanner.hpp"
#include "gui/RemoteSharesDialog.hpp"
#include "app/shell/RemoteSharesModel.hpp"
#include "tests/support/Files.hpp"
#include "gui/WindowNotices.hpp"
#include "engine/desktop/ActionFiles.hpp"
#include "engine/desktop/ActionRegistrar.hpp"
#include "engine/desktop/RemoteShares.hpp"
#include "engine/intake/HelperActions.hpp"
#include "gui/MainWindow.hpp"
#include "gui/PresetEditor.hpp"
#include "gui/PresetsPage.hpp"
#include "gui/SettingsWindow.hpp"
#include "gui/UIScale.hpp"
#include "tests/gui/GuiTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::gui {
namespace {

using test::waitUntil;

class SettingsWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        core_ = test::makeApp(home_);
        window_ = std::make_unique<MainWindow>(*core_);
        settings_ = window_->showSettings();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(settings_));
    }

    void TearDown() override {
        ASSERT_TRUE(core_->presetStore().waitForBackgroundWork(std::chrono::seconds(20)));
        window_.reset();
        core_.reset();
    }

    PresetEditor* openPreset(const std::string& id) {
        settings_->tabs()->setCurrentWidget(settings_->presets());
        EXPECT_TRUE(settings_->presets()->select(id));
        return settings_->presets()->editor();
    }

    QString listText(int row) const { return settings_->presets()->list()->item(row)->text(); }

    test::ConfigHome home_;
    std::unique_ptr<app::TessarinApp> core_;
    std::unique_ptr<MainWindow> window_;
    SettingsWindow* settings_ = nullptr;
};

TEST_F(SettingsWindowTest, QualityOutOfRangeShowsTheSentenceAndBlocksSaving) {
    PresetEditor* editor = openPreset("mp4-h264");
    EXPECT_EQ(editor->parameters(), *core_->presetStore().parameters("mp4-h264"));
    EXPECT_TRUE(editor->saveButton()->isEnabled());

    editor->qualityField()->setValue(70);
    EXPECT_EQ(editor->validationText(), QString("Quality 70 is outside 0–63 for H.264."));
    EXPECT_FALSE(editor->saveButton()->isEnabled());
    test::screenshotAtBothScales(settings_, "preset-editor-invalid");
    editor->save();
    EXPECT_FALSE(core_->presetStore().hasOverride("mp4-h264"));

    editor->qualityField()->setValue(51);
    EXPECT_TRUE(editor->validationText().isEmpty());
    EXPECT_TRUE(editor->saveButton()->isEnabled());
    test::screenshotAtBothScales(settings_, "settings-presets");
}

TEST_F(SettingsWindowTest, RevertToDefaultRestoresTheShippedValues) {
    PresetEditor* editor = openPreset("mp4-h264");
    const presets::PresetParameters shipped = *core_->presetStore().parameters("mp4-h264");
    ASSERT_NE(shipped.quality, 30);
    const int row = settings_->presets()->list()->currentRow();
    EXPECT_FALSE(editor->revertButton()->isEnabled());

    editor->qualityField()->setValue(30);
    QTest::mouseClick(editor->saveButton(), Qt::LeftButton);
    ASSERT_TRUE(core_->presetStore().hasOverride("mp4-h264"));
    EXPECT_EQ(core_->presetStore().parameters("mp4-h264")->quality, 30);
    EXPECT_TRUE(listText(row).endsWith(" (edited)")) << listText(row).toStdString();
    EXPECT_TRUE(editor->revertButton()->isEnabled());
    // The edit is stored, not only shown.
    EXPECT_EQ(test::readSettingsFile(home_.standardFile()).contains("presetOverrides"), true);

    QTest::mouseClick(editor->revertButton(), Qt::LeftButton);
    EXPECT_FALSE(core_->presetStore().hasOverride("mp4-h264"));
    EXPECT_EQ(editor->qualityField()->value(), shipped.quality);
    EXPECT_EQ(editor->parameters(), shipped);
    EXPECT_FALSE(listText(row).endsWith(" (edited)"));
}

TEST_F(SettingsWindowTest, AddedCustomPresetIsEditableAndDeletable) {
    settings_->tabs()->setCurrentWidget(settings_->presets());
    QListWidget* list = settings_->presets()->list();
    const int before = list->count();
    QTest::mouseClick(settings_->presets()->findChild<QWidget*>("addPresetButton"), Qt::LeftButton);
    ASSERT_EQ(list->count(), before + 1);
    EXPECT_EQ(list->currentItem()->text(), QString("New Preset"));
    PresetEditor* editor = settings_->presets()->editor();
    EXPECT_TRUE(editor->findChild<QWidget*>("presetName")->isVisible());

    QTest::mouseClick(settings_->presets()->findChild<QWidget*>("deletePresetButton"),
                      Qt::LeftButton);
    EXPECT_EQ(list->count(), before);
    EXPECT_TRUE(core_->presetStore().customs().empty());
}

TEST_F(SettingsWindowTest, OutputModeAndInterfaceScaleAreStored) {
    settings_->tabs()->setCurrentWidget(settings_->general());
    auto* ask = settings_->general()->findChild<QRadioButton*>("askEachTime");
    ASSERT_NE(ask, nullptr);
    ask->click();
    EXPECT_EQ(core_->outputDestination().mode(), app::OutputMode::askEachTime);

    // "Custom folder…" with no folder chosen asks for one; cancelling keeps the mode.
    auto* custom = settings_->general()->findChild<QRadioButton*>("customFolder");
    test::answerNextDialog<QFileDialog>([](QFileDialog* dialog) { dialog->reject(); });
    custom->click();
    EXPECT_EQ(core_->outputDestination().mode(), app::OutputMode::askEachTime);
    EXPECT_TRUE(ask->isChecked());

    test::TempDir folder;
    test::answerNextDialog<QFileDialog>([&](QFileDialog* dialog) {
        dialog->setDirectory(QString::fromStdString(folder.path().string()));
        static_cast<QDialog*>(dialog)->accept();
    });
    custom->click();
    EXPECT_EQ(core_->outputDestination().mode(), app::OutputMode::customFolder);
    EXPECT_TRUE(settings_->general()->findChild<QRadioButton*>("customFolder")->isChecked());
    auto* path = settings_->general()->findChild<QLabel*>("outputFolderPath");
    EXPECT_TRUE(waitUntil([&] { return path->text().toStdString() == folder.path().string(); }))
        << path->text().toStdString();

    const double fontBefore = QApplication::font().pointSizeF();
    settings_->general()->scaleField()->setValue(150);
    EXPECT_DOUBLE_EQ(core_->uiScale(), 1.5);
    EXPECT_NEAR(QApplication::font().pointSizeF(), fontBefore * 1.5, 0.01);
    settings_->general()->scaleField()->setValue(100);
    EXPECT_NEAR(QApplication::font().pointSizeF(), fontBefore, 0.01);
    test::screenshotAtBothScales(settings_, "settings-general");
}

TEST_F(SettingsWindowTest, TheFramesGroupStoresItsChoices) {
    settings_->tabs()->setCurrentWidget(settings_->general());
    GeneralSettingsPage* page = settings_->general();
    auto* changes = page->findChild<QRadioButton*>("framesMode:changes");
    auto* interval = page->findChild<QRadioButton*>("framesMode:interval");
    ASSERT_NE(changes, nullptr);
    ASSERT_NE(interval, nullptr);
    EXPECT_EQ(changes->text(), QString("Where the picture changes"));
    EXPECT_EQ(interval->text(), QString("Evenly spaced"));
    // The defaults, before anything is stored.
    EXPECT_TRUE(changes->isChecked());
    EXPECT_EQ(page->framesBudgetField()->text(), QString("Automatic"));
    EXPECT_EQ(page->framesMaxSizeField()->value(), 1568);
    EXPECT_EQ(page->framesFormatField()->currentText(), QString("JPEG"));
    EXPECT_EQ(page->contactSheetsField()->text(), QString("Contact sheets"));
    EXPECT_TRUE(page->contactSheetsField()->isChecked());
    EXPECT_FALSE(test::readSettingsFile(home_.standardFile()).contains("frames.mode.v1"));

    interval->click();
    page->framesBudgetField()->setValue(40);
    page->framesMaxSizeField()->setValue(9999);
    page->framesFormatField()->setCurrentIndex(page->framesFormatField()->findText("PNG"));
    page->contactSheetsField()->click();
    EXPECT_EQ(page->framesMaxSizeField()->value(), 2576);
    const nlohmann::json stored = test::readSettingsFile(home_.standardFile());
    EXPECT_EQ(stored["frames.mode.v1"], "interval");
    EXPECT_EQ(stored["frames.maxFrames.v1"], 40);
    EXPECT_EQ(stored["frames.maxSize.v1"], 2576);
    EXPECT_EQ(stored["frames.format.v1"], "png");
    EXPECT_EQ(stored["frames.contactSheet.v1"], false);
    test::screenshotAtBothScales(settings_, "settings-general-frames");

    // Back to the lowest value: automatic again.
    page->framesBudgetField()->setValue(page->framesBudgetField()->minimum());
    EXPECT_EQ(page->framesBudgetField()->text(), QString("Automatic"));
    EXPECT_EQ(test::readSettingsFile(home_.standardFile())["frames.maxFrames.v1"], 0);
    EXPECT_EQ(core_->framesSettings().options().maxFrames, std::nullopt);
    EXPECT_EQ(core_->queue().framesOptions().format, engine::FrameImageFormat::png);
}

TEST_F(SettingsWindowTest, AboutShowsTheHelperToolVersions) {
    settings_->tabs()->setCurrentWidget(settings_->about());
    AboutPage* about = settings_->about();
    ASSERT_TRUE(waitUntil([&] { return about->ffmpegVersion() != "Checking…"; }));
    EXPECT_TRUE(about->ffmpegVersion().startsWith("ffmpeg version "))
        << about->ffmpegVersion().toStdString();
    EXPECT_FALSE(about->ffmpegVersion().contains("Copyright"));
    EXPECT_TRUE(about->gifsicleVersion().startsWith("LCDF Gifsicle "))
        << about->gifsicleVersion().toStdString();
    test::screenshotAtBothScales(settings_, "settings-about");
}

}  // namespace
}  // namespace tessarin::gui

namespace tessarin::gui {
namespace {

// The Desktop tab lists each file-manager action as launch set it up in the private data folder,
// and the main window's menu reaches it.
TEST_F(SettingsWindowTest, TheDesktopTabShowsTheFileManagerActions) {
    settings_->tabs()->setCurrentWidget(settings_->desktop());
    DesktopPage* page = settings_->desktop();
    ASSERT_TRUE(waitUntil(
        [&] {
            return page->actionRows()->text().count(
                       "Active in the file manager (Nautilus, Dolphin, Nemo)") == 8;
        },
        std::chrono::seconds(20)))
        << page->actionRows()->text().toStdString();
    EXPECT_TRUE(page->actionHealth()->text().isEmpty());
    EXPECT_FALSE(page->automaticUpdates()->isChecked());
    EXPECT_TRUE(page->cliStatus()->text().startsWith("Puts the Tessarin command on your PATH"))
        << page->cliStatus()->text().toStdString();
    QStringList entries;
    for (QAction* action : window_->desktopMenu()->actions()) {
        entries << action->text();
    }
    EXPECT_EQ(entries, (QStringList{"File-Manager Actions…", "Install Command-Line Tool…",
                                    "Copy Support Report", "Check for Updates…"}));
    test::screenshotAtBothScales(settings_, "settings-desktop");

    // A removed action file shows in the window's banner; Enable All brings it back and ends
    // with its follow-up and the restart hint.
    const auto dataHome = home_.standardFile().parent_path().parent_path() / "data";
    std::filesystem::remove(engine::actionFilePath(dataHome, engine::FileManager::nemo,
                                                   *engine::helperAction("gif")));
    core_->fileManagerActions().refresh();
    NoticeBanner* health = window_->notices()->actionHealth();
    ASSERT_TRUE(waitUntil([&] { return !health->isHidden(); }, std::chrono::seconds(20)));
    EXPECT_EQ(health->text().toStdString(),
              "1 of 24 Tessarin file-manager actions isn't active, so it's missing from the "
              "right-click menu.");
    core_->fileManagerActions().install();
    QMessageBox* result = nullptr;
    ASSERT_TRUE(waitUntil([&] { return (result = settings_->findChild<QMessageBox*>(
                                            "enableAllResult")) != nullptr; },
                          std::chrono::seconds(20)));
    EXPECT_EQ(result->text().toStdString(),
              "All file-manager actions are active. Restart the file manager to refresh its menu "
              "now.");
    EXPECT_EQ(result->informativeText().toStdString(), engine::kActionRestartHint);
    EXPECT_TRUE(health->isHidden());
    result->close();
}

// One computer on the network, reported from the browser's own thread.
class OneHost final : public engine::SMBBrowsing {
public:
    ~OneHost() override { stop(); }
    void start(std::function<void(std::vector<engine::DiscoveredHost>)> onChange,
               std::function<void(std::string)>) override {
        thread_ = std::thread([onChange = std::move(onChange)] {
            onChange({{"NAS", "local", 2, "nas.local."}});
        });
    }
    void stop() override {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    std::thread thread_;
};

// Picking the computer mounts it with `gio` (a script here), then the folder panel's choice
// becomes the custom output folder.
TEST_F(SettingsWindowTest, AMountedShareBecomesTheOutputFolder) {
    test::TempDir scratch;
    const auto gio = scratch / "gio";
    test::writeFile(gio, "#!/bin/sh\n[ \"$2\" = smb://nas.local/ ] || exit 2\n", 0755);
    auto* model = new app::RemoteSharesModel(std::make_unique<OneHost>(),
                                             engine::makeGioMounter(gio));
    RemoteSharesDialog* dialog = settings_->general()->openRemoteShares(model);
    auto* hosts = dialog->findChild<QListWidget*>("remoteHosts");
    ASSERT_TRUE(waitUntil([&] { return hosts->count() == 1; }));
    EXPECT_EQ(hosts->item(0)->text(), "NAS");
    EXPECT_TRUE(dialog->findChild<QLabel*>("remoteHostsEmpty")->isHidden());

    // The panel runs its own event loop once the mount is done; a timer answers it there.
    const test::TempDir share;
    QTimer answer;
    answer.setInterval(20);
    QObject::connect(&answer, &QTimer::timeout, [&] {
        if (auto* panel = qobject_cast<QFileDialog*>(QApplication::activeModalWidget())) {
            answer.stop();
            panel->setDirectory(QString::fromStdString(share.path().string()));
            static_cast<QDialog*>(panel)->accept();
        }
    });
    answer.start();
    emit hosts->itemActivated(hosts->item(0));
    ASSERT_TRUE(waitUntil(
        [&] { return core_->outputDestination().mode() == app::OutputMode::customFolder; }));
    auto* path = settings_->general()->findChild<QLabel*>("outputFolderPath");
    EXPECT_TRUE(waitUntil([&] { return path->text().toStdString() == share.path().string(); }))
        << path->text().toStdString();
}

// No avahi-daemon runs here: the dialog opens with its texts and says the search failed.
TEST_F(SettingsWindowTest, SavingToAnotherComputerExplainsAFailedSearch) {
    settings_->tabs()->setCurrentWidget(settings_->general());
    auto* button = settings_->general()->findChild<QPushButton*>("saveToAnotherComputer");
    ASSERT_NE(button, nullptr);
    button->click();
    auto* dialog = settings_->general()->findChild<RemoteSharesDialog*>();
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->windowTitle(), "Save to another computer");
    auto* error = dialog->findChild<QLabel*>("remoteSharesError");
    ASSERT_TRUE(waitUntil([&] { return !error->isHidden(); }, std::chrono::seconds(10)));
    EXPECT_EQ(error->text().toStdString(), engine::kBrowseFailed);
    EXPECT_FALSE(dialog->findChild<QLabel*>("remoteHostsEmpty")->isHidden());
    dialog->reject();
}

}  // namespace
}  // namespace tessarin::gui
