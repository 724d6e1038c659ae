// The queue rows at the window's minimum size, and the trim editor opened from a row: keyframe
// stepping, the handles on the timeline confirmed by Trim, and Apply leaving the trim on the row.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QTest>
#include <QToolButton>
#include <filesystem>

#include "gui/ActionChips.hpp"
#include "gui/ElidedLabel.hpp"
#include "gui/FastCutReviewDialog.hpp"
#include "gui/MainWindow.hpp"
#include "gui/QueueList.hpp"
#include "gui/QueueRowWidget.hpp"
#include "gui/TrimEditorDialog.hpp"
#include "gui/TrimTimeline.hpp"
#include "tests/gui/GuiTestSupport.hpp"
#include "tests/gui/WindowTestFixture.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::gui {
namespace {

namespace fs = std::filesystem;
using test::waitUntil;
using StateKind = app::QueueItem::StateKind;

using TrimEditorWindowTest = test::WindowTest;

// Inside the list's viewport from left to right, and shown.
bool fullyShown(QWidget* widget, QWidget* viewport) {
    const QPoint left = widget->mapTo(viewport, QPoint(0, 0));
    return widget->isVisible() && left.x() >= 0 && left.x() + widget->width() <= viewport->width();
}

TEST_F(TrimEditorWindowTest, AFinishedRowWithALongNameKeepsItsButtonsAtTheMinimumSize) {
    const std::string name = std::string(90, 'n') + " interview with a very long description.mp4";
    test::dropOn(window_->findChild<QWidget*>("dropZone"),
                 {stage(test::testClip(test::TestClip::h264Aac), name)});
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items().size() == 1; }));
    QTest::mouseClick(window_->chips()->chip(app::ActionID::preset("mp4-h264")), Qt::LeftButton);
    QTest::mouseClick(window_->findChild<QAbstractButton*>("convertButton"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items().front().isFinished(); }));

    window_->resize(window_->minimumSizeHint().boundedTo(QSize(660, 2000)));
    window_->resize(660, window_->height());
    QueueRowWidget* row = window_->queueList()->row(core_->queue().items().front().id);
    auto* facts = row->findChild<ElidedLabel*>("factsLabel");
    ASSERT_TRUE(waitUntil([&] { return facts->fullText().contains(QChar(0xD7)); }));
    QTest::qWait(50);

    QWidget* viewport = window_->queueList()->viewport();
    EXPECT_LE(window_->width(), 660);
    EXPECT_FALSE(window_->queueList()->horizontalScrollBar()->isVisible());
    EXPECT_TRUE(fullyShown(row->findChild<QWidget*>("showInFolderButton"), viewport));
    EXPECT_TRUE(fullyShown(row->findChild<QWidget*>("openButton"), viewport));
    auto* title = row->findChild<ElidedLabel*>("nameLabel");
    EXPECT_TRUE(title->isElided());
    EXPECT_EQ(title->fullText().toStdString(), name);
    EXPECT_TRUE(row->findChild<ElidedLabel*>("outputLabel")->isElided());
    EXPECT_TRUE(facts->fullText().contains("160×120")) << facts->fullText().toStdString();
    EXPECT_TRUE(row->findChild<QWidget*>("thumbnail")->isVisible());
    // Last: the screenshot at 200 % leaves the window larger.
    test::screenshotAtBothScales(window_.get(), "main-long-name");
}

TEST_F(TrimEditorWindowTest, TheEditorStepsToAKeyframeSetsStartAndEndAndAppliesToTheRow) {
    const fs::path clip = test::testClip(test::TestClip::keyframesEverySecond);
    test::dropOn(window_->findChild<QWidget*>("dropZone"), {stage(clip, "talk.mp4")});
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items().size() == 1; }));
    const engine::Uuid id = core_->queue().items().front().id;

    // Closing without Apply leaves the row as it was.
    click(window_->queueList()->row(id), "trimButton");
    ASSERT_NE(window_->trimEditorDialog(), nullptr);
    window_->trimEditorDialog()->editor().setEnd(0, "1");
    click(window_->trimEditorDialog(), "closeEditor");
    ASSERT_TRUE(waitUntil([&] { return window_->trimEditorDialog() == nullptr; }));
    EXPECT_FALSE(core_->queue().items().front().pendingTrim.has_value());

    click(window_->queueList()->row(id), "trimButton");
    TrimEditorDialog* dialog = window_->trimEditorDialog();
    ASSERT_NE(dialog, nullptr);
    ASSERT_TRUE(waitUntil([&] { return dialog->editor().duration().has_value(); }));
    ASSERT_TRUE(waitUntil([&] { return dialog->editor().previewReady(); }))
        << dialog->editor().previewMessage();
    ASSERT_TRUE(dialog->editor().trimmingVisually());
    TrimTimeline* timeline = dialog->timeline();
    ASSERT_EQ(timeline->duration(), dialog->editor().duration());
    const double secondsPerPixel = *timeline->duration() / timeline->width();

    // A press on the track moves the playhead there; the keyframe after it is at 2 s.
    const QPoint origin = timeline->pointOf(TrimTimeline::Part::start);
    const QPoint atEnd = timeline->pointOf(TrimTimeline::Part::end);
    QTest::mouseClick(timeline, Qt::LeftButton, {},
                      QPoint(origin.x() + (atEnd.x() - origin.x()) * 3 / 10, origin.y()));
    EXPECT_NEAR(dialog->playhead(), 1.2, 2 * secondsPerPixel);
    click(dialog, "nextKeyframe");
    ASSERT_TRUE(waitUntil([&] { return !dialog->editor().keyframeSearching(); }));
    EXPECT_NEAR(dialog->playhead(), 2.0, 0.001) << dialog->editor().keyframeMessage();
    EXPECT_DOUBLE_EQ(timeline->playhead(), dialog->playhead());
    // A frame step is one frame of the source (10 fps here).
    click(dialog, "nextFrame");
    EXPECT_NEAR(dialog->playhead(), 2.1, 0.001);
    click(dialog, "previousFrame");

    // The start handle from the keyboard: I puts it at the playhead.
    timeline->setFocus();
    QTest::keyClick(timeline, Qt::Key_I);
    EXPECT_DOUBLE_EQ(timeline->start(), 2.0);
    // The end handle dragged by the pointer to 3.5 s.
    const QPoint end = timeline->pointOf(TrimTimeline::Part::end);
    const QPoint target(origin.x() + static_cast<int>((atEnd.x() - origin.x()) * 3.5 / 4.0),
                        end.y());
    QTest::mousePress(timeline, Qt::LeftButton, {}, end);
    QTest::mouseMove(timeline, QPoint((end.x() + target.x()) / 2, end.y()));
    QTest::mouseRelease(timeline, Qt::LeftButton, {}, target);
    EXPECT_NEAR(timeline->end(), 3.5, 2 * secondsPerPixel);
    // Not a value until Trim confirms the handles.
    EXPECT_TRUE(dialog->editor().hasUnconfirmedHandles());
    EXPECT_EQ(dialog->editor().clips().front().end, "");
    // The dragged handle stays chosen for the keyboard, which steps it by a frame; Down and Up
    // go round the playhead and the two handles.
    ASSERT_EQ(timeline->activePart(), TrimTimeline::Part::end);
    QTest::keyClick(timeline, Qt::Key_Down);
    EXPECT_EQ(timeline->activePart(), TrimTimeline::Part::playhead);
    QTest::keyClick(timeline, Qt::Key_Up);
    ASSERT_EQ(timeline->activePart(), TrimTimeline::Part::end);
    const double dragged = timeline->end();
    QTest::keyClick(timeline, Qt::Key_Right);
    EXPECT_NEAR(timeline->end(), dragged + 0.1, 1e-9);
    click(dialog, "trimControl");
    EXPECT_FALSE(dialog->editor().hasUnconfirmedHandles());
    const app::ClipDraft confirmed = dialog->editor().clips().front();
    EXPECT_EQ(confirmed.start, "2");
    EXPECT_NEAR(std::stod(confirmed.end), dragged + 0.1, 1e-6);
    test::screenshotAtBothScales(dialog, "trim-editor");

    click(dialog, "applyEditor");
    ASSERT_TRUE(waitUntil([&] { return window_->trimEditorDialog() == nullptr; }));
    const app::QueueItem& item = core_->queue().items().front();
    EXPECT_EQ(item.pendingTrim, (engine::Trim{"2", confirmed.end}));
    auto* subtitle = window_->queueList()->row(id)->findChild<ElidedLabel*>("subtitleLabel");
    EXPECT_TRUE(subtitle->fullText().contains("Using this file’s trim"))
        << subtitle->fullText().toStdString();
}

TEST_F(TrimEditorWindowTest, SuggestedClipsAreReviewedAndExportedByFastCutAsStreamCopies) {
    // 8 s with a keyframe every second; the tone is silent from 2 to 4 s and from 6 s on.
    const fs::path clip = test::makeClip(
        "paused-tone-keyframes-1s.mp4", {"-f",
                                         "lavfi",
                                         "-i",
                                         "testsrc2=size=160x120:rate=10:duration=8",
                                         "-f",
                                         "lavfi",
                                         "-i",
                                         "sine=frequency=440:sample_rate=48000:duration=8",
                                         "-filter_complex",
                                         "[1:a]volume=enable='between(t,2,4)+gte(t,6)':volume=0[a]",
                                         "-map",
                                         "0:v",
                                         "-map",
                                         "[a]",
                                         "-c:v",
                                         "libx264",
                                         "-preset",
                                         "ultrafast",
                                         "-pix_fmt",
                                         "yuv420p",
                                         "-x264-params",
                                         "keyint=10:min-keyint=10:scenecut=0",
                                         "-c:a",
                                         "aac",
                                         "-shortest"});
    test::dropOn(
        window_->findChild<QWidget*>("dropZone"),
        {stage(clip, "talk.mp4"), stage(test::testClip(test::TestClip::vp9Opus), "web.webm")});
    ASSERT_TRUE(waitUntil([&] { return core_->queue().items().size() == 2; }));
    const engine::Uuid id = core_->queue().items()[0].id;
    const engine::Uuid web = core_->queue().items()[1].id;
    // The batch trim is for the other file: a row's own clips win over it.
    QTest::keyClicks(window_->findChild<QLineEdit*>("trimStart"), "0.5");
    QTest::keyClicks(window_->findChild<QLineEdit*>("trimEnd"), "0.8");

    click(window_->queueList()->row(id), "trimButton");
    TrimEditorDialog* dialog = window_->trimEditorDialog();
    ASSERT_NE(dialog, nullptr);
    ASSERT_TRUE(waitUntil([&] { return dialog->editor().hasAudio(); }));
    if (dialog->editor().trimmingVisually()) {
        click(dialog, "switchToDetailed");
    }
    click(dialog, "useSuggestedClips");
    ASSERT_TRUE(waitUntil([&] { return dialog->editor().clips().size() == 2; }))
        << dialog->editor().fileMessage();
    EXPECT_EQ(dialog->editor().fileMessage(),
              "Suggested keep clips loaded. Review them before Apply.");
    click(dialog, "applyEditor");
    ASSERT_TRUE(waitUntil([&] { return window_->trimEditorDialog() == nullptr; }));
    ASSERT_TRUE(core_->queue().items().front().pendingClips);

    QTest::mouseClick(window_->chips()->chip(app::ActionID::fastCut()), Qt::LeftButton);
    QTest::mouseClick(window_->findChild<QAbstractButton*>("convertButton"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return window_->fastCutReviewDialog() != nullptr; }));
    FastCutReviewDialog* review = window_->fastCutReviewDialog();
    EXPECT_TRUE(review->isModal());
    ASSERT_TRUE(waitUntil([&] { return !review->review().loading(); }));
    EXPECT_FALSE(review->findChild<QWidget*>("planningText")->isVisible());
    EXPECT_TRUE(review->rowText(id).contains("Clip 2: ")) << review->rowText(id).toStdString();
    EXPECT_EQ(
        review->rowText(web),
        QString(engine::FastCut::Failure(engine::FastCut::Failure::Kind::unsupported).what()));
    auto chooseButton = [&](const engine::Uuid& row) {
        return review->findChild<QWidget*>(QString::fromStdString("reviewRow:" + row.text()))
            ->findChild<QPushButton*>("chooseConversionButton");
    };
    EXPECT_FALSE(chooseButton(id)->isVisible());
    EXPECT_TRUE(chooseButton(web)->isVisible());
    EXPECT_EQ(chooseButton(web)->text(), QString("Choose conversion preset…"));
    EXPECT_EQ(review->findChild<QLabel*>("closingText")->text(),
              QString("Only reviewed, ready files will start. Other files stay in the queue. "
                      "Export still checks that the source and boundaries have not changed and "
                      "that the cut decodes."));
    EXPECT_FALSE(review->findChild<QWidget*>("acceptWholeFile")->isVisible());
    EXPECT_FALSE(review->findChild<QWidget*>("reviewChanged")->isVisible());
    test::screenshotAtBothScales(review, "fast-cut-review");
    ASSERT_TRUE(review->exportButton()->isEnabled());
    QTest::mouseClick(review->exportButton(), Qt::LeftButton);

    EXPECT_TRUE(waitUntil([&] { return window_->fastCutReviewDialog() == nullptr; }));
    ASSERT_TRUE(waitUntil([&] {
        const auto& items = core_->queue().items();
        return items.size() == 3 && items[0].isFinished() && items[1].isFinished();
    }));
    // Only the reviewed, ready file started; the other waits for an action.
    EXPECT_EQ(window_->queueList()->row(web)->stateText(), QString("Waiting for an action"));
    // About 0–2.15 s and 3.85–6.15 s were suggested; copied from the keyframes at 0 and 3 s to
    // those at 3 and 7 s, each output holds the source's packets (10 a second) byte for byte.
    const std::vector<std::string> source = test::videoPacketHashes(clip);
    ASSERT_EQ(source.size(), 80U);
    const std::vector<std::vector<std::string>> expected = {
        {source.begin(), source.begin() + 30}, {source.begin() + 30, source.begin() + 70}};
    for (std::size_t index = 0; index < 2; ++index) {
        const app::QueueItem& item = core_->queue().items()[index];
        ASSERT_EQ(item.state.kind, StateKind::done)
            << (item.state.failure ? item.state.failure->stderrTail : "");
        EXPECT_EQ(item.state.output.parent_path(), media_.path());
        EXPECT_EQ(test::videoPacketHashes(item.state.output), expected[index]) << item.state.output;
    }
    EXPECT_EQ(core_->queue().items()[0].state.output.filename(), "talk-cut.mp4");
    EXPECT_EQ(window_->queueList()->row(id)->stateText(), QString("Fast cut"));
}

}  // namespace
}  // namespace tessarin::gui
