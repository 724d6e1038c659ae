// Shared pieces of the settings tests: a private folder per test with the file log sent into it,
// file helpers, and environment variables restored after a test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/log/Log.hpp"

namespace tessarin::engine::testing {

namespace fs = std::filesystem;

inline std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

// Names in `folder` that begin with `prefix`, sorted.
inline std::vector<std::string> namesStartingWith(const fs::path& folder,
                                                  const std::string& prefix) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(prefix)) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Sets or unsets an environment variable for one test and restores it afterwards.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        if (value != nullptr) {
            ::setenv(name, value, 1);
        } else {
            ::unsetenv(name);
        }
    }
    ~ScopedEnv() {
        if (old_) {
            ::setenv(name_.c_str(), old_->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// A fresh folder per test, holding the settings under "config/tessarin/settings.json" and the
// file log under "test.log" (the journal is switched off for the test).
class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "tessarin-settings-test-XXXXXX");
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        configFolder_ = folder_ / "config" / "tessarin";
        settingsFile_ = configFolder_ / "settings.json";
        logFile_ = folder_ / "test.log";
        setJournalSinkEnabled(false);
        setLogFileForTesting(logFile_);
    }

    void TearDown() override {
        setLogFileForTesting(std::nullopt);
        setJournalSinkEnabled(true);
        std::error_code ignored;
        fs::permissions(folder_, fs::perms::owner_all, ignored);
        fs::permissions(configFolder_, fs::perms::owner_all, ignored);
        fs::remove_all(folder_, ignored);
    }

    // Lines of the test's log that mention `text`.
    [[nodiscard]] std::vector<std::string> logLinesWith(const std::string& text) const {
        std::vector<std::string> lines;
        std::ifstream in(logFile_);
        for (std::string line; std::getline(in, line);) {
            if (line.find(text) != std::string::npos) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    fs::path folder_;
    fs::path configFolder_;
    fs::path settingsFile_;
    fs::path logFile_;
};

}  // namespace tessarin::engine::testing
