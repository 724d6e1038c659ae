// Transcribe rows through the queue, as the window wires them: the chip follows the active model,
// a row without the upload approval is refused and asks for it (nothing is sent), and once
// approved the row runs the pipeline against a scripted HTTPS server on loopback and ends done
// with the transcript beside the video.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "app/queue/QueueModel.hpp"
#include "app/transcription/TranscriptionSettingsModel.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/TranscriptionInput.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Kind = QueueItem::StateKind;
using engine::TranscriptionConsentKind;

constexpr const char* kChatModel = "google/gemini-3.6-flash";

// The uploads the server got: the model look-ups of the settings are GETs without media.
std::vector<json> uploads(const test::LoopbackHttpsServer& server) {
    std::vector<json> posts;
    for (const json& request : server.requests()) {
        if (request["method"] == "POST") {
            posts.push_back(request);
        }
    }
    return posts;
}

std::string fileText(const fs::path& file) {
    std::ifstream stream(file);
    std::stringstream text;
    text << stream.rdbuf();
    return text.str();
}

TEST(TranscriptionQueue, ARowNeedsTheApprovalThenLandsItsTranscriptBesideTheVideo) {
    test::ensureCoreApplication();
    const test::ConfigHome home;
    const std::shared_ptr<engine::SettingsStore> settings = test::openStore(home.standardFile());
    engine::CatalogSnapshot snapshot;
    snapshot.fetchedAt = engine::secondsSince1970();
    snapshot.entries = {engine::CatalogEntry{kChatModel, std::nullopt, {"audio"}, {"text"}, {}, {}, {}}};
    settings->setData(engine::OpenRouterCatalog::kSettingsKey, snapshot.toJSONText());

    const json queued = {
        {"status", 200},
        {"body", json{{"choices", json::array({{{"message", {{"content", "Queued words."}}}}})},
                      {"usage", {{"cost", 0.0021}}}}
                     .dump()}};
    // The first row's answer stands for each request it makes; the last for the second row's.
    test::LoopbackHttpsServer server(json::array(
        {queued, queued,
         {{"status", 200},
          {"body", json{{"choices", json::array({{{"message", {{"content", "Kept words."}}}}})}}
                       .dump()}}}));
    auto keys = std::make_shared<engine::InMemoryOpenRouterKeyStore>("sk-or-app");
    const test::TempDir scratch;
    TranscriptionSettingsModel model(
        settings, keys,
        engine::OpenRouterClient(std::make_shared<engine::CurlOpenRouterTransport>(
            engine::OpenRouterConfig::Endpoint{server.baseURL(),
                                               test::testCertificate().certificate.string()})),
        scratch.path());
    model.setActiveModel(kChatModel);
    model.refreshKeyPresence();
    EXPECT_EQ(model.activeRoute(), engine::TranscriptionRoute::audioChat);
    EXPECT_THAT(model.optionsNote().toStdString(),
                ::testing::StartsWith("This model saves plain text."));

    const auto tools = engine::Tools::inBundle(test::helperDirectory());
    ASSERT_TRUE(tools);
    QueueModel queue(*tools);
    queue.isApplicationActive = [] { return false; };
    queue.postNotification = [](const std::string&, const std::string&) {};
    queue.transcriptionPrerequisites = [&] { return model.prerequisites(); };
    queue.transcriptionJobFactory = [&](const QueueItem& item) { return model.makeJob(item, *tools); };
    QObject::connect(&queue, &QueueModel::itemsChanged, [&] { model.bindQueued(queue.items()); });
    std::vector<bool> asked;
    QObject::connect(&queue, &QueueModel::uploadConsentRequired,
                     [&](bool video) { asked.push_back(video); });

    EXPECT_EQ(fixedDescriptor(ActionID::Kind::transcribe, queue.actionAvailability()).disabledReason,
              std::nullopt);
    const test::TempDir media;
    const fs::path talk =
        test::copyClip(test::testClip(test::TestClip::h264Aac), media / "talk.mp4");
    (void)queue.intake(test::urlsOf({talk}), test::withAction(ActionID::transcribe()));
    EXPECT_EQ(asked, std::vector<bool>{false});
    EXPECT_EQ(test::countIn(queue, Kind::running) + test::countIn(queue, Kind::done), 0u);
    EXPECT_TRUE(uploads(server).empty());

    model.grantConsent(TranscriptionConsentKind::audioUpload);
    EXPECT_TRUE(model.prerequisites().hasConsent);
    queue.clearFinished();
    ASSERT_TRUE(queue.intake(test::urlsOf({talk}), test::withAction(ActionID::transcribe())));
    ASSERT_TRUE(test::waitFor([&] { return test::countIn(queue, Kind::done) +
                                           test::countIn(queue, Kind::failed) == 1; }));
    const auto row = std::find_if(queue.items().begin(), queue.items().end(),
                                  [](const QueueItem& item) { return item.isFinished(); });
    ASSERT_EQ(row->state.kind, Kind::done)
        << (row->state.failure ? row->state.failure->stderrTail : "");
    EXPECT_EQ(row->state.output, media / "talk.transcript.txt");
    EXPECT_EQ(fileText(media / "talk.transcript.txt"), "Queued words.");
    EXPECT_EQ(row->warningNote, "Cost (USD): Reported 0.0021");
    // The row's binding to its file was handed to its job and let go with it.
    EXPECT_EQ(model.boundCount(), 0u);
    EXPECT_EQ(engine::TranscriptionInput::openCount(), 0);
    ASSERT_EQ(uploads(server).size(), 1u);
    EXPECT_EQ(uploads(server)[0]["headers"]["authorization"], "Bearer sk-or-app");

    const TranscriptionDiagnostics report = model.diagnostics();
    EXPECT_TRUE(report.keyPresent);
    EXPECT_EQ(report.audioConsentVersion, engine::TranscriptionConsentStore::kNoticeVersion);
    EXPECT_EQ(report.videoConsentVersion, std::nullopt);
    EXPECT_EQ(report.activeModelID, kChatModel);
    EXPECT_EQ(report.activeRoute, "audioChat");
    EXPECT_EQ(report.rosterCount, 14u);
    EXPECT_EQ(report.destinationMode, "sameFolder");
    EXPECT_EQ(report.promptModeName, "builtIn");

    // Every free name beside the video taken: the row fails in the writer's words, and the
    // text waits in the window until it is saved elsewhere.
    for (int attempt = 2; attempt <= 63; ++attempt) {
        std::ofstream(media / ("talk-" + std::to_string(attempt) + ".transcript.txt")) << "taken";
    }
    queue.clearFinished();
    ASSERT_TRUE(queue.intake(test::urlsOf({talk}), test::withAction(ActionID::transcribe())));
    UnsavedTranscripts& unsaved = model.unsavedTranscripts();
    ASSERT_TRUE(test::waitFor([&] { return test::countIn(queue, Kind::failed) == 1 &&
                                           !unsaved.entries().empty(); }));
    const auto failed = std::find_if(queue.items().begin(), queue.items().end(),
                                     [](const QueueItem& item) { return item.isFinished(); });
    ASSERT_TRUE(failed->state.failure);
    EXPECT_EQ(failed->state.failure->stderrTail, "The transcript couldn’t be saved.");
    EXPECT_THAT(failed->warningNote.value_or(""),
                ::testing::HasSubstr("kept in the window until you save it elsewhere"));
    ASSERT_EQ(unsaved.entries().size(), 1u);
    EXPECT_EQ(unsaved.entries()[0].sourceName, "talk.mp4");
    EXPECT_EQ(unsaved.entries()[0].suggestedName(), "talk.transcript.txt");
    EXPECT_EQ(unsaved.entries()[0].text, "Kept words.");
    const uint64_t id = unsaved.entries()[0].id;
    EXPECT_EQ(unsaved.save(id, media / "missing" / "talk.txt"), "The transcript couldn’t be saved.");
    ASSERT_EQ(unsaved.entries().size(), 1u);
    EXPECT_EQ(unsaved.save(id, media / "kept.txt"), std::nullopt);
    EXPECT_EQ(fileText(media / "kept.txt"), "Kept words.");
    EXPECT_TRUE(unsaved.entries().empty());

    // Withdrawing stops later rows before anything is sent; the saved transcript stays.
    model.withdrawConsent(TranscriptionConsentKind::audioUpload);
    EXPECT_FALSE(model.prerequisites().hasConsent);
    EXPECT_TRUE(fs::exists(media / "talk.transcript.txt"));
}

TEST(TranscriptionQueue, ARowIsBoundToItsFileWhenQueuedSoAChangedFileIsRefused) {
    test::ensureCoreApplication();
    const test::ConfigHome home;
    const std::shared_ptr<engine::SettingsStore> settings = test::openStore(home.standardFile());
    engine::CatalogSnapshot snapshot;
    snapshot.fetchedAt = engine::secondsSince1970();
    snapshot.entries = {engine::CatalogEntry{kChatModel, std::nullopt, {"audio"}, {"text"}, {}, {}, {}}};
    settings->setData(engine::OpenRouterCatalog::kSettingsKey, snapshot.toJSONText());
    json slow{{"status", 200},
              {"answerDelay", 1.5},
              {"body", json{{"choices", json::array({{{"message", {{"content", "First."}}}}})}}.dump()}};
    test::LoopbackHttpsServer server(json::array({slow}));
    const test::TempDir scratch;
    TranscriptionSettingsModel model(
        settings, std::make_shared<engine::InMemoryOpenRouterKeyStore>("sk-or-app"),
        engine::OpenRouterClient(std::make_shared<engine::CurlOpenRouterTransport>(
            engine::OpenRouterConfig::Endpoint{server.baseURL(),
                                               test::testCertificate().certificate.string()})),
        scratch.path());
    model.setActiveModel(kChatModel);
    model.refreshKeyPresence();
    model.grantConsent(TranscriptionConsentKind::audioUpload);
    const auto tools = engine::Tools::inBundle(test::helperDirectory());
    ASSERT_TRUE(tools);
    QueueModel queue(*tools);
    queue.isApplicationActive = [] { return false; };
    queue.postNotification = [](const std::string&, const std::string&) {};
    queue.transcriptionPrerequisites = [&] { return model.prerequisites(); };
    queue.transcriptionJobFactory = [&](const QueueItem& item) { return model.makeJob(item, *tools); };
    QObject::connect(&queue, &QueueModel::itemsChanged, [&] { model.bindQueued(queue.items()); });

    const test::TempDir media;
    const fs::path first = test::copyClip(test::testClip(test::TestClip::h264Aac), media / "one.mp4");
    const fs::path second = test::copyClip(test::testClip(test::TestClip::h264Aac), media / "two.mp4");
    ASSERT_TRUE(queue.intake(test::urlsOf({first, second}), test::withAction(ActionID::transcribe())));
    ASSERT_TRUE(test::waitFor([&] { return !server.requests().empty(); }));
    EXPECT_EQ(model.boundCount(), 1u);  // the second row, still waiting
    // Changed while it waits: the row's held file no longer has the stamp it had when queued.
    std::ofstream(second, std::ios::app) << "appended";
    ASSERT_TRUE(test::waitFor([&] { return test::countIn(queue, Kind::done) +
                                           test::countIn(queue, Kind::failed) == 2; }));
    const auto rowOf = [&](const fs::path& source) {
        return *std::find_if(queue.items().begin(), queue.items().end(),
                             [&](const QueueItem& item) { return item.source == source; });
    };
    EXPECT_EQ(rowOf(first).state.kind, Kind::done);
    const QueueItem refused = rowOf(second);
    ASSERT_EQ(refused.state.kind, Kind::failed);
    ASSERT_TRUE(refused.state.failure);
    EXPECT_EQ(refused.state.failure->stderrTail,
              "This file changed after transcription was queued. Add it again to transcribe the "
              "current file.");
    EXPECT_EQ(uploads(server).size(), 1u);
    EXPECT_EQ(engine::TranscriptionInput::openCount(), 0);
}

TEST(TranscriptionSettingsModel, KeyOptionsAndLanguageFollowTheRules) {
    test::ensureCoreApplication();
    const test::ConfigHome home;
    const std::shared_ptr<engine::SettingsStore> settings = test::openStore(home.standardFile());
    auto keys = std::make_shared<engine::InMemoryOpenRouterKeyStore>("sk-or-kept", false);
    const test::TempDir scratch;
    TranscriptionSettingsModel model(
        settings, keys,
        engine::OpenRouterClient(std::make_shared<engine::CurlOpenRouterTransport>(
            engine::OpenRouterConfig::Endpoint{"https://127.0.0.1:9", std::nullopt})),
        scratch.path());
    model.refreshKeyPresence();
    EXPECT_EQ(model.keyPresence(), engine::TranscriptionKeyPresence::unreadable);
    EXPECT_TRUE(model.saveKey("  ").isEmpty());
    keys->setReadable(true);
    EXPECT_EQ(keys->read().key, "sk-or-kept");
    EXPECT_FALSE(model.prerequisites().hasAPIKey);  // as last read: unreadable

    engine::TranscriptionOptions options;
    options.format = engine::TranscriptFormat::srt;
    std::string names;
    for (int index = 0; index < 51; ++index) {
        names += "name" + std::to_string(index) + "\n";
    }
    options.vocabulary = names;
    EXPECT_EQ(model.setOptions(options).toStdString(), "Use up to 50 names or terms, one per line.");
    options.vocabulary = "Tessarin\nOpenRouter";
    EXPECT_TRUE(model.setOptions(options).isEmpty());
    EXPECT_EQ(model.preferences().options, options);
    model.setLanguage(" EN ");
    EXPECT_EQ(model.preferences().language, "en");
    model.setLanguage("");
    EXPECT_EQ(model.preferences().language, std::nullopt);
    EXPECT_EQ(model.languageHintText().toStdString(), TranscriptionSettingsModel::kLanguageUnknown);
    // The default model takes the subtitle options; the names stay stored for it.
    EXPECT_TRUE(model.optionsNote().isEmpty());
    EXPECT_FALSE(model.prerequisites().glossaryReviewDue);
}

}  // namespace
}  // namespace tessarin::app
