// What the trim editor's Apply leaves on a row, and how the queue exports clips: separate clips
// as one output each (also from a row already waiting), kept ranges as one joined output;
// finished rows refuse the editor. Rows carry the facts of the queue's probe of their source.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "app/queue/QueueModel.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using Kind = QueueItem::StateKind;

double durationOf(const fs::path& file) {
    return test::probeFile(file).durationSeconds.value_or(-1);
}

TEST(QueueTrimEditor, SeparateClipsBecomeOneOutputEachAndKeptRangesOneJoinedOutput) {
    test::ensureCoreApplication();
    const test::TempDir dir;
    const fs::path clip = test::testClip(test::TestClip::pausedTone);
    const fs::path separate = test::copyClip(clip, dir / "separate.mp4");
    const fs::path joined = test::copyClip(clip, dir / "joined.mp4");
    QueueModel queue(engine::Tools::inBundle(test::helperDirectory()));
    ASSERT_TRUE(queue.intake(test::urlsOf({separate, joined}), {}));
    ASSERT_TRUE(test::waitFor([&] { return queue.items().size() == 2; }));
    const engine::Uuid first = queue.items()[0].id;
    const engine::Uuid second = queue.items()[1].id;
    // The queue probes each new source once for what its row shows.
    ASSERT_TRUE(test::waitFor([&] { return queue.item(second)->sourceWidth.has_value(); }));
    EXPECT_EQ(queue.item(second)->sourceWidth, 160);
    EXPECT_EQ(queue.item(second)->sourceHeight, 120);
    EXPECT_NEAR(queue.item(second)->sourceDurationSeconds.value_or(0), 10.0, 0.1);
    EXPECT_EQ(queue.item(second)->sourceBytes, static_cast<int64_t>(fs::file_size(joined)));

    const std::optional<TrimEditorRequest> request = queue.trimEditorRequest(first);
    ASSERT_TRUE(request.has_value());
    EXPECT_EQ(request->source, separate);
    const std::vector<engine::ClipSelection> clips = {
        engine::ClipSelection(engine::Trim{"0", "1.5"}, "Intro"),
        engine::ClipSelection(engine::Trim{"4", "6"}, "")};
    TrimEditorResult result;
    result.clips = clips;
    ASSERT_TRUE(queue.applyTrimEditor(first, result));
    EXPECT_EQ(queue.item(first)->trimLabel, "2 clips · Separate clips");
    result.mode = ClipExportMode::keep;
    ASSERT_TRUE(queue.applyTrimEditor(second, result));
    EXPECT_EQ(queue.trimEditorRequest(second)->initialMode, ClipExportMode::keep);

    queue.setSelectedActionID(ActionID::preset("mp4-h264"));
    queue.start();
    ASSERT_TRUE(test::waitFor(
        [&] { return queue.items().size() == 3 && test::countIn(queue, Kind::done) == 3; }));
    std::vector<std::string> names;
    std::vector<double> lengths;
    for (const QueueItem& item : queue.items()) {
        names.push_back(item.state.output.filename().string());
        lengths.push_back(durationOf(item.state.output));
    }
    EXPECT_EQ(names[0], "separate-h264_crf33-clip-001-intro.mp4");
    EXPECT_EQ(names[1], "separate-h264_crf33-clip-002.mp4");
    EXPECT_NEAR(lengths[0], 1.5, 0.15);
    EXPECT_NEAR(lengths[1], 2.0, 0.15);
    EXPECT_NEAR(lengths[2], 3.5, 0.15);  // 0-1.5 and 4-6 in one file

    // A staged row that follows an invalid batch trim says so.
    const fs::path third = test::copyClip(clip, dir / "third.mp4");
    queue.setSelectedActionID(std::nullopt);
    ASSERT_TRUE(queue.intake(test::urlsOf({third}), {}));
    ASSERT_TRUE(test::waitFor([&] { return queue.items().size() == 4; }));
    const engine::Uuid staged = queue.items().back().id;
    queue.setTrim("5", "2");
    TrimEditorResult inherit;
    inherit.inheritBatch = true;
    ASSERT_TRUE(queue.trimEditorRequest(staged)->batchStartText.has_value());
    ASSERT_TRUE(queue.applyTrimEditor(staged, inherit));
    EXPECT_EQ(queue.item(staged)->trimLabel, "invalid range — fix it in the main window");
    queue.setTrim("1", "2");
    ASSERT_TRUE(queue.applyTrimEditor(staged, inherit));
    EXPECT_EQ(queue.item(staged)->trimLabel, "Using batch trim · 1–2");

    // A finished row no longer takes a trim.
    TrimEditorResult trim;
    trim.trim = engine::Trim{"1", "2"};
    EXPECT_FALSE(queue.applyTrimEditor(second, trim));
    EXPECT_FALSE(queue.item(second)->pendingTrim.has_value());
}

TEST(QueueTrimEditor, AWaitingConversionTakesSeparateClipsAsOneWaitingRowEach) {
    test::ensureCoreApplication();
    const test::TempDir dir;
    // Long enough that it still runs while the second file waits behind it.
    const fs::path busy = test::copyClip(
        test::makeClip("queue-long.mp4",
                       {"-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=30:duration=40", "-c:v",
                        "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"}),
        dir / "busy.mp4");
    const fs::path talk =
        test::copyClip(test::testClip(test::TestClip::pausedTone), dir / "talk.mp4");
    QueueModel queue(engine::Tools::inBundle(test::helperDirectory()));
    ASSERT_TRUE(
        queue.intake(test::urlsOf({busy, talk}), test::withAction(ActionID::preset("mp4-h264"))));
    ASSERT_EQ(queue.items().size(), 2U);
    ASSERT_EQ(queue.items()[0].state.kind, Kind::running);
    const engine::Uuid waiting = queue.items()[1].id;
    ASSERT_EQ(queue.items()[1].state.kind, Kind::waiting);

    TrimEditorResult result;
    result.clips = {engine::ClipSelection(engine::Trim{"0", "1.5"}, "Intro"),
                    engine::ClipSelection(engine::Trim{"4", "6"}, "")};
    ASSERT_TRUE(queue.applyTrimEditor(waiting, result));
    ASSERT_EQ(queue.items().size(), 3U);
    const std::vector<std::pair<engine::Trim, std::string>> expected = {
        {engine::Trim{"0", "1.5"}, "-clip-001-intro"}, {engine::Trim{"4", "6"}, "-clip-002"}};
    for (std::size_t index = 0; index < expected.size(); ++index) {
        const QueueItem& row = queue.items()[index + 1];
        EXPECT_EQ(row.state.kind, Kind::waiting);
        ASSERT_TRUE(row.kind);
        const engine::Preset* preset = row.kind->preset();
        ASSERT_NE(preset, nullptr);
        EXPECT_EQ(preset->options.trim, expected[index].first);
        EXPECT_TRUE(preset->filenameSuffix.ends_with(expected[index].second))
            << preset->filenameSuffix;
        EXPECT_FALSE(row.pendingClips);
    }
    EXPECT_EQ(queue.items()[1].id, waiting);
    EXPECT_EQ(queue.items()[2].trimLabel, "Clip 2 of 2 · 4–6");
    // Each clip row is one output now: the editor opens it with its own range, not the list.
    EXPECT_FALSE(queue.trimEditorRequest(waiting)->initialClips);
    EXPECT_EQ(queue.trimEditorRequest(waiting)->initialTrim, (engine::Trim{"0", "1.5"}));
}

}  // namespace
}  // namespace tessarin::app
