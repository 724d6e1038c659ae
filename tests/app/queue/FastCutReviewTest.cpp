// The review before a fast cut, through the queue with the real tools on generated clips: a
// Convert under Fast cut, or files coming in under it, publish a review instead of starting, the
// files are planned one at a time, only ready plans are exported, the rest stay staged, and an
// outdated or closed review exports nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QTest>
#include <filesystem>
#include <stdexcept>
#include <variant>

#include "app/queue/FastCutReview.hpp"
#include "app/queue/QueueModel.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using test::urlsOf;
using test::waitFor;
using ::testing::HasSubstr;
using Kind = QueueItem::StateKind;

fs::path keyframeClip() {
    return test::testClip(test::TestClip::keyframesEvery5s);
}

const char* unsupportedSentence() {
    return engine::FastCut::Failure(engine::FastCut::Failure::Kind::unsupported).what();
}

class FastCutReviewTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::ensureCoreApplication();
        tools = engine::Tools::inBundle(test::helperDirectory());
        ASSERT_TRUE(tools);
        queue = std::make_unique<QueueModel>(*tools);
        queue->isApplicationActive = [] { return true; };
    }

    void TearDown() override {
        queue.reset();
        for (const auto& entry : fs::recursive_directory_iterator(dir.path())) {
            EXPECT_EQ(entry.path().filename().string().rfind(".tessarin-", 0), std::string::npos)
                << entry.path();
        }
    }

    // Stages `files`, then Convert under Fast cut with the batch trim start–end.
    void convertUnderFastCut(const std::vector<fs::path>& files, const std::string& start,
                             const std::string& end) {
        ASSERT_TRUE(queue->intake(urlsOf(files), {}));
        queue->setTrim(start, end);
        queue->setSelectedActionID(ActionID::fastCut());
        queue->start();
    }

    // The review of the published request, planned to the end.
    std::unique_ptr<FastCutReview> plannedReview() {
        std::unique_ptr<FastCutReview> review = queue->openFastCutReview();
        EXPECT_NE(review, nullptr);
        if (review) {
            EXPECT_TRUE(waitFor([&] { return !review->loading(); }));
        }
        return review;
    }

    const QueueItem& itemFor(const fs::path& source) const {
        for (const QueueItem& item : queue->items()) {
            if (item.source == source) {
                return item;
            }
        }
        throw std::logic_error("no row for " + source.string());
    }

    static double videoSeconds(const fs::path& file) {
        return test::probeFile(file).videoDuration.value_or(0);
    }

    test::TempDir dir;
    std::optional<engine::Tools> tools;
    std::unique_ptr<QueueModel> queue;
};

TEST_F(FastCutReviewTest, ExportsOnlyTheReadyPlanAndLeavesTheRestStaged) {
    const fs::path talk = test::copyClip(keyframeClip(), dir / "talk.mp4");
    const fs::path webm = test::copyClip(test::testClip(test::TestClip::vp9Opus), dir / "w.webm");
    int published = 0;
    QObject::connect(queue.get(), &QueueModel::fastCutReviewChanged, [&] { ++published; });
    convertUnderFastCut({talk, webm}, "7", "13");

    // Nothing starts before the review; both files are in it with the batch trim.
    ASSERT_EQ(published, 1);
    ASSERT_TRUE(queue->fastCutReview());
    const FastCutReviewRequest request = *queue->fastCutReview();
    ASSERT_EQ(request.entries.size(), 2U);
    const engine::Uuid talkID = itemFor(talk).id;
    const engine::Uuid webmID = itemFor(webm).id;
    EXPECT_EQ(request.entries[0].id, talkID);
    EXPECT_EQ(request.entries[0].source, talk);
    EXPECT_EQ(request.entries[1].id, webmID);
    for (const FastCutReviewRequest::Entry& entry : request.entries) {
        EXPECT_EQ(entry.trim, (engine::Trim{"7", "13"}));
    }
    EXPECT_EQ(test::countIn(*queue, Kind::needsPreset), 2U);
    EXPECT_FALSE(queue->isWorking());

    // One file at a time, in order, each shown as being checked while it is planned.
    std::unique_ptr<FastCutReview> review = queue->openFastCutReview();
    ASSERT_NE(review, nullptr);
    EXPECT_TRUE(review->loading());
    std::vector<engine::Uuid> checked;
    QObject::connect(review.get(), &FastCutReview::reviewChanged, [&] {
        if (review->checking() && (checked.empty() || checked.back() != *review->checking())) {
            checked.push_back(*review->checking());
            EXPECT_EQ(review->statusText(*review->checking()), FastCutReview::kCheckingText);
        }
    });
    ASSERT_TRUE(waitFor([&] { return !review->loading(); }));
    EXPECT_EQ(checked, (std::vector<engine::Uuid>{talkID, webmID}));

    ASSERT_EQ(review->plans().size(), 1U);
    ASSERT_EQ(review->plans().at(talkID).size(), 1U);
    const engine::FastCut::Plan plan = review->plans().at(talkID).front().plan;
    EXPECT_DOUBLE_EQ(plan.start, 5.0);
    EXPECT_DOUBLE_EQ(plan.end, 15.0);
    EXPECT_THAT(review->statusText(talkID), HasSubstr("Adds 2.000 s before and 2.000 s after"));
    EXPECT_EQ(review->failures().size(), 1U);
    EXPECT_EQ(review->statusText(webmID), unsupportedSentence());
    EXPECT_TRUE(review->isReady(talkID));
    EXPECT_FALSE(review->isReady(webmID));
    EXPECT_FALSE(review->anyKeepsWholeVideo());
    EXPECT_FALSE(review->changed());
    EXPECT_TRUE(review->canExport());

    // The file that can't be cut goes back to the staged rows with its trim as its own.
    review->chooseConversion(talkID);
    EXPECT_FALSE(review->wasHandedBack(talkID));
    review->chooseConversion(webmID);
    EXPECT_TRUE(review->wasHandedBack(webmID));
    EXPECT_EQ(itemFor(webm).pendingTrim, (engine::Trim{"7", "13"}));
    EXPECT_EQ(itemFor(webm).trimLabel, "7–13");
    EXPECT_FALSE(review->changed());

    review->exportReady();
    EXPECT_TRUE(review->completed());
    EXPECT_FALSE(queue->fastCutReview());
    ASSERT_TRUE(waitFor([&] { return itemFor(talk).isFinished(); }));
    const QueueItem& cut = itemFor(talk);
    ASSERT_EQ(cut.state.kind, Kind::done)
        << (cut.state.failure ? cut.state.failure->stderrTail : "");
    EXPECT_EQ(cut.stateLabel(), "Fast cut");
    ASSERT_TRUE(cut.kind);
    const auto* fastCut = std::get_if<JobKind::FastCut>(&cut.kind->value);
    ASSERT_NE(fastCut, nullptr);
    EXPECT_TRUE(fastCut->plan == plan);
    EXPECT_EQ(cut.state.output, dir / "talk-cut.mp4");
    EXPECT_TRUE(fs::is_regular_file(cut.state.output));
    EXPECT_NEAR(videoSeconds(cut.state.output), 10.0, 0.05);

    const QueueItem& staged = itemFor(webm);
    EXPECT_EQ(staged.state.kind, Kind::needsPreset);
    EXPECT_FALSE(staged.kind);
    EXPECT_EQ(staged.pendingTrim, (engine::Trim{"7", "13"}));
}

TEST_F(FastCutReviewTest, ClipsFromTheEditorAreCutOneOutputEachOrJoinedWithoutReencoding) {
    const fs::path separate = test::copyClip(keyframeClip(), dir / "separate.mp4");
    const fs::path joined = test::copyClip(keyframeClip(), dir / "joined.mp4");
    ASSERT_TRUE(queue->intake(urlsOf({separate, joined}), {}));
    const engine::Uuid separateID = itemFor(separate).id;
    const engine::Uuid joinedID = itemFor(joined).id;
    TrimEditorResult clips;
    clips.clips = {engine::ClipSelection(engine::Trim{"6", "7"}, "Intro"),
                   engine::ClipSelection(engine::Trim{"16", "17"}, "")};
    ASSERT_TRUE(queue->applyTrimEditor(separateID, clips));
    // Taking 4–11 out keeps 0–4 and 11–20, planned 0–5 and 10–20 and joined (keeping ranges
    // joins them the same way).
    clips.mode = ClipExportMode::remove;
    clips.clips = {engine::ClipSelection(engine::Trim{"4", "11"}, "")};
    ASSERT_TRUE(queue->applyTrimEditor(joinedID, clips));

    // No batch trim: the clips are what is cut.
    queue->setSelectedActionID(ActionID::fastCut());
    queue->start();
    ASSERT_TRUE(queue->fastCutReview());
    std::unique_ptr<FastCutReview> review = plannedReview();
    ASSERT_TRUE(review);
    EXPECT_TRUE(review->failures().empty()) << review->statusText(separateID);
    ASSERT_EQ(review->plans().at(separateID).size(), 2U);
    ASSERT_EQ(review->plans().at(joinedID).size(), 2U);
    EXPECT_THAT(review->statusText(separateID), HasSubstr("\nClip 2: Selected 16.000–17.000 s"));
    EXPECT_THAT(review->statusText(joinedID),
                HasSubstr("One joined output of 2 parts.\nPart 1: Selected 0.000–4.000 s"));
    EXPECT_TRUE(queue->isFastCutReviewCurrent(review->request()));
    review->exportReady();

    ASSERT_TRUE(waitFor([&] {
        return queue->items().size() == 3 && test::countIn(*queue, Kind::done) == 3;
    })) << (queue->items().back().state.failure ? queue->items().back().state.failure->stderrTail
                                                : "");
    const std::vector<QueueItem>& rows = queue->items();
    EXPECT_EQ(rows[0].id, separateID);
    EXPECT_EQ(rows[0].trimLabel, "Clip 1 of 2 · 6–7");
    EXPECT_EQ(rows[1].trimLabel, "Clip 2 of 2 · 16–17");
    EXPECT_EQ(rows[2].id, joinedID);
    ASSERT_TRUE(rows[2].kind && std::holds_alternative<JobKind::FastCutJoin>(rows[2].kind->value));
    // Each output is a copy: it holds the source's packets (25 a second) of its planned range,
    // byte for byte.
    const std::vector<std::string> source = test::videoPacketHashes(separate);
    ASSERT_EQ(source.size(), 500U);
    const auto range = [&](int from, int to) {
        return std::vector<std::string>(source.begin() + from, source.begin() + to);
    };
    EXPECT_EQ(test::videoPacketHashes(rows[0].state.output), range(125, 250));
    EXPECT_EQ(test::videoPacketHashes(rows[1].state.output), range(375, 500));
    EXPECT_EQ(rows[2].state.output, dir / "joined-cut.mp4");
    EXPECT_NEAR(videoSeconds(rows[2].state.output), 15.0, 0.1);
    // The join repeats the stream's parameters in the keyframes (every 125th packet) of the
    // pieces after the first; every other packet is the source's own.
    const std::vector<std::string> joinedPackets = test::videoPacketHashes(rows[2].state.output);
    ASSERT_EQ(joinedPackets.size(), 375U);
    std::vector<std::string> copied;
    std::vector<std::string> expected;
    for (int index = 0; index < 375; ++index) {
        const int from = index < 125 ? index : index + 125;  // 0–5 s, then 10–20 s
        if (from % 125 != 0) {
            copied.push_back(joinedPackets[static_cast<std::size_t>(index)]);
            expected.push_back(source[static_cast<std::size_t>(from)]);
        }
    }
    EXPECT_EQ(copied, expected);
}

TEST_F(FastCutReviewTest, NoTrimIsRefusedAndAPlanOfTheWholeVideoIsReadyOnlyWhenAccepted) {
    const fs::path talk = test::copyClip(keyframeClip(), dir / "whole.mp4");
    // Without any trim there is nothing to review: the file stays staged, with the sentence.
    convertUnderFastCut({talk}, "", "");
    EXPECT_FALSE(queue->fastCutReview());
    EXPECT_EQ(queue->intakeNotice(),
              "Fix the batch trim or set this file's own trim before Fast cut.");
    EXPECT_EQ(itemFor(talk).state.kind, Kind::needsPreset);

    queue->setTrim("0", "17");
    queue->start();
    std::unique_ptr<FastCutReview> review = plannedReview();
    ASSERT_NE(review, nullptr);
    const engine::Uuid id = itemFor(talk).id;
    ASSERT_EQ(review->plans().size(), 1U);
    EXPECT_TRUE(review->plans().at(id).front().plan.keepsWholeVideo());
    EXPECT_TRUE(review->anyKeepsWholeVideo());
    EXPECT_THAT(review->statusText(id), HasSubstr(FastCutReview::kWholeVideoText));
    EXPECT_FALSE(review->isReady(id));
    EXPECT_FALSE(review->canExport());

    std::optional<bool> exportedAccepting;
    review->onExport = [&, wired = review->onExport](bool accept,
                                                     const FastCutReview::Plans& plans) {
        exportedAccepting = accept;
        EXPECT_EQ(plans.size(), 1U);
        wired(accept, plans);
    };
    review->exportReady();
    EXPECT_FALSE(exportedAccepting);
    EXPECT_FALSE(review->completed());

    review->setAcceptWholeFile(true);
    EXPECT_TRUE(review->isReady(id));
    ASSERT_TRUE(review->canExport());
    review->exportReady();
    EXPECT_EQ(exportedAccepting, true);
    ASSERT_TRUE(waitFor([&] { return itemFor(talk).isFinished(); }));
    ASSERT_EQ(itemFor(talk).state.kind, Kind::done);
    EXPECT_NEAR(videoSeconds(itemFor(talk).state.output), 20.0, 0.05);
}

TEST_F(FastCutReviewTest, FilesComingInUnderASelectedFastCutAreReviewedBeforeAnyStarts) {
    const fs::path bare = test::copyClip(test::testClip(test::TestClip::h264Aac), dir / "b.mp4");
    const fs::path talk = test::copyClip(keyframeClip(), dir / "talk.mp4");
    const fs::path webm = test::copyClip(test::testClip(test::TestClip::vp9Opus), dir / "w.webm");
    const fs::path late = test::copyClip(keyframeClip(), dir / "late.mp4");
    queue->setSelectedActionID(ActionID::fastCut());

    // Without any trim there is nothing to review: the file stays staged, with the sentence.
    ASSERT_TRUE(queue->intake(urlsOf({bare}), {}));
    EXPECT_FALSE(queue->fastCutReview());
    EXPECT_EQ(queue->intakeNotice(),
              "Fix the batch trim or set this file's own trim before Fast cut.");
    EXPECT_EQ(itemFor(bare).state.kind, Kind::needsPreset);

    queue->setTrim("7", "13");
    ASSERT_TRUE(queue->intake(urlsOf({talk, webm}), {}));
    EXPECT_EQ(test::countIn(*queue, Kind::needsPreset), 3U);
    EXPECT_FALSE(queue->isWorking());
    ASSERT_TRUE(queue->fastCutReview());
    std::vector<engine::Uuid> reviewed;
    for (const FastCutReviewRequest::Entry& entry : queue->fastCutReview()->entries) {
        reviewed.push_back(entry.id);
        EXPECT_EQ(entry.trim, (engine::Trim{"7", "13"}));
    }
    EXPECT_EQ(reviewed, (std::vector<engine::Uuid>{itemFor(talk).id, itemFor(webm).id}));

    // A file handed over while the review is open joins it; a staged one again is a duplicate.
    ASSERT_TRUE(queue->intake(urlsOf({late}), test::external()));
    ASSERT_TRUE(queue->fastCutReview());
    ASSERT_EQ(queue->fastCutReview()->entries.size(), 3U);
    EXPECT_EQ(queue->fastCutReview()->entries[2].id, itemFor(late).id);
    EXPECT_FALSE(queue->intake(urlsOf({talk}), {}));
    EXPECT_EQ(queue->items().size(), 4U);
    EXPECT_FALSE(queue->isWorking());

    std::unique_ptr<FastCutReview> review = plannedReview();
    ASSERT_NE(review, nullptr);
    EXPECT_EQ(review->plans().size(), 2U);
    ASSERT_TRUE(review->canExport());
    review->exportReady();
    ASSERT_TRUE(waitFor([&] { return itemFor(talk).isFinished() && itemFor(late).isFinished(); }));
    for (const fs::path& cut : {talk, late}) {
        const QueueItem& row = itemFor(cut);
        ASSERT_EQ(row.state.kind, Kind::done)
            << (row.state.failure ? row.state.failure->stderrTail : "");
        EXPECT_EQ(row.stateLabel(), "Fast cut");
        EXPECT_NEAR(videoSeconds(row.state.output), 10.0, 0.05);
    }
    // Only the reviewed, ready files started.
    EXPECT_EQ(itemFor(webm).state.kind, Kind::needsPreset);
    EXPECT_EQ(itemFor(bare).state.kind, Kind::needsPreset);
}

TEST_F(FastCutReviewTest, AQueueOrTrimChangeOutdatesTheReviewAndBlocksExport) {
    const fs::path talk = test::copyClip(keyframeClip(), dir / "talk.mp4");
    const fs::path other = test::copyClip(keyframeClip(), dir / "other.mp4");
    const fs::path late = test::copyClip(test::testClip(test::TestClip::h264Aac), dir / "l.mp4");
    const struct {
        const char* change;
        std::function<void(QueueModel&)> apply;
    } changes[] = {
        {"batch trim", [](QueueModel& queue) { queue.setTrim("8", "13"); }},
        {"row removed", [&](QueueModel& queue) { queue.remove(queue.items().back().id); }},
        {"row added",
         [&](QueueModel& queue) {
             queue.setSelectedActionID(std::nullopt);
             (void)queue.intake(urlsOf({late}), {});
         }},
    };
    for (const auto& change : changes) {
        SCOPED_TRACE(change.change);
        queue = std::make_unique<QueueModel>(*tools);
        convertUnderFastCut({talk, other}, "7", "13");
        std::unique_ptr<FastCutReview> review = plannedReview();
        ASSERT_NE(review, nullptr);
        ASSERT_TRUE(review->canExport());
        EXPECT_FALSE(review->changed());

        change.apply(*queue);
        EXPECT_TRUE(review->changed());
        EXPECT_FALSE(review->canExport());
        review->exportReady();
        EXPECT_FALSE(review->completed());
        // Nor does the queue take an outdated export handed to it directly.
        queue->exportFastCut(review->request().id, false, review->plans());
        EXPECT_EQ(test::countIn(*queue, Kind::waiting) + test::countIn(*queue, Kind::running), 0U);
        EXPECT_FALSE(queue->fastCutReview());
    }
}

TEST_F(FastCutReviewTest, ClosingTheReviewWhilePlanningDeliversNothingLater) {
    std::vector<fs::path> files;
    for (const char* name : {"a.mp4", "b.mp4", "c.mp4", "d.mp4"}) {
        files.push_back(test::copyClip(keyframeClip(), dir / name));
    }
    convertUnderFastCut(files, "7", "13");
    std::unique_ptr<FastCutReview> review = queue->openFastCutReview();
    ASSERT_NE(review, nullptr);
    const engine::Uuid requestID = review->request().id;
    ASSERT_TRUE(waitFor([&] { return review->checking().has_value(); }));

    int closed = 0;
    int changedAfterClose = 0;
    QObject::connect(review.get(), &FastCutReview::closed, [&] { ++closed; });
    review->cancel();
    QObject::connect(review.get(), &FastCutReview::reviewChanged, [&] { ++changedAfterClose; });
    EXPECT_EQ(closed, 1);
    EXPECT_TRUE(review->completed());
    EXPECT_FALSE(review->loading());
    EXPECT_FALSE(queue->fastCutReview());
    const std::size_t plansAtClose = review->plans().size();

    ASSERT_TRUE(review->waitForPlanning(std::chrono::seconds(10)));
    QTest::qWait(200);
    EXPECT_EQ(changedAfterClose, 0);
    EXPECT_EQ(review->plans().size(), plansAtClose);
    EXPECT_LT(plansAtClose, files.size());
    EXPECT_TRUE(review->failures().empty());
    EXPECT_FALSE(review->canExport());
    queue->exportFastCut(requestID, false, review->plans());
    EXPECT_EQ(test::countIn(*queue, Kind::needsPreset), files.size());

    // Planned to the end, its results still on their way through the event loop: closing drops
    // them too.
    queue->start();
    std::unique_ptr<FastCutReview> planned = queue->openFastCutReview();
    ASSERT_NE(planned, nullptr);
    ASSERT_TRUE(planned->waitForPlanning(std::chrono::seconds(60)));
    planned->cancel();
    QTest::qWait(200);
    EXPECT_TRUE(planned->plans().empty());
    EXPECT_TRUE(planned->failures().empty());
    EXPECT_FALSE(planned->loading());

    // Destroyed while planning: the request is withdrawn and nothing arrives afterwards.
    queue->start();
    ASSERT_TRUE(queue->fastCutReview());
    std::unique_ptr<FastCutReview> dropped = queue->openFastCutReview();
    ASSERT_TRUE(waitFor([&] { return dropped->checking().has_value(); }));
    dropped.reset();
    EXPECT_TRUE(waitFor([&] { return !queue->fastCutReview(); }));
    QTest::qWait(200);
    EXPECT_EQ(test::countIn(*queue, Kind::needsPreset), files.size());
}

}  // namespace
}  // namespace tessarin::app
