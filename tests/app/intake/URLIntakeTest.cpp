// Link intake in front of a real queue: a handoff token starts rows, an untrusted conversion
// asks first, an untrusted transcription is refused with a notice, and stuck validations time
// out and use up their gate instead of piling up.
#include <gtest/gtest.h>

#include <QSignalSpy>
#include <atomic>
#include <condition_variable>
#include <fstream>
#include <mutex>

#include "app/intake/URLIntake.hpp"
#include "app/queue/QueueModel.hpp"
#include "engine/intake/HandoffMessages.hpp"
#include "engine/log/Log.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using engine::IntakeActionKind;

class URLIntakeTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::ensureCoreApplication();
        engine::setLogFileForTesting(dir / "log.txt");
        intake.knownPresets = [] {
            const auto builtins = engine::Preset::builtins();
            return std::vector<engine::Preset>(builtins.begin(), builtins.end());
        };
        intake.confirmUntrusted = [this](const URLIntakeConfirmation& confirmation) {
            asked.push_back(confirmation);
            return answer;
        };
    }
    void TearDown() override { engine::setLogFileForTesting(std::nullopt); }

    std::string log() {
        std::ifstream file(dir / "log.txt");
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // Hands `urls` over and runs the event loop until `settled` validations have ended.
    bool handle(const QList<QUrl>& urls, int settled = 1) {
        QSignalSpy spy(&intake, &URLIntake::validationSettled);
        intake.handle(urls);
        return test::waitFor([&] { return spy.count() >= settled; }, std::chrono::seconds(20));
    }
    static QUrl link(const std::string& query, const std::vector<fs::path>& files) {
        std::string text = "tessarin://convert?" + query;
        for (const fs::path& file : files) {
            text += "&file=" + engine::percentEncode(file.string());
        }
        return QUrl(QString::fromStdString(text), QUrl::StrictMode);
    }

    test::TempDir dir;
    QueueModel queue{engine::Tools::inBundle(test::helperDirectory())};
    engine::IntakeTokenStore tokens{engine::IntakeTokenStore::Key{11}};
    engine::IntakeValidationAdmissionController gates;
    URLIntake intake{queue, tokens, gates};
    std::vector<URLIntakeConfirmation> asked;
    bool answer = false;
};

TEST_F(URLIntakeTest, AHandoffStartsItsRowsAndAnUntrustedConversionAsksFirst) {
    const std::vector<fs::path> handedOver = test::emptyVideos(dir / "handoff", 2);
    std::vector<std::string> paths;
    for (const fs::path& file : handedOver) {
        paths.push_back(file.string());
    }
    IntakeHandoffDelivery delivery{"mp4-h264", IntakeActionKind::convert,
                                   *tokens.mint("mp4-h264", IntakeActionKind::convert, 2, paths),
                                   gates.authenticatedHandoffGate->tryAcquire()};
    QSignalSpy settled(&intake, &URLIntake::validationSettled);
    intake.deliver(std::move(delivery));
    ASSERT_TRUE(test::waitFor([&] { return settled.count() == 1; }));
    ASSERT_EQ(queue.items().size(), 2U);
    for (const QueueItem& item : queue.items()) {
        EXPECT_NE(item.state.kind, QueueItem::StateKind::needsPreset);
        ASSERT_TRUE(item.descriptor);
        EXPECT_EQ(item.descriptor->id, ActionID::preset("mp4-h264"));
    }
    EXPECT_NE(log().find("tessarin:// intake action=mp4-h264 files=2 candidates=2 trusted=true "
                         "provenance=ok"),
              std::string::npos);
    EXPECT_TRUE(asked.empty());
    EXPECT_TRUE(test::waitFor([&] { return gates.authenticatedHandoffGate->active() == 0; }));

    // Without a token the user decides: first "Cancel", then "Add".
    const std::vector<fs::path> linked = test::emptyVideos(dir / "linked", 1, "clip");
    ASSERT_TRUE(handle({link("preset=gif-full", linked)}));
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].heading, "Add “clip-0.mp4” to Tessarin?");
    EXPECT_EQ(asked[0].text, "Preset: GIF · Full size\n\nclip-0.mp4");
    EXPECT_EQ(queue.items().size(), 2U);
    answer = true;
    ASSERT_TRUE(handle({link("preset=gif-full", linked)}));
    ASSERT_EQ(queue.items().size(), 3U);
    EXPECT_EQ(queue.items()[2].descriptor->id, ActionID::preset("gif-full"));
    EXPECT_NE(log().find("trusted=false provenance=no-token"), std::string::npos);
    EXPECT_TRUE(queue.waitForBackgroundWork(std::chrono::seconds(30)));
}

TEST_F(URLIntakeTest, UntrustedTranscriptionsAreRefusedAndOtherURLsRoutedOrDropped) {
    const std::vector<fs::path> files = test::emptyVideos(dir / "in", 2);
    answer = true;
    ASSERT_TRUE(handle({link("action=transcribe", files)}));
    EXPECT_TRUE(asked.empty()) << "a transcription is never confirmable";
    EXPECT_EQ(queue.intakeNotice(), std::string(kUntrustedTranscriptionNotice));
    EXPECT_NE(log().find("refused untrusted tessarin:// intake action=action.transcribe files=2 — "
                         "non-convert actions are never confirmable"),
              std::string::npos);

    ASSERT_TRUE(handle({link("preset=bad%0Aname", files)}));
    EXPECT_NE(log().find("rejected tessarin:// intake — reason=unknown-preset(bad?name)"),
              std::string::npos);

    intake.handle({QUrl::fromLocalFile(QString::fromStdString(files[0].string())),
                   QUrl("https://example.invalid/a.mp4")});
    ASSERT_EQ(queue.items().size(), 1U);
    EXPECT_EQ(queue.items()[0].state.kind, QueueItem::StateKind::needsPreset);
    EXPECT_NE(log().find("received 1 plain file URL(s)"), std::string::npos);
    EXPECT_NE(log().find("rejected external URL with an unsupported scheme"), std::string::npos);

    const std::vector<std::string> many(12, "/v/a.mp4");
    const URLIntakeConfirmation confirmation = untrustedConfirmation(many, "P");
    EXPECT_EQ(confirmation.heading, "Add 12 files to Tessarin?");
    EXPECT_TRUE(confirmation.text.ends_with("a.mp4\n… and 2 more"));
}

TEST_F(URLIntakeTest, StuckValidationsTimeOutAndHoldTheGateUntilTheyReturn) {
    std::mutex mutex;
    std::condition_variable released;
    bool release = false;
    std::atomic<int> parsed = 0;
    intake.validationTimeout = std::chrono::milliseconds(100);
    intake.parse = [&](const std::string& url, const std::set<std::string>& known,
                       const engine::ConsumeToken& consume, double now) {
        std::unique_lock lock(mutex);
        released.wait(lock, [&] { return release; });
        ++parsed;
        return engine::parseIntakeURL(url, known, consume, now);
    };
    const std::vector<fs::path> files = test::emptyVideos(dir / "in", 1);
    QList<QUrl> four;
    for (int i = 0; i < 4; ++i) {
        four.push_back(link("preset=mp4-h264", files));
    }
    ASSERT_TRUE(handle(four, 4));
    EXPECT_EQ(gates.publicURLGate->active(), 4U);
    intake.handle({link("preset=mp4-h264", files)});
    const std::string text = log();
    std::size_t timeouts = 0;
    for (std::size_t at = text.find("filesystem-validation-timeout"); at != std::string::npos;
         at = text.find("filesystem-validation-timeout", at + 1)) {
        ++timeouts;
    }
    EXPECT_EQ(timeouts, 4U);
    EXPECT_NE(text.find("rejected tessarin:// intake — public-filesystem-validation-capacity"),
              std::string::npos);

    {
        std::lock_guard lock(mutex);
        release = true;
    }
    released.notify_all();
    ASSERT_TRUE(test::waitFor([&] { return gates.publicURLGate->active() == 0; }));
    EXPECT_EQ(parsed, 4);
    // The late results were dropped: nothing asked, nothing queued.
    QCoreApplication::processEvents();
    EXPECT_TRUE(asked.empty());
    EXPECT_TRUE(queue.items().empty());
}

}  // namespace
}  // namespace tessarin::app
