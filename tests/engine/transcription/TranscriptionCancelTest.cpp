// Cancelling a transcription's work from another thread: waits end at once, and an upload in
// flight to a real loopback server stops as cancelled.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <vector>
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

// Stages attach and detach on several threads while another cancels: no stage is told twice, and
// every stage still attached at the cancel, or attaching after it, is told (after it, at once).
TEST(TranscriptionControl, EveryAttachedStageIsToldOfACancelOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    TranscriptionControl control;
    std::atomic<int> told{0};
    std::vector<std::vector<std::shared_ptr<std::atomic<int>>>> counts(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < kRounds; ++round) {
                auto count = std::make_shared<std::atomic<int>>(0);
                counts[static_cast<std::size_t>(thread)].push_back(count);
                control.detach(control.attach([count] { ++*count; }));
            }
            control.attach([&told] { ++told; });
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    control.cancel();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(told.load(), kThreads);
    control.cancel();  // a second cancel tells nobody again
    EXPECT_EQ(told.load(), kThreads);
    for (const auto& perThread : counts) {
        for (const auto& count : perThread) {
            EXPECT_LE(count->load(), 1);
        }
    }
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
