#include "engine/desktop/StaleScanScheduler.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace tessarin::engine {
namespace {

using namespace std::chrono_literals;

// Eight threads refusing a hundred peers each at once cost one or two scans, not 800; a request
// after the spacing costs one more.
TEST(StaleScanScheduler, ABurstOfRequestsCostsOneScan) {
    std::atomic<int> scans{0};
    StaleScanScheduler scheduler([&] { ++scans; }, 300ms);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                scheduler.request();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::this_thread::sleep_for(800ms);
    const int afterBurst = scans.load();
    EXPECT_GE(afterBurst, 1);
    EXPECT_LE(afterBurst, 2);

    scheduler.request();
    for (int i = 0; i < 100 && scans.load() == afterBurst; ++i) {
        std::this_thread::sleep_for(20ms);
    }
    EXPECT_EQ(scans.load(), afterBurst + 1);
}

}  // namespace
}  // namespace tessarin::engine
