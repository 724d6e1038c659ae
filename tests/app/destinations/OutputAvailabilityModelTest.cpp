#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSignalSpy>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "app/destinations/OutputAvailabilityModel.hpp"
#include "app/destinations/OutputDestinationTexts.hpp"
#include "tests/app/support/AppTestSupport.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using Availability = OutputAvailabilityModel::Availability;

constexpr auto kPatience = std::chrono::seconds(10);

// Runs the event loop until `done` holds, at most kPatience.
bool processEventsUntil(const std::function<bool()>& done) {
    QDeadlineTimer deadline(kPatience);
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

// Waits for every check, then delivers what they handed back.
bool settle(OutputAvailabilityModel& model) {
    if (!model.waitForBackgroundWork(kPatience)) {
        return false;
    }
    QCoreApplication::sendPostedEvents();
    return true;
}

class OutputAvailabilityModelTest : public testing::Test {
protected:
    OutputAvailabilityModelTest()
        : destinations_((test::ensureCoreApplication(), test::openStore(home_.standardFile()))) {}

    fs::path makeFolder(std::string_view name) const {
        const fs::path folder = folders_ / name;
        fs::create_directories(folder);
        return fs::canonical(folder);
    }

    test::ConfigHome home_;
    test::TempDir folders_;
    OutputDestination destinations_;
};

TEST_F(OutputAvailabilityModelTest, NoFolderChosenIsMissingWithoutAPath) {
    OutputAvailabilityModel model(destinations_);
    EXPECT_EQ(model.availability(), Availability::checking);

    model.refresh();
    ASSERT_TRUE(settle(model));
    EXPECT_EQ(model.availability(), Availability::missing);
    EXPECT_EQ(model.displayedPath(), std::nullopt);
    EXPECT_EQ(model.statusSentence(), kNoFolderChosenSentence);
}

TEST_F(OutputAvailabilityModelTest, ChosenFolderIsPresentThenMissingWhenRemoved) {
    OutputAvailabilityModel model(destinations_);
    QSignalSpy availabilityChanges(&model, &OutputAvailabilityModel::availabilityChanged);
    QSignalSpy pathChanges(&model, &OutputAvailabilityModel::displayedPathChanged);
    const fs::path folder = makeFolder("Exports");

    ASSERT_EQ(model.chooseFolder(folder), std::nullopt);
    EXPECT_EQ(model.generation(), 1u);
    ASSERT_TRUE(settle(model));
    EXPECT_EQ(model.availability(), Availability::present);
    EXPECT_EQ(model.displayedPath(), folder.string());
    EXPECT_EQ(model.statusSentence(), std::nullopt);
    EXPECT_EQ(availabilityChanges.count(), 1);  // checking -> present
    EXPECT_EQ(pathChanges.count(), 1);

    fs::remove(folder);
    model.refresh();
    EXPECT_EQ(model.availability(), Availability::checking);
    ASSERT_TRUE(settle(model));
    EXPECT_EQ(model.availability(), Availability::missing);
    EXPECT_EQ(model.displayedPath(), folder.string());
    EXPECT_EQ(model.statusSentence(), kFolderMissingSentence);
}

TEST_F(OutputAvailabilityModelTest, LateResultOfAnOlderGenerationIsDropped) {
    const fs::path folder = makeFolder("Exports");
    ASSERT_EQ(destinations_.chooseFolder(folder), std::nullopt);

    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;         // guarded by mutex
    bool release = false;  // guarded by mutex
    destinations_.state()->resolver = [&](std::string_view) -> std::optional<ResolvedBookmark> {
        std::unique_lock lock(mutex);
        const int call = ++calls;
        changed.notify_all();
        if (call == 1) {
            // The first check is slow and finds nothing.
            changed.wait_for(lock, kPatience, [&] { return release; });
            return std::nullopt;
        }
        return ResolvedBookmark{folder, false};
    };

    OutputAvailabilityModel model(destinations_);
    model.refresh();
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, kPatience, [&] { return calls == 1; }));
    }
    model.refresh();
    ASSERT_TRUE(processEventsUntil([&] { return model.availability() == Availability::present; }));
    EXPECT_EQ(model.generation(), 2u);

    {
        std::lock_guard lock(mutex);
        release = true;
        changed.notify_all();
    }
    ASSERT_TRUE(settle(model));
    EXPECT_EQ(model.availability(), Availability::present);
    EXPECT_EQ(model.displayedPath(), folder.string());
}

}  // namespace
}  // namespace tessarin::app
