// The trim editor's model: apply by case, validation texts, undo, the cut aids, and answers
// that arrive for a range that changed meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QSignalSpy>
#include <QTest>
#include <filesystem>
#include <optional>

#include "app/trim/TrimEditor.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

engine::Tools helperTools() {
    return engine::Tools::inBundle(test::helperDirectory()).value();
}

fs::path keyframeClip() {
    return test::testClip(test::TestClip::keyframesEverySecond);
}

class TrimEditorTest : public ::testing::Test {
protected:
    void SetUp() override { test::ensureCoreApplication(); }

    std::unique_ptr<TrimEditor> openEditor(const fs::path& source, TrimEditorRequest request = {}) {
        request.source = source;
        auto editor = std::make_unique<TrimEditor>(request, helperTools());
        editor->onApply = [this](const TrimEditorResult& result) {
            applied.push_back(result);
            return rowAccepts;
        };
        editor->open();
        EXPECT_TRUE(QTest::qWaitFor([&] { return !editor->probing(); }, 20000));
        return editor;
    }

    static bool waitUntil(const std::function<bool()>& condition) {
        return QTest::qWaitFor(condition, 30000);
    }

    std::vector<TrimEditorResult> applied;
    bool rowAccepts = true;
};

TEST_F(TrimEditorTest, AppliesATrimClipsOrAJoinedOutputByCase) {
    TrimEditorRequest request;
    request.initialTrim = engine::Trim{"1", "3"};
    auto editor = openEditor(test::testClip(test::TestClip::pausedTone), request);
    ASSERT_TRUE(editor->duration().has_value());
    EXPECT_NEAR(*editor->duration(), 10.0, 0.1);
    EXPECT_TRUE(editor->hasAudio());

    // One unnamed clip becomes the file's trim, not a clip list.
    editor->setStartHere(1.25);
    ASSERT_TRUE(editor->apply());
    ASSERT_EQ(applied.size(), 1u);
    EXPECT_EQ(applied[0].trim, (engine::Trim{"1.25", "3"}));
    EXPECT_FALSE(applied[0].clips.has_value());
    EXPECT_THAT(editor->applyMessage(), HasSubstr("Apply saves this file’s trim."));

    editor->addClip();
    editor->setStart(1, "5");
    editor->setEnd(1, "6.5");
    ASSERT_TRUE(editor->apply());
    ASSERT_TRUE(applied[1].clips.has_value());
    EXPECT_EQ(applied[1].clips->size(), 2u);
    EXPECT_EQ(applied[1].mode, ClipExportMode::separate);
    EXPECT_THAT(editor->applyNote(), HasSubstr("2 separate clip outputs."));

    editor->setExportMode(ClipExportMode::keep);
    EXPECT_THAT(editor->applyNote(), HasSubstr("3.25 seconds kept in source order"));
    ASSERT_TRUE(editor->apply());
    EXPECT_EQ(applied[2].mode, ClipExportMode::keep);

    rowAccepts = false;
    EXPECT_FALSE(editor->apply());
    EXPECT_TRUE(editor->applyFailed());
    EXPECT_EQ(editor->applyMessage(),
              "The file could not be staged, or the row is no longer editable. Close this editor "
              "and check the queue.");
}

TEST_F(TrimEditorTest, ShowsEachDraftsValidationAndRefusesToApplyIt) {
    auto editor = openEditor(test::testClip(test::TestClip::pausedTone));
    const std::vector<std::tuple<std::string, std::string, std::optional<std::string>>> cases = {
        {"1:60", "", "Enter a finite time as SS, MM:SS, or HH:MM:SS."},
        {"", "-1", "Enter a finite time as SS, MM:SS, or HH:MM:SS."},
        {"5", "3", "Start must be before end."},
        {"", "0", "Start must be before end."},
        {"", "11", "End is after this video's length."},
        {"10", "", "Start must be before this video's end."},
        {"0:02", "0:04.5", std::nullopt},
        {"", "", std::nullopt},
    };
    for (const auto& [start, end, message] : cases) {
        editor->setStart(0, start);
        editor->setEnd(0, end);
        EXPECT_EQ(editor->validation(0), message) << start << " " << end;
    }
    editor->setStart(0, "5");
    editor->setEnd(0, "3");
    EXPECT_FALSE(editor->apply());
    EXPECT_EQ(editor->applyMessage(), "Start must be before end.");
    EXPECT_TRUE(applied.empty());
}

TEST_F(TrimEditorTest, UndoBringsBackTheListBeforeChapters) {
    auto editor = openEditor(test::testClip(test::TestClip::chapters));
    editor->setEnd(0, "2");
    const TrimEditorSnapshot before = editor->snapshot();
    editor->useChapters();
    ASSERT_EQ(editor->clips().size(), 3u);
    EXPECT_EQ(editor->fileMessage(), "Chapter clips loaded. Review them before Apply.");
    EXPECT_EQ(editor->clips()[1].name, "Middle part");
    editor->undo();
    EXPECT_EQ(editor->snapshot(), before);
    editor->redo();
    EXPECT_EQ(editor->clips().size(), 3u);
    editor->undo();
    editor->undo();
    EXPECT_EQ(editor->clips()[0].end, "");
    EXPECT_FALSE(editor->canUndo());

    auto plain = openEditor(test::testClip(test::TestClip::pausedTone));
    plain->useChapters();
    EXPECT_EQ(plain->fileMessage(), "No embedded chapters available.");
    EXPECT_EQ(plain->clips().size(), 1u);
}

TEST_F(TrimEditorTest, SuggestedClipsSaveAndLoadAsAListForThisSourceOnly) {
    const test::TempDir folder;
    const fs::path source = folder / "talk.mp4";
    fs::copy_file(test::testClip(test::TestClip::pausedTone), source);
    auto editor = openEditor(source);
    editor->useSuggestedClips(engine::SilenceSettings{});
    ASSERT_TRUE(waitUntil([&] { return !editor->suggesting(); }));
    ASSERT_EQ(editor->clips().size(), 2u) << editor->fileMessage();
    EXPECT_EQ(editor->fileMessage(), "Suggested keep clips loaded. Review them before Apply.");

    const fs::path list = folder / "talk.clips.json";
    editor->saveClips(list);
    EXPECT_EQ(editor->fileMessage(), "Clip list saved.");
    editor->setExportMode(ClipExportMode::keep);
    editor->selectWholeFile();
    editor->loadClips(list);
    EXPECT_EQ(editor->clips().size(), 2u);
    EXPECT_EQ(editor->exportMode(), ClipExportMode::separate);
    EXPECT_EQ(editor->fileMessage(), "Loaded 2 clips. Review them before Apply.");

    editor->selectWholeFile();
    fs::last_write_time(source, fs::last_write_time(source) + std::chrono::seconds(1));
    editor->loadClips(list);
    EXPECT_EQ(editor->clips().size(), 1u);
    EXPECT_THAT(editor->fileMessage(), HasSubstr("belongs to a different or changed source"));

    // Without audio the list stays as it was and the sentence says why.
    auto silent = openEditor(test::testClip(test::TestClip::h264NoAudio));
    silent->useSuggestedClips(engine::SilenceSettings{});
    ASSERT_TRUE(waitUntil([&] { return !silent->suggesting(); }));
    EXPECT_EQ(silent->fileMessage(),
              "Suggestions need a video with audio and a known length of at most six hours.");
    EXPECT_EQ(silent->clips().size(), 1u);
}

TEST_F(TrimEditorTest, KeyframesMoveThePlayheadOrASideAndIgnoreAChangedRange) {
    auto editor = openEditor(keyframeClip());
    QSignalSpy seeks(editor.get(), &TrimEditor::seekRequested);
    editor->keyframe(TrimEditor::KeyframeAction::next, 1.2);
    ASSERT_TRUE(waitUntil([&] { return !editor->keyframeSearching(); }));
    ASSERT_EQ(seeks.size(), 1);
    EXPECT_NEAR(seeks[0][0].toDouble(), 2.0, 0.001);

    editor->keyframe(TrimEditor::KeyframeAction::viewedAsStart, 2.5);
    ASSERT_TRUE(waitUntil([&] { return !editor->keyframeSearching(); }));
    EXPECT_EQ(editor->clips()[0].start, "2");

    // The answer comes for a range that changed since the request.
    editor->keyframe(TrimEditor::KeyframeAction::snapEnd, 0);
    editor->setEnd(0, "3.5");
    ASSERT_TRUE(waitUntil([&] { return !editor->keyframeSearching(); }));
    EXPECT_EQ(editor->clips()[0].end, "3.5");
    EXPECT_EQ(editor->keyframeMessage(), "The range changed. Choose the keyframe action again.");

    editor->keyframe(TrimEditor::KeyframeAction::previous, 9);
    EXPECT_EQ(editor->keyframeMessage(), "Move the playhead within this video, then try again.");
}

TEST_F(TrimEditorTest, KeepsOnlyTheLatestWaveformAndBlocksEditingWhileHandlesAreUnconfirmed) {
    auto editor = openEditor(test::testClip(test::TestClip::pausedTone));
    editor->requestWaveform(0, 30.5);
    editor->requestWaveform(2, 5);
    ASSERT_TRUE(editor->waitForBackgroundWork(std::chrono::seconds(30)));
    ASSERT_TRUE(waitUntil([&] { return !editor->waveformPng().empty(); }));
    EXPECT_TRUE(editor->waveformMessage().empty());
    EXPECT_EQ(editor->waveformWindow(), (std::pair<double, double>{2, 5}));

    editor->setPreviewAvailable(true);
    editor->moveHandles(1, 4);
    EXPECT_FALSE(editor->apply());
    EXPECT_EQ(editor->applyMessage(), TrimEditor::kUnconfirmedHandles);
    editor->addClip();
    EXPECT_EQ(editor->fileMessage(), TrimEditor::kVisualEditingActive);
    EXPECT_EQ(editor->clips().size(), 1u);
    editor->confirmHandles();
    EXPECT_EQ(editor->clips()[0].start, "1");
    EXPECT_EQ(editor->clips()[0].end, "4");
    ASSERT_TRUE(editor->apply());
    EXPECT_EQ(applied.back().trim, (engine::Trim{"1", "4"}));

    editor->setPreviewAvailable(false);
    EXPECT_EQ(editor->previewMessage(),
              "Preview unavailable for this media. Use the numeric trim fields.");
}

}  // namespace
}  // namespace tessarin::app
