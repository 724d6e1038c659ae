// Cancelling a transcription's work from another thread: waits end at once, and an upload in
// flight to a real loopback server stops as cancelled.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"

namespace tessarin::engine {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

TEST(TranscriptionControl, CancelFromAnotherThreadEndsAWaitAtOnce) {
    TranscriptionControl control;
    EXPECT_TRUE(control.waitFor(0.01));
    const auto started = Clock::now();
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        control.cancel();
    });
    EXPECT_FALSE(control.waitFor(30));
    canceller.join();
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(10));
    EXPECT_TRUE(control.isCancelled());
    EXPECT_FALSE(control.waitFor(1));  // a cancelled control never waits again
}

TEST(TranscriptionControl, CancelDuringAnUploadEndsItAsCancelledWithoutRetry) {
    // The server takes its time before reading, so the upload is still in flight when cancelled.
    test::LoopbackHttpsServer server(
        json::array({{{"status", 200}, {"delay", 20}, {"body", R"({"text":"x"})"}}}));
    std::vector<double> sleeps;
    OpenRouterClient client(
        std::make_shared<CurlOpenRouterTransport>(OpenRouterConfig::Endpoint{
            server.baseURL(), test::testCertificate().certificate.string()}),
        {}, [&](double seconds, const TranscriptionControl*) { sleeps.push_back(seconds); });
    const auto control = std::make_shared<TranscriptionControl>();
    auto parts = std::make_shared<std::vector<std::string>>(300, std::string(65'536, 'A'));
    RequestBody body = OpenRouterClient::audioChatBody(
        {"google/gemini-3.6-flash", {parts, ""}, std::nullopt, std::nullopt}, "Transcribe.", "m4a",
        control.get());
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        control->cancel();
    });
    const auto started = Clock::now();
    try {
        (void)client.sendWithRetry(
            OpenRouterClient::mediaRequest(TranscriptionRoute::audioChat, std::move(body), "sk"),
            control.get());
        ADD_FAILURE() << "the upload wasn't cancelled";
    } catch (const TranscriptionError& error) {
        EXPECT_EQ(error.code(), TranscriptionError::Code::cancelled);
    }
    canceller.join();
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(10));
    EXPECT_TRUE(sleeps.empty());
}

}  // namespace
}  // namespace tessarin::engine
