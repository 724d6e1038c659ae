#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "presets/DecodeRepairLog.hpp"

namespace tessarin::presets {
namespace {

TEST(DecodeRepairLog, RecordsFromManyThreads) {
    DecodeRepairLog log;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < 200; ++i) {
                log.record("field" + std::to_string(t * 1000 + i % 50));
                (void)log.contains("field0");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.recordedFields().size(), 200U);
    EXPECT_TRUE(log.contains("field3049"));
    EXPECT_FALSE(log.contains("field50"));
}

}  // namespace
}  // namespace tessarin::presets
