// Shared pieces of the settings tests: a private folder per test with the file
// log sent into it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "engine/log/Log.hpp"
#include "tests/support/Files.hpp"

namespace tessarin::engine::testing {

namespace fs = std::filesystem;
using test::namesStartingWith;
using test::readFile;
using test::ScopedEnv;
using test::writeFile;

// A fresh folder per test, holding the settings under "config/tessarin/settings.json" and the
// file log under "test.log" (the journal is switched off for the test).
class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override {
        setJournalSinkEnabled(false);
        setLogFileForTesting(logFile_);
    }

    void TearDown() override {
        setLogFileForTesting(std::nullopt);
        setJournalSinkEnabled(true);
        std::error_code ignored;
        fs::permissions(folder_, fs::perms::owner_all, ignored);
        fs::permissions(configFolder_, fs::perms::owner_all, ignored);
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

    test::TempDir root_;
    const fs::path& folder_ = root_.path();
    fs::path configFolder_ = folder_ / "config" / "tessarin";
    fs::path settingsFile_ = configFolder_ / "settings.json";
    fs::path logFile_ = folder_ / "test.log";
};

}  // namespace tessarin::engine::testing
