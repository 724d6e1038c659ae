#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "engine/settings/SettingsStore.hpp"
#include "tests/engine/settings/SettingsTestSupport.hpp"

namespace tessarin::engine::testing {
namespace {

using nlohmann::json;

std::string keyName(int writer, int index) {
    return "writer" + std::to_string(writer) + ".key" + std::to_string(index);
}

void expectAllKeys(const fs::path& file, int writers, int keysEach) {
    const json onDisk = json::parse(readFile(file));
    EXPECT_EQ(onDisk.size(), static_cast<std::size_t>(writers * keysEach));
    const SettingsStore store(file);
    for (int writer = 0; writer < writers; ++writer) {
        for (int index = 0; index < keysEach; ++index) {
            EXPECT_EQ(store.integerValue(keyName(writer, index)), writer * 1000 + index)
                << keyName(writer, index);
        }
    }
}

TEST_F(SettingsTest, TwoProcessesWritingAtOnceLoseNoKey) {
    constexpr int kChildren = 2;
    constexpr int kKeysEach = 200;
    int gate[2];
    ASSERT_EQ(::pipe(gate), 0);

    std::vector<pid_t> children;
    for (int writer = 0; writer < kChildren; ++writer) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::close(gate[1]);
            char ignored = 0;
            // Both children wait here until the parent closes the pipe, so that they overlap.
            if (::read(gate[0], &ignored, 1) != 0) {
                ::_exit(10);
            }
            int status = 0;
            try {
                SettingsStore store(settingsFile_);
                for (int index = 0; index < kKeysEach; ++index) {
                    store.setInteger(keyName(writer, index), writer * 1000 + index);
                    if (store.integerValue(keyName(writer, index)) != writer * 1000 + index) {
                        status = 11;
                    }
                }
            } catch (...) {
                status = 12;
            }
            ::_exit(status);
        }
        children.push_back(pid);
    }
    ::close(gate[0]);
    ::close(gate[1]);
    for (const pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }

    expectAllKeys(settingsFile_, kChildren, kKeysEach);
    EXPECT_EQ(namesStartingWith(configFolder_, ".tessarin-"), std::vector<std::string>{});
}

TEST_F(SettingsTest, ThreadsWritingThroughOneOrManyStoresLoseNoKey) {
    constexpr int kOwnStoreWriters = 3;
    constexpr int kSharedStoreWriters = 2;
    constexpr int kKeysEach = 40;
    SettingsStore shared(settingsFile_);
    std::atomic<bool> writing{true};

    std::vector<std::thread> threads;
    for (int writer = 0; writer < kOwnStoreWriters + kSharedStoreWriters; ++writer) {
        threads.emplace_back([&, writer] {
            std::optional<SettingsStore> own;
            if (writer < kOwnStoreWriters) {
                own.emplace(settingsFile_);
            }
            SettingsStore& store = own ? *own : shared;
            for (int index = 0; index < kKeysEach; ++index) {
                store.setInteger(keyName(writer, index), writer * 1000 + index);
            }
        });
    }
    // Readers of the shared store run against its writers' in-memory replacements.
    std::thread reader([&] {
        while (writing.load()) {
            for (const std::string& key : shared.keys()) {
                EXPECT_TRUE(shared.integerValue(key).has_value()) << key;
            }
            shared.reload();
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    writing.store(false);
    reader.join();

    expectAllKeys(settingsFile_, kOwnStoreWriters + kSharedStoreWriters, kKeysEach);
    shared.reload();
    EXPECT_EQ(shared.keys().size(),
              static_cast<std::size_t>((kOwnStoreWriters + kSharedStoreWriters) * kKeysEach));
}

}  // namespace
}  // namespace tessarin::engine::testing
