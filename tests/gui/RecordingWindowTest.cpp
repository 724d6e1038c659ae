// Recording from the window: "Record Screen…" with an area, the toolbar's countdown, time,
// pause, resume and stop, the saved file; and the area picker's drag. Records the test's own
// Xvfb display (no sound sources, so no sound server is needed).
#include <gtest/gtest.h>

#include <QComboBox>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTest>
#include <cstdlib>

#include "gui/AreaPickerOverlay.hpp"
#include "gui/RecordScreenDialog.hpp"
#include "gui/RecordingToolbar.hpp"
#include "tests/gui/WindowTestFixture.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::gui {
namespace {

namespace fs = std::filesystem;
using engine::RecordingPhase;
using test::waitUntil;

class RecordingWindowTest : public test::WindowTest {
protected:
    void SetUp() override {
        ::setenv("XDG_DATA_HOME", (data_ / "data").c_str(), 1);  // the recording root
        test::WindowTest::SetUp();
    }
    test::TempDir data_;
};

TEST_F(RecordingWindowTest, RecordsAnAreaPausesResumesAndSaves) {
    app::RecordingSessionModel& model = core_->recordingSession();
    engine::RecordingPreferences stored = model.preferences();
    stored.systemAudio = false;
    stored.microphoneID.reset();
    stored.countdown = 1;
    stored.destinationPath = media_.path().string();
    model.setPreferences(stored);

    auto* record = window_->findChild<QPushButton*>("recordScreenButton");
    ASSERT_NE(record, nullptr);
    ASSERT_TRUE(record->isEnabled());
    QTest::mouseClick(record, Qt::LeftButton);
    RecordScreenDialog* dialog = window_->recordScreenDialog();
    ASSERT_NE(dialog, nullptr);
    EXPECT_EQ(dialog->findChild<QSpinBox*>("recordingCountdown")->value(), 1);
    dialog->setArea({0, 0, 320, 240});
    QTest::mouseClick(dialog->findChild<QPushButton*>("startRecording"), Qt::LeftButton);

    RecordingToolbar* toolbar = window_->recordingToolbar();
    ASSERT_TRUE(toolbar->isVisible());
    auto* status = toolbar->findChild<QLabel*>("recordingStatus");
    ASSERT_TRUE(waitUntil([&] { return model.snapshot().phase == RecordingPhase::countdown; }, std::chrono::milliseconds(5000)));
    EXPECT_EQ(status->text(), "Starting after countdown");
    ASSERT_TRUE(waitUntil([&] { return model.snapshot().phase == RecordingPhase::recording; }, std::chrono::milliseconds(15000)))
        << model.snapshot().errorMessage;
    EXPECT_FALSE(record->isEnabled());  // one take at a time
    // Listed as unfinished while it runs, so that a crash leaves it offered for recovery.
    const auto listed = [&] {
        return core_->settings().stringListValue(app::kUnfinishedTakesKey).value_or(
            std::vector<std::string>{});
    };
    ASSERT_EQ(listed().size(), 1u);
    EXPECT_EQ(fs::path(listed().front()), model.snapshot().takeDirectory);
    auto* time = toolbar->findChild<QLabel*>("recordingTime");
    ASSERT_TRUE(waitUntil([&] { return time->text() == "00:01"; }, std::chrono::milliseconds(5000))) << time->text().toStdString();

    auto* pauseResume = toolbar->findChild<QPushButton*>("pauseResumeRecording");
    QTest::mouseClick(pauseResume, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return model.snapshot().phase == RecordingPhase::paused; }, std::chrono::milliseconds(10000)));
    EXPECT_EQ(pauseResume->text(), "Resume");
    QTest::mouseClick(pauseResume, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return model.snapshot().phase == RecordingPhase::recording; }, std::chrono::milliseconds(10000)));
    QTest::qWait(800);
    QSignalSpy saved(&model, &app::RecordingSessionModel::saved);
    QTest::mouseClick(toolbar->findChild<QPushButton*>("stopRecording"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return !saved.isEmpty(); }, std::chrono::milliseconds(30000))) << model.snapshot().errorMessage;

    const fs::path file = saved.front().front().toString().toStdString();
    EXPECT_EQ(file.parent_path(), media_.path());
    EXPECT_GT(fs::file_size(file), 1000u);
    EXPECT_EQ(status->text(), "Recording saved");
    EXPECT_TRUE(toolbar->findChild<QLabel*>("recordingMessage")->text().contains("Saved to"));
    EXPECT_GE(model.snapshot().elapsed, 1.5);
    EXPECT_TRUE(listed().empty());
    // The saved take can go to the queue like any dropped file.
    auto* addToQueue = toolbar->findChild<QPushButton*>("addRecordingToQueue");
    ASSERT_TRUE(addToQueue->isVisible());
    QTest::mouseClick(addToQueue, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items().size() == 1; },
                          std::chrono::milliseconds(5000)));
    QTest::mouseClick(toolbar->findChild<QPushButton*>("closeRecording"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return model.snapshot().phase == RecordingPhase::idle; }, std::chrono::milliseconds(5000)));
    EXPECT_TRUE(record->isEnabled());
}

TEST_F(RecordingWindowTest, ClosingWithATakeRunningAsksThenSavesBeforeTheWindowCloses) {
    app::RecordingSessionModel& model = core_->recordingSession();
    engine::RecordingPreferences preferences = model.preferences();
    preferences.systemAudio = false;
    preferences.microphoneID.reset();
    preferences.countdown = 0;
    preferences.destinationPath = media_.path().string();
    engine::RecordingTarget target;
    target.mode = engine::RecordingMode::area;
    target.area = engine::RecordingRect{0, 0, 320, 240};
    model.start(target, preferences);
    ASSERT_TRUE(waitUntil([&] { return model.snapshot().phase == RecordingPhase::recording; },
                          std::chrono::milliseconds(15000)))
        << model.snapshot().errorMessage;
    QTest::qWait(1000);
    QSignalSpy saved(&model, &app::RecordingSessionModel::saved);
    const auto question = [&] { return window_->findChild<QMessageBox*>("recordingQuitAlert"); };
    EXPECT_FALSE(window_->close());  // not yet: the user is asked first
    ASSERT_TRUE(waitUntil([&] { return question() && question()->isVisible(); },
                          std::chrono::milliseconds(5000)));
    EXPECT_EQ(question()->text(), "Save the recording before quitting?");
    EXPECT_EQ(question()->informativeText(),
              "Tessarin will stop recording and finish saving the file before it quits.");
    // Keep Recording: nothing stops.
    QTest::mouseClick(question()->findChild<QPushButton*>("keepRecording"), Qt::LeftButton);
    QTest::qWait(300);
    EXPECT_EQ(model.snapshot().phase, RecordingPhase::recording);
    EXPECT_FALSE(model.snapshot().confirmation);
    EXPECT_TRUE(window_->isVisible());

    EXPECT_FALSE(window_->close());
    ASSERT_TRUE(waitUntil([&] { return question() && question()->isVisible(); },
                          std::chrono::milliseconds(5000)));
    auto* save = question()->findChild<QPushButton*>("stopSaveAndQuit");
    EXPECT_EQ(save->text(), "Stop, Save and Quit");
    QTest::mouseClick(save, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return !saved.isEmpty() && !window_->isVisible(); },
                          std::chrono::milliseconds(30000)));
    EXPECT_TRUE(fs::is_regular_file(saved.front().front().toString().toStdString()));
}

TEST(AreaPickerOverlay, ADragMarksTheAreaAndEscapeCancels) {
    QScreen* screen = QGuiApplication::primaryScreen();
    auto* overlay = new AreaPickerOverlay(screen);
    QSignalSpy picked(overlay, &AreaPickerOverlay::picked);
    overlay->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(overlay));
    QTest::mousePress(overlay, Qt::LeftButton, {}, QPoint(40, 30));
    QTest::mouseMove(overlay, QPoint(140, 90));
    QTest::mouseRelease(overlay, Qt::LeftButton, {}, QPoint(240, 180));
    ASSERT_EQ(picked.size(), 1);
    const double ratio = screen->devicePixelRatio();
    const QPoint origin = screen->geometry().topLeft();
    EXPECT_EQ(picked.front().front().toRect(),
              QRect(qRound((origin.x() + 40) * ratio), qRound((origin.y() + 30) * ratio),
                    qRound(200 * ratio), qRound(150 * ratio)));

    auto* second = new AreaPickerOverlay(screen);
    QSignalSpy cancelled(second, &AreaPickerOverlay::cancelled);
    QSignalSpy none(second, &AreaPickerOverlay::picked);
    second->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(second));
    QTest::keyClick(second, Qt::Key_Escape);
    EXPECT_EQ(cancelled.size(), 1);
    EXPECT_TRUE(none.isEmpty());
}

TEST_F(RecordingWindowTest, TheToolbarFoldsShowsAGuideAndAsksBeforeDiscarding) {
    // A take counting down (no capture yet): the toolbar is up with all its controls.
    app::RecordingSessionModel& model = core_->recordingSession();
    engine::RecordingPreferences preferences = model.preferences();
    preferences.systemAudio = false;
    preferences.microphoneID.reset();
    preferences.countdown = 10;
    preferences.destinationPath = media_.path().string();
    engine::RecordingTarget target;
    target.mode = engine::RecordingMode::area;
    target.area = engine::RecordingRect{0, 0, 320, 240};
    model.start(target, preferences);
    ASSERT_TRUE(waitUntil([&] { return model.snapshot().phase == RecordingPhase::countdown; },
                          std::chrono::milliseconds(5000)))
        << model.snapshot().errorMessage;
    RecordingToolbar* toolbar = window_->recordingToolbar();
    toolbar->show();
    const auto shown = [&](const char* name) {
        auto* widget = toolbar->findChild<QWidget*>(name);
        return widget != nullptr && widget->isVisible();
    };
    EXPECT_TRUE(shown("recordingStatus"));
    EXPECT_FALSE(shown("recordingGuide"));
    QTest::mouseClick(toolbar->findChild<QPushButton*>("recordingGuideButton"), Qt::LeftButton);
    ASSERT_TRUE(shown("recordingGuide"));
    EXPECT_TRUE(toolbar->showingGuide());
    EXPECT_TRUE(toolbar->findChild<QLabel*>("recordingGuide")->text().contains("SIGUSR1 pauses"));
    const int expandedWidth = toolbar->sizeHint().width();

    auto* toggle = toolbar->findChild<QPushButton*>("recordingLayoutToggle");
    EXPECT_EQ(toggle->text(), "Compact");
    QTest::mouseClick(toggle, Qt::LeftButton);
    EXPECT_EQ(toolbar->toolbarLayout(), RecordingToolbar::Layout::compact);
    for (const char* kept : {"recordingTime", "pauseResumeRecording", "stopRecording"}) {
        EXPECT_TRUE(shown(kept)) << kept;
    }
    for (const char* folded :
         {"recordingStatus", "discardRecording", "recordingGuide", "recordingGuideButton"}) {
        EXPECT_FALSE(shown(folded)) << folded;
    }
    EXPECT_LT(toolbar->sizeHint().width(), expandedWidth);
    EXPECT_EQ(toggle->text(), "Expand");
    QTest::mouseClick(toggle, Qt::LeftButton);
    EXPECT_TRUE(shown("recordingStatus"));
    EXPECT_TRUE(shown("discardRecording"));
    EXPECT_FALSE(shown("recordingGuide"));  // folding closed it

    // Discard… asks; Keep Recording leaves the take be, Discard ends it.
    const auto question = [&] {
        return toolbar->findChild<QMessageBox*>("discardRecordingAlert");
    };
    QTest::mouseClick(toolbar->findChild<QPushButton*>("discardRecording"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return question() && question()->isVisible(); },
                          std::chrono::milliseconds(5000)));
    EXPECT_EQ(question()->text(), "Discard this recording?");
    QTest::mouseClick(question()->findChild<QPushButton*>("keepRecording"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return !model.snapshot().confirmation; },
                          std::chrono::milliseconds(5000)));
    EXPECT_EQ(model.snapshot().phase, RecordingPhase::countdown);
    QTest::mouseClick(toolbar->findChild<QPushButton*>("discardRecording"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return question() && question()->isVisible(); },
                          std::chrono::milliseconds(5000)));
    QTest::mouseClick(question()->findChild<QPushButton*>("confirmRecordingAlert"),
                      Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return model.snapshot().phase == RecordingPhase::idle; },
                          std::chrono::milliseconds(5000)));
    EXPECT_FALSE(toolbar->isVisible());
}

TEST(RecordingToolbar, TimeReadsMinutesAndSecondsThenHours) {
    EXPECT_EQ(RecordingToolbar::timeText(0), "00:00");
    EXPECT_EQ(RecordingToolbar::timeText(65.9), "01:05");
    EXPECT_EQ(RecordingToolbar::timeText(3725), "1:02:05");
}

}  // namespace
}  // namespace tessarin::gui
