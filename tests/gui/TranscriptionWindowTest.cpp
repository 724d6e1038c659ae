// Settings ▸ Transcription and the upload notice in a real window: a key typed into the tab is
// saved to the key store and never kept on screen, the language note follows what the service
// says of the active model, and a transcription refused for want of approval brings up the notice,
// whose "Upload and Transcribe" stores the approval that the tab can withdraw again.
#include <gtest/gtest.h>

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <cstdlib>
#include <fstream>

#include "app/shell/TessarinApp.hpp"
#include "app/transcription/TranscriptionSettingsModel.hpp"
#include "gui/ConsentSheet.hpp"
#include "gui/MainWindow.hpp"
#include "gui/NoticeBanner.hpp"
#include "gui/WindowNotices.hpp"
#include "gui/TranscriptionSettingsPage.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/gui/GuiTestSupport.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::gui {
namespace {

using nlohmann::json;
using test::waitUntil;
using engine::TranscriptionConsentKind;

// Points the service client at a loopback server while it lives.
class ServiceEndpoint {
public:
    explicit ServiceEndpoint(const test::LoopbackHttpsServer& server) {
        ::setenv("TESSARIN_OPENROUTER_BASE_URL", server.baseURL().c_str(), 1);
        ::setenv("TESSARIN_OPENROUTER_CA_FILE", test::testCertificate().certificate.c_str(), 1);
    }
    ~ServiceEndpoint() {
        ::unsetenv("TESSARIN_OPENROUTER_BASE_URL");
        ::unsetenv("TESSARIN_OPENROUTER_CA_FILE");
    }
};

TEST(TranscriptionWindow, TheTabSavesTheKeyAndTheNoticeStoresTheApproval) {
    test::LoopbackHttpsServer server(json::array(
        {{{"status", 200},
          {"body", R"({"data":{"id":"microsoft/mai-transcribe-2","endpoints":[
              {"name":"azure","supported_parameters":["language","temperature"]}]}})"}}}));
    const ServiceEndpoint endpoint(server);
    const test::ConfigHome home;
    app::TessarinApp::Environment environment;
    environment.settings = test::openStore(home.standardFile());
    environment.tools = engine::Tools::fromEnvironment();
    environment.isApplicationActive = [] { return true; };
    environment.postNotification = [](const std::string&, const std::string&) {};
    auto keys = std::make_shared<engine::InMemoryOpenRouterKeyStore>();
    environment.transcriptionKeyStore = keys;
    engine::CatalogSnapshot snapshot;
    snapshot.fetchedAt = engine::secondsSince1970();
    snapshot.entries = {engine::CatalogEntry{"microsoft/mai-transcribe-2", std::nullopt, {"audio"},
                                             {"transcription"}, {{"audio_per_minute", "0.006"}},
                                             {}, {}}};
    environment.settings->setData(engine::OpenRouterCatalog::kSettingsKey, snapshot.toJSONText());
    auto core = std::make_unique<app::TessarinApp>(std::move(environment));
    core->launch();
    auto window = std::make_unique<MainWindow>(*core);
    window->show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));

    SettingsWindow* settings = window->showSettings();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(settings));
    TranscriptionSettingsPage* page = settings->transcription();
    ASSERT_NE(page, nullptr);
    settings->tabs()->setCurrentWidget(page);
    EXPECT_EQ(page->keyStatus()->text(), "No key is saved yet.");

    QTest::keyClicks(page->keyField(), "sk-or-window");
    page->findChild<QPushButton*>("saveKey")->click();
    EXPECT_EQ(keys->read().key, "sk-or-window");
    EXPECT_TRUE(page->keyField()->text().isEmpty());
    EXPECT_EQ(page->keyStatus()->text(), "A key is saved in the system keyring.");
    // The service lists "language" for the active model, so the hint is sent.
    EXPECT_TRUE(waitUntil([&] {
        return core->transcription()->languageHintText() ==
               app::TranscriptionSettingsModel::kLanguageSent;
    }));
    EXPECT_EQ(page->activeModelField()->currentText(), "microsoft/mai-transcribe-2");
    EXPECT_FALSE(page->withdrawAudioButton()->isEnabled());
    test::screenshotAtBothScales(settings, "settings-transcription");

    // A transcription refused for want of approval brings up the notice; nothing was sent.
    const std::filesystem::path talk = home.path() / "talk.mp4";
    std::filesystem::copy_file(test::testClip(test::TestClip::h264Aac), talk);
    app::IntakeOptions options;
    options.action = app::ActionID::transcribe();
    options.startRequested = true;
    (void)core->queue().intake({QUrl::fromLocalFile(QString::fromStdString(talk.string()))}, options);
    ASSERT_TRUE(waitUntil([&] { return window->consentSheet() != nullptr; }));
    ConsentSheet* sheet = window->consentSheet();
    EXPECT_EQ(sheet->windowTitle(), "Send audio to OpenRouter?");
    EXPECT_EQ(sheet->approveButton()->text(), "Upload and Transcribe");
    test::screenshotAtBothScales(sheet, "consent-sheet-audio");
    for (const json& request : server.requests()) {
        EXPECT_EQ(request["method"], "GET");
    }
    sheet->approveButton()->click();
    EXPECT_TRUE(core->transcription()->consentGranted(TranscriptionConsentKind::audioUpload));
    EXPECT_EQ(page->audioConsentStatus()->text(), "Approved");
    page->withdrawAudioButton()->click();
    EXPECT_FALSE(core->transcription()->consentGranted(TranscriptionConsentKind::audioUpload));

    // A transcript a job couldn't store waits in a banner, holds up quitting, and is saved
    // elsewhere from there; a failed save says so and keeps it.
    engine::CompletedTranscriptSaveFailure unsaved;
    unsaved.text = "Words kept in memory.";
    core->transcription()->unsavedTranscripts().sink()(unsaved, "talk.mp4");
    NoticeBanner* banner = window->notices()->unsavedTranscript();
    ASSERT_TRUE(waitUntil([&] { return banner->isVisible(); }));
    EXPECT_TRUE(banner->text().startsWith("The transcript couldn’t be saved. (talk.mp4)"))
        << banner->text().toStdString();
    EXPECT_EQ(core->quitDecision(), app::TessarinApp::QuitDecision::askUnsavedTranscripts);
    window->notices()->saveTranscript(QString::fromStdString((home.path() / "no" / "t.txt").string()));
    auto* failed = window->findChild<QMessageBox*>("transcriptSaveFailed");
    ASSERT_NE(failed, nullptr);
    EXPECT_EQ(failed->text(), "The transcript couldn’t be saved.");
    failed->close();
    EXPECT_TRUE(banner->isVisible());
    const std::filesystem::path kept = home.path() / "talk.transcript.txt";
    window->notices()->saveTranscript(QString::fromStdString(kept.string()));
    EXPECT_FALSE(banner->isVisible());
    EXPECT_EQ(core->quitDecision(), app::TessarinApp::QuitDecision::quitNow);
    std::ifstream keptFile(kept);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(keptFile), {}), "Words kept in memory.");

    core->prepareForQuit();
    EXPECT_TRUE(core->queue().waitForBackgroundWork(std::chrono::seconds(30)));
    window.reset();
    core.reset();
}

}  // namespace
}  // namespace tessarin::gui
