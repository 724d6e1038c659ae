// The Frames choices over a real settings file: stored values read back, anything missing, of
// another type, unknown or out of range reads as its default, and the setters hold values to the
// export's limits.
#include <gtest/gtest.h>

#include <QSignalSpy>

#include "app/settings/FramesSettings.hpp"
#include "tests/app/support/AppTestSupport.hpp"

namespace tessarin::app {
namespace {

using engine::FrameImageFormat;
using engine::FrameSelectionMode;
using nlohmann::json;
using test::ConfigHome;
using test::readSettingsFile;
using test::writeSettingsFile;

engine::FrameExtractionOptions defaults() {
    engine::FrameExtractionOptions options;
    options.mode = FrameSelectionMode::changes;
    options.maxFrames = std::nullopt;
    options.maxSize = 1568;
    options.format = FrameImageFormat::jpeg;
    options.contactSheet = true;
    return options;
}

TEST(FramesSettings, StoredChoicesReadBack) {
    test::ensureCoreApplication();
    ConfigHome home;
    writeSettingsFile(home.standardFile(), {{"frames.mode.v1", "interval"},
                                            {"frames.maxFrames.v1", 40},
                                            {"frames.maxSize.v1", 640},
                                            {"frames.format.v1", "png"},
                                            {"frames.contactSheet.v1", false}});
    const FramesSettings settings(test::openStore(home.standardFile()));
    engine::FrameExtractionOptions expected;
    expected.mode = FrameSelectionMode::interval;
    expected.maxFrames = 40;
    expected.maxSize = 640;
    expected.format = FrameImageFormat::png;
    expected.contactSheet = false;
    EXPECT_EQ(settings.options(), expected);
}

TEST(FramesSettings, NothingStoredOrBadValuesReadAsTheDefaultsOneByOne) {
    test::ensureCoreApplication();
    {
        ConfigHome home;
        EXPECT_EQ(FramesSettings(test::openStore(home.standardFile())).options(), defaults());
    }
    const struct {
        const char* key;
        json value;
    } cases[] = {
        {"frames.mode.v1", "sideways"}, {"frames.mode.v1", 1},
        {"frames.mode.v1", "Changes"},  {"frames.maxFrames.v1", 0},
        {"frames.maxFrames.v1", 1},     {"frames.maxFrames.v1", 1001},
        {"frames.maxFrames.v1", -5},    {"frames.maxFrames.v1", "40"},
        {"frames.maxFrames.v1", 12.5},  {"frames.maxFrames.v1", nullptr},
        {"frames.maxSize.v1", 63},      {"frames.maxSize.v1", 2577},
        {"frames.maxSize.v1", "640"},   {"frames.maxSize.v1", json::array({640})},
        {"frames.format.v1", "gif"},    {"frames.format.v1", "jpg"},
        {"frames.format.v1", true},     {"frames.contactSheet.v1", "false"},
        {"frames.contactSheet.v1", 0},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(std::string(bad.key) + " = " + bad.value.dump());
        ConfigHome home;
        writeSettingsFile(home.standardFile(), {{bad.key, bad.value}});
        const FramesSettings settings(test::openStore(home.standardFile()));
        EXPECT_EQ(settings.options(), defaults());
    }
}

TEST(FramesSettings, SettersStoreTheKeysWithinTheExportsLimits) {
    test::ensureCoreApplication();
    ConfigHome home;
    FramesSettings settings(test::openStore(home.standardFile()));
    QSignalSpy changed(&settings, &FramesSettings::changed);

    settings.setMode(FrameSelectionMode::interval);
    settings.setMaxFrames(2000);
    settings.setMaxSize(10);
    settings.setFormat(FrameImageFormat::png);
    settings.setContactSheet(false);
    EXPECT_EQ(changed.count(), 5);
    EXPECT_EQ(readSettingsFile(home.standardFile()), (json{{"frames.mode.v1", "interval"},
                                                           {"frames.maxFrames.v1", 1000},
                                                           {"frames.maxSize.v1", 64},
                                                           {"frames.format.v1", "png"},
                                                           {"frames.contactSheet.v1", false}}));
    EXPECT_EQ(settings.maxFrames(), 1000);
    EXPECT_EQ(settings.maxSize(), 64);

    settings.setMaxFrames(1);
    EXPECT_EQ(settings.maxFrames(), 2);
    settings.setMaxSize(9000);
    EXPECT_EQ(settings.maxSize(), 2576);
    // Automatic is stored as 0, by either spelling.
    settings.setMaxFrames(std::nullopt);
    EXPECT_EQ(readSettingsFile(home.standardFile())["frames.maxFrames.v1"], 0);
    EXPECT_EQ(settings.maxFrames(), std::nullopt);
    settings.setMaxFrames(25);
    settings.setMaxFrames(0);
    EXPECT_EQ(settings.maxFrames(), std::nullopt);

    // Another store over the same file reads what was written.
    EXPECT_EQ(FramesSettings(test::openStore(home.standardFile())).options(), settings.options());
}

}  // namespace
}  // namespace tessarin::app
