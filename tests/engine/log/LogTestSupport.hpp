// A private folder per test for the file log, with the journal switched off so
// that test lines stay out of the machine's journal.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "engine/log/Log.hpp"
#include "tests/support/Files.hpp"

namespace tessarin::engine {

class LogFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        setJournalSinkEnabled(false);
        setLogFileForTesting(logFile_);
    }

    void TearDown() override {
        setLogFileForTesting(std::nullopt);
        setJournalSinkEnabled(true);
    }

    // The file's lines without their line breaks; fails the test if the last one is unfinished.
    static std::vector<std::string> readLines(const std::filesystem::path& path) {
        const std::string text = test::readFile(path);
        std::vector<std::string> lines;
        std::size_t begin = 0;
        for (std::size_t end = text.find('\n'); end != std::string::npos;
             end = text.find('\n', begin)) {
            lines.push_back(text.substr(begin, end - begin));
            begin = end + 1;
        }
        EXPECT_EQ(begin, text.size()) << "unfinished last line in " << path;
        return lines;
    }

    // "<UTC time> <pid> <level> <subsystem> <category>: <message>"
    static bool isWholeLine(const std::string& line) {
        static const std::regex shape(
            R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}Z \d+ (debug|info|notice|error) )"
            R"(com\.tessarin\.\S+ \S+: .*)");
        return std::regex_match(line, shape);
    }

    test::TempDir folderRoot_;
    const std::filesystem::path& folder_ = folderRoot_.path();
    std::filesystem::path logFile_ = folder_ / "tessarin.log";
};

}  // namespace tessarin::engine
