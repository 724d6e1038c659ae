#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>

#include "app/destinations/OutputDestination.hpp"
#include "app/destinations/OutputDestinationTexts.hpp"
#include "tests/app/support/AppTestSupport.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Resolution = OutputDestination::Resolution;

constexpr auto kPatience = std::chrono::seconds(10);

// A one-way gate that a worker can wait at, with a limit so that a broken test fails rather
// than hangs.
class Gate {
public:
    void open() {
        std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool wait() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kPatience, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

class OutputDestinationTest : public testing::Test {
protected:
    OutputDestinationTest() : defaults_(test::openStore(home_.standardFile())) {}

    // What a second process would read from the settings file.
    json stored() const { return test::readSettingsFile(home_.standardFile()); }
    fs::path makeFolder(std::string_view name) const {
        const fs::path folder = folders_ / name;
        fs::create_directories(folder);
        return fs::canonical(folder);
    }
    // The chosen folder moves away and a new one takes its path: the bookmark is now stale.
    void replaceWithAnotherFolder(const fs::path& folder) const {
        fs::rename(folder, folders_ / "Old Exports");
        fs::create_directory(folder);
    }

    test::ConfigHome home_;
    test::TempDir folders_;
    std::shared_ptr<engine::SettingsStore> defaults_;
};

TEST_F(OutputDestinationTest, ModeIsReadFromItsRawStringAndAskEachTimeTakesOnlyAnOverride) {
    OutputDestination destinations(defaults_);
    EXPECT_EQ(destinations.mode(), OutputMode::sameFolder);
    const fs::path dropped = makeFolder("Dropped");
    EXPECT_EQ(destinations.resolve(dropped), Resolution::sameFolder());

    destinations.setMode(OutputMode::askEachTime);
    EXPECT_EQ(stored()["outputMode"], "askEachTime");
    EXPECT_EQ(destinations.mode(), OutputMode::askEachTime);
    EXPECT_EQ(destinations.resolve(dropped), Resolution::inFolder(dropped));
    // Links and file-manager actions have no window to ask from.
    EXPECT_EQ(destinations.resolve(std::nullopt), Resolution::sameFolder());

    test::writeSettingsFile(home_.standardFile(), {{"outputMode", "cloudFolder"}});
    defaults_->reload();
    EXPECT_EQ(destinations.mode(), OutputMode::sameFolder);
    EXPECT_EQ(destinations.resolve(dropped), Resolution::sameFolder());

    test::writeSettingsFile(home_.standardFile(), {{"outputMode", 3}});
    defaults_->reload();
    EXPECT_EQ(destinations.mode(), OutputMode::sameFolder);
}

TEST_F(OutputDestinationTest, ChosenFolderIsStoredAndResolvedAlsoAfterTheHandleIsGone) {
    const fs::path folder = makeFolder("Exports");
    OutputDestination::DestinationResolver resolver;
    {
        OutputDestination destinations(defaults_);
        EXPECT_EQ(destinations.chooseFolder(folder), std::nullopt);
        resolver = destinations.destinationResolver();
    }
    EXPECT_EQ(resolver(std::nullopt), Resolution::inFolder(folder));

    const json file = stored();
    EXPECT_EQ(file["outputMode"], "customFolder");
    EXPECT_EQ(file["outputFolderPath"], folder.string());
    ASSERT_TRUE(file["outputFolderBookmark"].is_object());
    EXPECT_EQ(file["outputFolderBookmark"]["path"], folder.string());

    // A later launch reads the same file.
    OutputDestination relaunched(test::openStore(home_.standardFile()));
    EXPECT_EQ(relaunched.resolve(std::nullopt), Resolution::inFolder(folder));
    EXPECT_EQ(relaunched.resolve(makeFolder("Dropped")), Resolution::inFolder(folder));
}

TEST_F(OutputDestinationTest, FailedChoiceChangesNothing) {
    OutputDestination destinations(defaults_);
    const fs::path folder = makeFolder("Exports");
    ASSERT_EQ(destinations.chooseFolder(folder), std::nullopt);
    destinations.setMode(OutputMode::askEachTime);
    const json before = stored();
    const uint64_t generation = destinations.state()->generation;

    EXPECT_EQ(destinations.chooseFolder(folders_ / "missing"),
              std::string(kFolderChoiceFailedSentence));
    { std::ofstream file(folders_ / "clip.mov"); }
    EXPECT_EQ(destinations.chooseFolder(folders_ / "clip.mov"),
              std::string(kFolderChoiceFailedSentence));

    EXPECT_EQ(stored(), before);
    EXPECT_EQ(destinations.mode(), OutputMode::askEachTime);
    EXPECT_EQ(destinations.state()->generation, generation);
}

// No folder chosen gives the first sentence; a removed folder, or one on a volume that is not
// mounted, the second, and quickly.
TEST_F(OutputDestinationTest, UnavailableFoldersGiveTheirSentences) {
    OutputDestination destinations(defaults_);
    destinations.setMode(OutputMode::customFolder);
    EXPECT_EQ(destinations.resolve(makeFolder("Dropped")),
              Resolution::unavailable(std::string(kNoOutputFolderSentence)));

    const fs::path folder = makeFolder("Exports");
    ASSERT_EQ(destinations.chooseFolder(folder), std::nullopt);
    fs::remove(folder);
    const Resolution unavailable =
        Resolution::unavailable(std::string(kOutputFolderUnavailableSentence));
    EXPECT_EQ(destinations.resolve(std::nullopt), unavailable);

    ASSERT_EQ(destinations.chooseFolder(makeFolder("Exports")), std::nullopt);
    defaults_->update([](json& object) {
        object["outputFolderBookmark"]["path"] = "/run/media/tessarin-test-nobody/Drive/Exports";
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(destinations.resolve(std::nullopt), unavailable);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(OutputDestinationTest, StaleBookmarkIsMadeAgainAndStoredWhenResolvedOrRefreshed) {
    OutputDestination destinations(defaults_);
    const fs::path folder = makeFolder("Exports");
    ASSERT_EQ(destinations.chooseFolder(folder), std::nullopt);
    const json oldBookmark = stored()["outputFolderBookmark"];
    replaceWithAnotherFolder(folder);

    EXPECT_EQ(destinations.resolve(std::nullopt), Resolution::inFolder(folder));

    const json file = stored();
    EXPECT_NE(file["outputFolderBookmark"]["inode"], oldBookmark["inode"]);
    EXPECT_EQ(file["outputFolderBookmark"]["path"], folder.string());
    EXPECT_EQ(file["outputFolderPath"], folder.string());
    // Made again, it now resolves as it stands.
    EXPECT_EQ(FolderBookmark::resolve(file["outputFolderBookmark"].dump()),
              (ResolvedBookmark{folder, false}));

    // A refresh at launch does the same in the background.
    replaceWithAnotherFolder(folder);
    destinations.refreshBookmark();
    ASSERT_TRUE(destinations.waitForBackgroundWork(kPatience));
    EXPECT_NE(stored()["outputFolderBookmark"]["inode"], file["outputFolderBookmark"]["inode"]);
    EXPECT_EQ(FolderBookmark::resolve(stored()["outputFolderBookmark"].dump()),
              (ResolvedBookmark{folder, false}));
}

TEST_F(OutputDestinationTest, StaleBookmarkIsNotStoredOverAChoiceMadeMeanwhile) {
    OutputDestination destinations(defaults_);
    const fs::path oldFolder = makeFolder("Old");
    const fs::path newFolder = makeFolder("New");
    ASSERT_EQ(destinations.chooseFolder(oldFolder), std::nullopt);
    destinations.state()->resolver = [&](std::string_view) {
        EXPECT_EQ(destinations.chooseFolder(newFolder), std::nullopt);
        return std::optional<ResolvedBookmark>({oldFolder, true});
    };

    EXPECT_EQ(destinations.resolve(std::nullopt), Resolution::inFolder(oldFolder));
    EXPECT_EQ(stored()["outputFolderPath"], newFolder.string());
    EXPECT_EQ(stored()["outputFolderBookmark"]["path"], newFolder.string());
}

TEST_F(OutputDestinationTest, FolderChosenDuringARefreshStaysChosen) {
    OutputDestination destinations(defaults_);
    const fs::path oldFolder = makeFolder("Old");
    const fs::path newFolder = makeFolder("New");
    ASSERT_EQ(destinations.chooseFolder(oldFolder), std::nullopt);

    Gate refreshEntered;
    Gate release;
    destinations.state()->resolver = [&](std::string_view) {
        refreshEntered.open();
        EXPECT_TRUE(release.wait());
        return std::optional<ResolvedBookmark>({oldFolder, true});
    };
    // Returns while the resolution is held: the window never waits for it.
    destinations.refreshBookmark();
    ASSERT_TRUE(refreshEntered.wait());

    EXPECT_EQ(destinations.chooseFolder(newFolder), std::nullopt);
    release.open();
    ASSERT_TRUE(destinations.waitForBackgroundWork(kPatience));

    destinations.state()->resolver = nullptr;
    EXPECT_EQ(stored()["outputFolderPath"], newFolder.string());
    EXPECT_EQ(destinations.resolve(std::nullopt), Resolution::inFolder(newFolder));
}

}  // namespace
}  // namespace tessarin::app
