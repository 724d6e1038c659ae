// The main window over a real queue: drops of generated clips, real conversions and frame exports
// with the helper folder's ffmpeg, cancellation, the batch trim and the notice.
#include <gtest/gtest.h>

#include <QApplication>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <filesystem>
#include <fstream>

#include "gui/ActionChips.hpp"
#include "gui/DropZone.hpp"
#include "gui/ElidedLabel.hpp"
#include "gui/MainWindow.hpp"
#include "gui/NoticeBanner.hpp"
#include "gui/QueueList.hpp"
#include "gui/QueueRowWidget.hpp"
#include "tests/gui/GuiTestSupport.hpp"
#include "tests/gui/WindowTestFixture.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::gui {
namespace {

namespace fs = std::filesystem;
using test::answerNextDialog;
using test::waitUntil;
using StateKind = app::QueueItem::StateKind;

class MainWindowTest : public test::WindowTest {
protected:
    QWidget* find(const char* name) const { return window_->findChild<QWidget*>(name); }

    QueueRowWidget* row(std::size_t index) const {
        return window_->queueList()->row(core_->queue().items().at(index).id);
    }

    std::vector<QString> stateTexts() const {
        std::vector<QString> texts;
        for (const app::QueueItem& item : core_->queue().items()) {
            texts.push_back(window_->queueList()->row(item.id)->stateText());
        }
        return texts;
    }

    void click(const char* name) const { WindowTest::click(window_.get(), name); }
};

TEST_F(MainWindowTest, DroppedClipsWaitForAnActionThenConvertWithTheChosenChip) {
    test::screenshotAtBothScales(window_.get(), "main-empty");
    test::dropOn(find("dropZone"),
                 {stage(test::testClip(test::TestClip::h264Aac), "first.mp4"),
                  stage(test::testClip(test::TestClip::h264NoAudio), "second.mp4")});
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items().size() == 2; }));
    EXPECT_EQ(stateTexts(),
              (std::vector<QString>{"Waiting for an action", "Waiting for an action"}));
    EXPECT_TRUE(find("convertButton")->isEnabled());

    QToolButton* chip = window_->chips()->chip(app::ActionID::preset("mp4-h264"));
    ASSERT_NE(chip, nullptr);
    EXPECT_EQ(chip->text(), QString("H.264"));
    QTest::mouseClick(chip, Qt::LeftButton);
    EXPECT_TRUE(chip->isChecked());
    EXPECT_TRUE(chip->toolTip().endsWith("Chosen for the 2 videos waiting for an action"))
        << chip->toolTip().toStdString();

    click("convertButton");
    ASSERT_TRUE(waitUntil([&] {
        const auto& items = core_->queue().items();
        return std::all_of(items.begin(), items.end(),
                           [](const auto& item) { return item.isFinished(); });
    }));
    EXPECT_EQ(stateTexts(), (std::vector<QString>{"Converted", "Converted"}));
    for (const app::QueueItem& item : core_->queue().items()) {
        ASSERT_EQ(item.state.kind, StateKind::done);
        EXPECT_TRUE(fs::is_regular_file(item.state.output)) << item.state.output;
        EXPECT_EQ(item.state.output.parent_path(), media_.path());
        EXPECT_GT(fs::file_size(item.state.output), 0u);
        QueueRowWidget* done = window_->queueList()->row(item.id);
        EXPECT_TRUE(done->findChild<QWidget*>("showInFolderButton")->isVisible());
        EXPECT_TRUE(done->findChild<QWidget*>("openButton")->isVisible());
        EXPECT_FALSE(done->findChild<QWidget*>("cancelButton")->isVisible());
    }

    click("clearFinishedButton");
    EXPECT_TRUE(waitUntil([&] { return window_->queueList()->rowCount() == 0; }));
}

TEST_F(MainWindowTest, CancellingARunningRowShowsCancelled) {
    // Long enough that the conversion is still running when the test cancels it.
    const fs::path clip = test::makeClip(
        "gui-long.mp4", {"-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=30:duration=40", "-c:v",
                         "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    QTest::mouseClick(window_->chips()->chip(app::ActionID::preset("mp4-h264")), Qt::LeftButton);
    test::dropOn(find("dropZone"), {stage(clip, "long.mp4")});
    ASSERT_TRUE(waitUntil([&] {
        const auto& items = core_->queue().items();
        return items.size() == 1 && items[0].state.kind == StateKind::running;
    }));
    EXPECT_EQ(stateTexts(), std::vector<QString>{"Converting"});
    QWidget* progress = row(0)->findChild<QWidget*>("progress");
    EXPECT_TRUE(progress->isVisible());
    test::screenshotAtBothScales(window_.get(), "main-running");

    auto* cancel = row(0)->findChild<QToolButton*>("cancelButton");
    ASSERT_TRUE(cancel->isVisible());
    QTest::mouseClick(cancel, Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items()[0].isFinished(); }));
    EXPECT_EQ(stateTexts(), std::vector<QString>{"Cancelled"});
    EXPECT_FALSE(progress->isVisible());
    EXPECT_TRUE(row(0)->findChild<QWidget*>("removeButton")->isVisible());
}

TEST_F(MainWindowTest, InvalidBatchTrimShowsItsInlineText) {
    auto* start = qobject_cast<QLineEdit*>(find("trimStart"));
    auto* end = qobject_cast<QLineEdit*>(find("trimEnd"));
    auto* note = qobject_cast<QLabel*>(find("trimNote"));
    QTest::keyClicks(start, "1:7x");
    EXPECT_EQ(core_->queue().trimStart(), "1:7x");
    EXPECT_EQ(note->text(),
              QString("Not a time — use SS, MM:SS, or HH:MM:SS (ignored until fixed)"));

    start->clear();
    QTest::keyClicks(start, "30");
    QTest::keyClicks(end, "0:10");
    EXPECT_EQ(note->text(), QString("Trim start must be before end (ignored until fixed)"));

    end->clear();
    QTest::keyClicks(end, "1:10");
    EXPECT_TRUE(note->text().isEmpty()) << note->text().toStdString();
}

TEST_F(MainWindowTest, ADuplicateDropShowsTheNoticeUntilDismissed) {
    const QUrl clip = stage(test::testClip(test::TestClip::h264Aac), "clip.mp4");
    test::dropOn(find("dropZone"), {clip});
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items().size() == 1; }));
    test::dropOn(find("dropZone"), {clip});
    NoticeBanner* notice = window_->notice();
    ASSERT_TRUE(waitUntil([&] { return notice->isVisible(); }));
    EXPECT_EQ(notice->text(), QString("That video is already in the queue."));
    EXPECT_EQ(core_->queue().items().size(), 1u);
    test::screenshotAtBothScales(window_.get(), "main-notice");

    QTest::mouseClick(notice->findChild<QToolButton*>("dismissNotice"), Qt::LeftButton);
    EXPECT_FALSE(notice->isVisible());
    EXPECT_FALSE(core_->queue().intakeNotice().has_value());
}

TEST_F(MainWindowTest, AnUnavailableChipShowsItsReasonAndIsNotSelected) {
    // No transcription model is set up in a fresh configuration.
    QToolButton* transcript = window_->chips()->chip(app::ActionID::transcribe());
    ASSERT_NE(transcript, nullptr);
    QTest::mouseClick(transcript, Qt::LeftButton);
    EXPECT_FALSE(core_->queue().selectedActionID().has_value());
    EXPECT_EQ(window_->chips()->detailText(), QString(app::kNoTranscriptionModelSentence));
}

TEST_F(MainWindowTest, TheFramesChipExportsADroppedClipToAFolderShownInFolder) {
    // Three two-second slides: red, blue, green.
    const fs::path clip = test::makeClip(
        "gui-slides.mp4", {"-f", "lavfi", "-i",
                           "color=c=red:s=160x120:r=25:d=2[a];color=c=blue:s=160x120:r=25:d=2[b];"
                           "color=c=green:s=160x120:r=25:d=2[c];[a][b][c]concat=n=3:v=1:a=0",
                           "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    QToolButton* frames = window_->chips()->chip(app::ActionID::frames());
    ASSERT_NE(frames, nullptr);
    EXPECT_EQ(frames->text(), QString("Frames"));
    QTest::mouseClick(frames, Qt::LeftButton);
    ASSERT_EQ(core_->queue().selectedActionID(), app::ActionID::frames());
    EXPECT_TRUE(frames->isChecked());
    EXPECT_NE(window_->chips()->detailText(), QString(app::kFramesUnavailableSentence));

    test::dropOn(find("dropZone"), {stage(clip, "slides.mp4")});
    ASSERT_TRUE(waitUntil([&] {
        const auto& items = core_->queue().items();
        return items.size() == 1 && items[0].isFinished();
    }));
    const app::QueueItem& item = core_->queue().items()[0];
    ASSERT_EQ(item.state.kind, StateKind::done)
        << (item.state.failure ? item.state.failure->stderrTail : "");
    EXPECT_EQ(stateTexts(), std::vector<QString>{"Frames exported"});
    EXPECT_EQ(item.state.output, media_.path() / "slides-frames");
    EXPECT_TRUE(fs::is_regular_file(item.state.output / "frames.json"));
    EXPECT_TRUE(fs::is_regular_file(item.state.output / "contact-sheet.jpg"));
    EXPECT_TRUE(row(0)->findChild<QWidget*>("showInFolderButton")->isVisible());
    EXPECT_FALSE(row(0)->findChild<QWidget*>("cancelButton")->isVisible());
    EXPECT_EQ(row(0)->findChild<ElidedLabel*>("outputLabel")->fullText(), QString("slides-frames"));
    test::screenshotAtBothScales(window_.get(), "main-frames-done");
}

TEST_F(MainWindowTest, AskEachTimeDropsGoToTheChosenFolderOrNowhere) {
    core_->outputDestination().setMode(app::OutputMode::askEachTime);
    const QUrl clip = stage(test::testClip(test::TestClip::h264Aac), "asked.mp4");

    QString caption;
    answerNextDialog<QFileDialog>([&](QFileDialog* dialog) {
        caption = dialog->windowTitle();
        dialog->reject();
    });
    test::dropOn(find("dropZone"), {clip});
    EXPECT_EQ(caption, QString("Choose where to save this conversion"));
    EXPECT_TRUE(core_->queue().items().empty());

    test::TempDir folder;
    answerNextDialog<QFileDialog>([&](QFileDialog* dialog) {
        dialog->setDirectory(QString::fromStdString(folder.path().string()));
        static_cast<QDialog*>(dialog)->accept();
    });
    test::dropOn(find("dropZone"), {clip});
    ASSERT_EQ(core_->queue().items().size(), 1u);
    const app::QueueItem& item = core_->queue().items()[0];
    EXPECT_EQ(item.destination, app::OutputDestination::Resolution::inFolder(folder.path()));
    EXPECT_TRUE(item.destinationWasOverridden);
}

TEST_F(MainWindowTest, ClosingWhileConvertingAsksFirst) {
    const fs::path clip = test::makeClip(
        "gui-long.mp4", {"-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=30:duration=40", "-c:v",
                         "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"});
    QTest::mouseClick(window_->chips()->chip(app::ActionID::preset("mp4-h264")), Qt::LeftButton);
    test::dropOn(find("dropZone"), {stage(clip, "long.mp4")});
    ASSERT_TRUE(waitUntil([&] { return core_->queue().isWorking(); }));

    QString title;
    answerNextDialog<QMessageBox>([&](QMessageBox* alert) {
        title = alert->text();
        for (QAbstractButton* button : alert->buttons()) {
            if (button->text() == QString(app::TessarinApp::kQuitAlertKeep)) {
                button->click();
            }
        }
    });
    EXPECT_FALSE(window_->close());
    EXPECT_EQ(title, QString(app::TessarinApp::kQuitAlertTitle));
    EXPECT_TRUE(window_->isVisible());
    EXPECT_TRUE(core_->queue().isWorking());

    answerNextDialog<QMessageBox>([&](QMessageBox* alert) {
        for (QAbstractButton* button : alert->buttons()) {
            if (button->text() == QString(app::TessarinApp::kQuitAlertQuit)) {
                button->click();
            }
        }
    });
    EXPECT_TRUE(window_->close());
    EXPECT_TRUE(core_->queue().isShuttingDown());
}

TEST_F(MainWindowTest, ALargeBatchWaitsForTheDialogsAnswer) {
    // Intake looks at names and file types only, so empty files stand in for 501 videos.
    QList<QUrl> urls;
    for (int index = 0; index < 501; ++index) {
        const fs::path file = media_.path() / ("video-" + std::to_string(index) + ".mp4");
        std::ofstream(file).put('\0');
        urls.append(QUrl::fromLocalFile(QString::fromStdString(file.string())));
    }
    test::dropOn(find("dropZone"), urls);
    ASSERT_TRUE(waitUntil([&] { return window_->pendingIntakeDialog() != nullptr; }));
    QMessageBox* dialog = window_->pendingIntakeDialog();
    EXPECT_EQ(dialog->windowTitle(), QString("Add 501 Videos"));
    EXPECT_EQ(dialog->informativeText(), QString("501 videos found. Add all to the queue?"));
    EXPECT_TRUE(core_->queue().items().empty());

    QAbstractButton* addAll = nullptr;
    for (QAbstractButton* button : dialog->buttons()) {
        if (button->text() == "Add All") {
            addAll = button;
        }
    }
    ASSERT_NE(addAll, nullptr);
    addAll->click();
    EXPECT_EQ(core_->queue().items().size(), 501u);
    EXPECT_FALSE(core_->queue().pendingIntake().has_value());
    EXPECT_TRUE(waitUntil([&] { return window_->pendingIntakeDialog() == nullptr; }));
}

TEST_F(MainWindowTest, DeleteRemovesTheFocusedStagedRow) {
    test::dropOn(find("dropZone"),
                 {stage(test::testClip(test::TestClip::h264Aac), "keep.mp4"),
                  stage(test::testClip(test::TestClip::h264NoAudio), "drop.mp4")});
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items().size() == 2; }));
    window_->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window_.get()));
    QueueRowWidget* second = row(1);
    second->setFocus();
    ASSERT_TRUE(waitUntil([&] { return second->hasFocus(); }, std::chrono::seconds(5)));
    QTest::keyClick(window_.get(), Qt::Key_Delete);
    ASSERT_EQ(core_->queue().items().size(), 1u);
    EXPECT_EQ(core_->queue().items()[0].source.filename(), "keep.mp4");
}

TEST(MainWindowWithoutTools, ShowsTheMissingToolsSentence) {
    test::ConfigHome home;
    auto core = test::makeApp(home, /*withTools=*/false);
    MainWindow window(*core);
    window.show();
    auto* missing = window.findChild<QLabel*>("missingTools");
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(missing->text(), QString::fromUtf8(app::kMissingToolsSentence));
    EXPECT_EQ(window.findChild<QWidget*>("dropZone"), nullptr);
    // Files handed to the application are refused too.
    const test::TempDir dir;
    const fs::path video = dir / "clip.mp4";
    { std::ofstream file(video); }
    core->openURLs({QUrl::fromLocalFile(QString::fromStdString(video.string()))});
    EXPECT_TRUE(core->queue().items().empty());
    EXPECT_FALSE(core->queue().hasTools());
}

}  // namespace
}  // namespace tessarin::gui
