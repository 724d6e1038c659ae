// The queue rows at the window's minimum size, and the trim editor opened from a row: keyframe
// stepping, start and end from the viewed frame, and Apply leaving the trim on the row.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QScrollBar>
#include <QTest>
#include <QToolButton>
#include <filesystem>

#include "gui/ActionChips.hpp"
#include "gui/ElidedLabel.hpp"
#include "gui/MainWindow.hpp"
#include "gui/QueueList.hpp"
#include "gui/QueueRowWidget.hpp"
#include "gui/TrimEditorDialog.hpp"
#include "tests/gui/GuiTestSupport.hpp"
#include "tests/gui/WindowTestFixture.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::gui {
namespace {

namespace fs = std::filesystem;
using test::waitUntil;

class TrimEditorWindowTest : public test::WindowTest {
protected:
    static void click(QWidget* parent, const char* name) {
        auto* button = parent->findChild<QAbstractButton*>(name);
        ASSERT_NE(button, nullptr) << name;
        ASSERT_TRUE(button->isVisible() && button->isEnabled()) << name;
        QTest::mouseClick(button, Qt::LeftButton);
    }
};

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
    const fs::path clip = test::makeClip(
        "keyframes-every-1s.mp4", {"-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10:duration=4",
                                   "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
                                   "-x264-params", "keyint=10:min-keyint=10:scenecut=0"});
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
    // The player shows the source where the session can play it; either way the time fields
    // and keyframe tools do the rest.
    if (dialog->editor().trimmingVisually()) {
        click(dialog, "switchToDetailed");
    }
    EXPECT_FALSE(dialog->editor().trimmingVisually());

    dialog->setPlayhead(1.2);
    click(dialog, "nextKeyframe");
    ASSERT_TRUE(waitUntil([&] { return !dialog->editor().keyframeSearching(); }));
    EXPECT_NEAR(dialog->playhead(), 2.0, 0.001) << dialog->editor().keyframeMessage();
    // Where the player loaded the source, a frame step is one frame of it (10 fps here).
    if (dialog->editor().previewReady()) {
        click(dialog, "nextFrame");
        EXPECT_NEAR(dialog->playhead(), 2.1, 0.001);
        click(dialog, "previousFrame");
    }
    click(dialog, "setStartHere");
    dialog->setPlayhead(3.5);
    click(dialog, "setEndHere");
    EXPECT_EQ(dialog->editor().clips().front().start, "2");
    EXPECT_EQ(dialog->editor().clips().front().end, "3.5");
    test::screenshotAtBothScales(dialog, "trim-editor");

    click(dialog, "applyEditor");
    ASSERT_TRUE(waitUntil([&] { return window_->trimEditorDialog() == nullptr; }));
    const app::QueueItem& item = core_->queue().items().front();
    EXPECT_EQ(item.pendingTrim, (engine::Trim{"2", "3.5"}));
    auto* subtitle = window_->queueList()->row(id)->findChild<ElidedLabel*>("subtitleLabel");
    EXPECT_TRUE(subtitle->fullText().contains("Using this file’s trim"))
        << subtitle->fullText().toStdString();
}

}  // namespace
}  // namespace tessarin::gui
