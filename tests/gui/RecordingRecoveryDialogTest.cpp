// The window's offer, at start, to save or discard recordings that a crash left unfinished.
#include <gtest/gtest.h>

#include <QListWidget>
#include <QPushButton>
#include <QTest>
#include <cstdlib>
#include <filesystem>

#include "gui/MainWindow.hpp"
#include "gui/RecordingRecoveryDialog.hpp"
#include "tests/engine/recording/RecordingTestSupport.hpp"
#include "tests/gui/GuiTestSupport.hpp"

namespace tessarin::gui {
namespace {

namespace fs = std::filesystem;
using test::waitUntil;

int rowNaming(QListWidget* list, const QString& name) {
    for (int row = 0; row < list->count(); ++row) {
        if (list->item(row)->text().contains(name)) {
            return row;
        }
    }
    return -1;
}

TEST(RecordingRecoveryDialog, OffersUnfinishedTakesAtStartThenRecoversAndDiscards) {
    const test::ConfigHome home;
    const test::RecordingPlace place;
    ::setenv("XDG_DATA_HOME", (place.temp / "data").c_str(), 1);  // the Trash
    const engine::RecordingFiles paused = test::makeTake(place, 2, "paused.mp4");
    const engine::RecordingFiles single = test::makeTake(place, 1, "single.mp4");

    auto core = test::makeApp(home, true, place.root);
    {
        MainWindow window(*core);
        window.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
        ASSERT_TRUE(waitUntil([&] { return window.recordingRecoveryDialog() != nullptr; }));
        RecordingRecoveryDialog* dialog = window.recordingRecoveryDialog();
        ASSERT_TRUE(waitUntil([&] { return dialog->takeList()->count() == 2; }));
        test::screenshotAtBothScales(dialog, "recording-recovery");

        dialog->takeList()->setCurrentRow(rowNaming(dialog->takeList(), "paused.mp4"));
        QTest::mouseClick(dialog->recoverButton(), Qt::LeftButton);
        ASSERT_TRUE(waitUntil([&] { return dialog->takeList()->count() == 1; }));
        EXPECT_TRUE(dialog->message().startsWith("Recovered recording from 2 saved parts."))
            << dialog->message().toStdString();
        EXPECT_TRUE(fs::exists(fs::canonical(place.destination) / "paused.mp4"));

        ASSERT_EQ(rowNaming(dialog->takeList(), "single.mp4"), 0);
        dialog->takeList()->setCurrentRow(0);
        QTest::mouseClick(dialog->discardButton(), Qt::LeftButton);
        ASSERT_TRUE(waitUntil([&] { return dialog->takeList()->count() == 0; }));
        EXPECT_EQ(dialog->message(), "The recording was moved to the Trash.");
        EXPECT_TRUE(fs::exists(place.temp / "data/Trash/files" / single.directory.filename()));
        EXPECT_EQ(core->settings().stringListValue(app::kUnfinishedTakesKey),
                  std::vector<std::string>{});

        QTest::mouseClick(dialog->laterButton(), Qt::LeftButton);
        EXPECT_TRUE(waitUntil([&] { return window.recordingRecoveryDialog() == nullptr; }));
        EXPECT_TRUE(core->recordingRecovery().waitForBackgroundWork(std::chrono::seconds(10)));
    }
    ::unsetenv("XDG_DATA_HOME");
}

}  // namespace
}  // namespace tessarin::gui
