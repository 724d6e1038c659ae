#include <gtest/gtest.h>
#include <stdlib.h>

#include <optional>
#include <string>

#include "engine/process/Tools.hpp"
#include "tests/support/FakeTools.hpp"

namespace tessarin::engine {
namespace {

using test::TemporaryFolder;
using test::writeFile;

// Sets CONVERTER_TOOLS_DIR for one test and restores what was there.
class ToolsDirectoryVariable {
public:
    explicit ToolsDirectoryVariable(const std::optional<std::string>& value) {
        if (const char* old = std::getenv(kName)) {
            saved_ = old;
        }
        if (value) {
            ::setenv(kName, value->c_str(), 1);
        } else {
            ::unsetenv(kName);
        }
    }
    ~ToolsDirectoryVariable() {
        if (saved_) {
            ::setenv(kName, saved_->c_str(), 1);
        } else {
            ::unsetenv(kName);
        }
    }

private:
    static constexpr const char* kName = "CONVERTER_TOOLS_DIR";
    std::optional<std::string> saved_;
};

void writeTool(const TemporaryFolder& folder, const char* name, int mode = 0755) {
    writeFile(folder / name, "#!/bin/sh\n", mode);
}

TEST(Tools, BundledHelperDirectoryIsBesideTheExecutable) {
    EXPECT_EQ(Tools::bundledHelperDirectory(),
              std::filesystem::path(TESSARIN_HELPER_DIR).lexically_normal());
    const Tools tools = Tools::locate();
    EXPECT_EQ(tools.ffmpeg, Tools::bundledHelperDirectory() / "ffmpeg");
    EXPECT_EQ(tools.ffprobe, Tools::bundledHelperDirectory() / "ffprobe");
    EXPECT_EQ(tools.gifsicle, Tools::bundledHelperDirectory() / "gifsicle");
    EXPECT_FALSE(tools.externalSoftwareHEVCIdentity.has_value());
}

TEST(Tools, FromEnvironmentNeedsAllThreeExecutables) {
    TemporaryFolder folder;
    ToolsDirectoryVariable variable(folder.path().string());
    EXPECT_EQ(Tools::fromEnvironment(), std::nullopt);
    writeTool(folder, "ffmpeg");
    writeTool(folder, "ffprobe", 0644);
    writeTool(folder, "gifsicle");
    EXPECT_EQ(Tools::fromEnvironment(), std::nullopt);
    EXPECT_EQ(Tools::inBundle(folder.path()), std::nullopt);

    std::filesystem::permissions(folder / "ffprobe", std::filesystem::perms(0755));
    const std::optional<Tools> tools = Tools::fromEnvironment();
    ASSERT_TRUE(tools.has_value());
    EXPECT_EQ(tools->ffprobe, folder / "ffprobe");
    EXPECT_EQ(Tools::inBundle(folder.path()), tools);
}

TEST(Tools, DirectoryNamedLikeAToolIsNotExecutable) {
    TemporaryFolder folder;
    writeTool(folder, "ffmpeg");
    std::filesystem::create_directory(folder / "ffprobe");
    writeTool(folder, "gifsicle");
    EXPECT_EQ(Tools::inBundle(folder.path()), std::nullopt);
    ToolsDirectoryVariable variable(folder.path().string());
    EXPECT_EQ(Tools::searchReport(), "CONVERTER_TOOLS_DIR (" + folder.path().string() +
                                         "): ffprobe not executable\nbundled Helpers: OK");
}

TEST(Tools, SearchReportNamesEachProblemInToolOrder) {
    {
        ToolsDirectoryVariable variable(std::nullopt);
        EXPECT_EQ(Tools::searchReport(), "CONVERTER_TOOLS_DIR: not set\nbundled Helpers: OK");
    }
    TemporaryFolder folder;
    ToolsDirectoryVariable variable(folder.path().string());
    const std::string label = "CONVERTER_TOOLS_DIR (" + folder.path().string() + "): ";
    EXPECT_EQ(Tools::searchReport(),
              label + "ffmpeg missing, ffprobe missing, gifsicle missing\nbundled Helpers: OK");
    writeTool(folder, "gifsicle", 0600);
    writeTool(folder, "ffprobe");
    EXPECT_EQ(Tools::searchReport(),
              label + "ffmpeg missing, gifsicle not executable\nbundled Helpers: OK");
    writeTool(folder, "ffmpeg");
    std::filesystem::permissions(folder / "gifsicle", std::filesystem::perms(0700));
    EXPECT_EQ(Tools::searchReport(),
              "CONVERTER_TOOLS_DIR (" + folder.path().string() + "): OK\nbundled Helpers: OK");
}

TEST(ToolsError, DescriptionListsTheCheckedPlaces) {
    const ToolsError error(
        {"CONVERTER_TOOLS_DIR: not set", "bundled Helpers (/x): ffmpeg missing"});
    EXPECT_STREQ(error.what(),
                 "ffmpeg/ffprobe/gifsicle not found. Checked:\n"
                 "  \xE2\x80\xA2 CONVERTER_TOOLS_DIR: not set\n"
                 "  \xE2\x80\xA2 bundled Helpers (/x): ffmpeg missing");
    EXPECT_EQ(error.checked.size(), 2U);
}

}  // namespace
}  // namespace tessarin::engine
