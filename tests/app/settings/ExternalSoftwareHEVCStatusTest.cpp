#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QSignalSpy>
#include <algorithm>
#include <future>
#include <string>

#include "app/settings/PresetStore.hpp"
#include "engine/encoders/EncoderInventory.hpp"
#include "tests/app/support/AppTestSupport.hpp"

namespace tessarin::app {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Kind = PresetStore::ExternalSoftwareHEVCStatus::Kind;
using engine::ExternalSoftwareHEVCValidationError;
using engine::ExternalSoftwareHEVCValidator;
using engine::SoftwareHEVCSource;

fs::path helperTool(const char* name) {
    return fs::path(TESSARIN_HELPER_DIR) / name;
}

// A folder holding links to the helper folder's real ffmpeg and ffprobe.
fs::path linkedToolchain(const fs::path& folder) {
    fs::create_directories(folder);
    fs::create_symlink(helperTool("ffmpeg"), folder / "ffmpeg");
    fs::create_symlink(helperTool("ffprobe"), folder / "ffprobe");
    return folder;
}

// A folder holding copies, so that the validator's commands run files inside it.
fs::path copiedToolchain(const fs::path& folder) {
    fs::create_directories(folder);
    fs::copy_file(fs::canonical(helperTool("ffmpeg")), folder / "ffmpeg");
    fs::copy_file(fs::canonical(helperTool("ffprobe")), folder / "ffprobe");
    return folder;
}

bool containsID(const std::vector<engine::Preset>& presets, std::string_view id) {
    return std::any_of(presets.begin(), presets.end(),
                       [&](const engine::Preset& preset) { return preset.id == id; });
}

// Runs the event loop until `done` holds, waking at each status change; false after 20 s.
bool runUntil(PresetStore& store, const std::function<bool()>& done) {
    QSignalSpy changes(&store, &PresetStore::externalSoftwareHEVCStatusChanged);
    const QDeadlineTimer deadline(std::chrono::seconds(20));
    while (!done()) {
        if (deadline.hasExpired()) {
            return false;
        }
        (void)changes.wait(static_cast<int>(std::max<qint64>(1, deadline.remainingTime())));
    }
    return true;
}

class ExternalSoftwareHEVCStatusTest : public ::testing::Test {
protected:
    void SetUp() override { test::ensureCoreApplication(); }

    std::unique_ptr<PresetStore> launch(ExternalSoftwareHEVCValidator validator = {},
                                        PresetStore::SoftwareHEVCSourceQuery query = nullptr) {
        return std::make_unique<PresetStore>(test::openStore(settingsFile()), std::move(validator),
                                             std::move(query));
    }
    fs::path settingsFile() const { return scratch / "settings.json"; }

    test::ConfigHome home;
    test::TempDir scratch;
};

TEST_F(ExternalSoftwareHEVCStatusTest, EncoderPolicyFiltersTheEffectivePresets) {
    // The distribution's ffmpeg carries libx265; a missing one offers nothing.
    ASSERT_TRUE(engine::EncoderInventory::shared().hasEncoder(helperTool("ffmpeg"), "libx265"));

    auto without = launch({}, PresetStore::bundledSoftwareHEVCQuery(scratch / "no-ffmpeg"));
    ASSERT_TRUE(test::settle(*without));
    EXPECT_EQ(without->encoderPolicy().softwareHEVC, SoftwareHEVCSource::unavailable);
    presets::CustomPreset custom = without->addCustom();
    custom.format = presets::PresetFormat::h265;
    ASSERT_TRUE(without->updateCustom(custom));
    EXPECT_FALSE(containsID(without->effectivePresets(), "mp4-h265"));
    EXPECT_FALSE(containsID(without->effectivePresets(), "mp4-h265-vt"));
    EXPECT_FALSE(containsID(without->effectivePresets(), custom.id));
    EXPECT_TRUE(containsID(without->effectivePresets(), "mp4-h264"));
    without.reset();

    auto with = launch({}, PresetStore::bundledSoftwareHEVCQuery(helperTool("ffmpeg")));
    QSignalSpy policyChanged(with.get(), &PresetStore::encoderPolicyChanged);
    QSignalSpy presetsChanged(with.get(), &PresetStore::effectivePresetsChanged);
    ASSERT_TRUE(test::settle(*with));
    EXPECT_EQ(with->encoderPolicy().softwareHEVC, SoftwareHEVCSource::privateBundled);
    EXPECT_EQ(policyChanged.count(), 1);
    EXPECT_EQ(presetsChanged.count(), 1);
    EXPECT_TRUE(containsID(with->effectivePresets(), "mp4-h265"));
    EXPECT_TRUE(containsID(with->effectivePresets(), "mp4-h265-vt"));
    EXPECT_TRUE(containsID(with->effectivePresets(), custom.id));
}

TEST_F(ExternalSoftwareHEVCStatusTest, ChosenToolchainIsStoredAndRevalidatedAtLaunch) {
    const fs::path folder = linkedToolchain(scratch / "my ffmpeg");
    auto store = launch();
    EXPECT_EQ(store->externalSoftwareHEVCStatus().kind, Kind::notConfigured);

    store->chooseExternalSoftwareHEVC(folder);
    EXPECT_EQ(store->externalSoftwareHEVCStatus().kind, Kind::checking);
    EXPECT_EQ(store->externalSoftwareHEVCCandidateDirectory(), folder);
    ASSERT_TRUE(runUntil(
        *store, [&] { return store->externalSoftwareHEVCStatus().kind != Kind::checking; }));

    const auto& status = store->externalSoftwareHEVCStatus();
    ASSERT_EQ(status.kind, Kind::ready) << status.sentence;
    ASSERT_TRUE(status.toolchain.has_value());
    EXPECT_EQ(fs::path(status.toolchain->ffmpeg.resolvedPath), fs::canonical(helperTool("ffmpeg")));
    EXPECT_EQ(store->persistedExternalSoftwareHEVC(), status.toolchain);
    EXPECT_FALSE(store->externalSoftwareHEVCCandidateDirectory().has_value());
    EXPECT_EQ(store->encoderPolicy().softwareHEVC, SoftwareHEVCSource::external);
    EXPECT_TRUE(store->preset("mp4-h265").has_value());

    const json stored = test::readSettingsFile(settingsFile())["externalSoftwareHEVCToolchain.v1"];
    EXPECT_EQ(stored["selectedDirectoryPath"], status.toolchain->selectedDirectoryPath);
    EXPECT_EQ(stored["ffprobe"]["sha256"], status.toolchain->ffprobe.sha256);
    const engine::ExternalSoftwareHEVCToolchain chosen = *status.toolchain;
    store.reset();

    auto next = launch();
    EXPECT_EQ(next->externalSoftwareHEVCStatus().kind, Kind::checking);
    EXPECT_EQ(next->encoderPolicy().softwareHEVC, SoftwareHEVCSource::unavailable);
    ASSERT_TRUE(test::settle(*next));
    EXPECT_EQ(next->externalSoftwareHEVCStatus(),
              PresetStore::ExternalSoftwareHEVCStatus::ready(chosen));
    EXPECT_EQ(next->encoderPolicy().softwareHEVC, SoftwareHEVCSource::external);

    next->clearExternalSoftwareHEVC();
    EXPECT_EQ(next->externalSoftwareHEVCStatus().kind, Kind::notConfigured);
    EXPECT_EQ(next->encoderPolicy().softwareHEVC, SoftwareHEVCSource::unavailable);
    EXPECT_FALSE(
        test::readSettingsFile(settingsFile()).contains("externalSoftwareHEVCToolchain.v1"));
}

TEST_F(ExternalSoftwareHEVCStatusTest, ChangedFilesAndRefusalsSayWhy) {
    const fs::path folder = linkedToolchain(scratch / "tools");
    engine::ExternalSoftwareHEVCToolchain identity =
        ExternalSoftwareHEVCValidator{}.validate(folder);
    identity.ffmpeg.sha256 = std::string(64, '0');  // as if the binary had been swapped since
    test::writeSettingsFile(settingsFile(),
                            {{"externalSoftwareHEVCToolchain.v1",
                              {{"selectedDirectoryPath", identity.selectedDirectoryPath},
                               {"ffmpeg",
                                {{"resolvedPath", identity.ffmpeg.resolvedPath},
                                 {"sha256", identity.ffmpeg.sha256},
                                 {"version", identity.ffmpeg.version}}},
                               {"ffprobe",
                                {{"resolvedPath", identity.ffprobe.resolvedPath},
                                 {"sha256", identity.ffprobe.sha256},
                                 {"version", identity.ffprobe.version}}}}}});

    auto store = launch();
    EXPECT_EQ(store->persistedExternalSoftwareHEVC(), identity);
    ASSERT_TRUE(test::settle(*store));
    EXPECT_EQ(store->externalSoftwareHEVCStatus(),
              PresetStore::ExternalSoftwareHEVCStatus::changed(
                  ExternalSoftwareHEVCValidationError::identityChanged().what()));
    EXPECT_EQ(store->encoderPolicy().softwareHEVC, SoftwareHEVCSource::unavailable);

    const fs::path empty = scratch / "empty";
    fs::create_directories(empty);
    store->chooseExternalSoftwareHEVC(empty);
    ASSERT_TRUE(test::settle(*store));
    EXPECT_EQ(store->externalSoftwareHEVCStatus(),
              PresetStore::ExternalSoftwareHEVCStatus::failed(
                  ExternalSoftwareHEVCValidationError::missingExecutable("ffmpeg").what()));
    EXPECT_EQ(store->persistedExternalSoftwareHEVC(), identity) << "a refusal stores nothing";
}

TEST_F(ExternalSoftwareHEVCStatusTest, UndecodableStoredToolchainCountsAsNone) {
    test::writeSettingsFile(settingsFile(),
                            {{"externalSoftwareHEVCToolchain.v1", {{"ffmpeg", 3}}}});
    auto store = launch();
    EXPECT_FALSE(store->persistedExternalSoftwareHEVC().has_value());
    EXPECT_EQ(store->externalSoftwareHEVCStatus().kind, Kind::notConfigured);
    EXPECT_TRUE(store->waitForBackgroundWork(std::chrono::seconds(0)));
}

// The first choice is held inside its validation until a second choice has finished; its late
// result must not replace the newer one.
class StaleValidationTest : public ExternalSoftwareHEVCStatusTest {
protected:
    ExternalSoftwareHEVCValidator gatedValidator(const fs::path& gatedFolder) {
        ExternalSoftwareHEVCValidator validator;
        validator.runCommand = [gatedFolder, released = released_](
                                   const fs::path& executable,
                                   const std::vector<std::string>& arguments) {
            if (executable.parent_path() == gatedFolder) {
                released.wait();
            }
            return ExternalSoftwareHEVCValidator::runWithValidationLimits(executable, arguments);
        };
        return validator;
    }
    void release() { gate_.set_value(); }

private:
    std::promise<void> gate_;
    std::shared_future<void> released_ = gate_.get_future().share();
};

TEST_F(StaleValidationTest, OlderResultIsDroppedByGeneration) {
    const fs::path slow = fs::canonical(copiedToolchain(scratch / "slow"));
    const fs::path fast = linkedToolchain(scratch / "fast");
    auto store = launch(gatedValidator(slow));

    store->chooseExternalSoftwareHEVC(slow);
    const uint64_t slowGeneration = store->externalSoftwareHEVCValidationGeneration();
    store->chooseExternalSoftwareHEVC(fast);
    EXPECT_GT(store->externalSoftwareHEVCValidationGeneration(), slowGeneration);
    ASSERT_TRUE(
        runUntil(*store, [&] { return store->externalSoftwareHEVCStatus().kind == Kind::ready; }));
    const PresetStore::ExternalSoftwareHEVCStatus fastStatus = store->externalSoftwareHEVCStatus();
    EXPECT_EQ(fs::path(fastStatus.toolchain->selectedDirectoryPath), fs::absolute(fast));

    // The slow folder would validate too, so only the generation keeps it out.
    QSignalSpy statusChanged(store.get(), &PresetStore::externalSoftwareHEVCStatusChanged);
    release();
    ASSERT_TRUE(test::settle(*store));
    EXPECT_EQ(statusChanged.count(), 0);
    EXPECT_EQ(store->externalSoftwareHEVCStatus(), fastStatus);
    EXPECT_EQ(store->persistedExternalSoftwareHEVC(), fastStatus.toolchain);
    EXPECT_EQ(test::readSettingsFile(
                  settingsFile())["externalSoftwareHEVCToolchain.v1"]["selectedDirectoryPath"],
              fastStatus.toolchain->selectedDirectoryPath);
}

TEST_F(StaleValidationTest, ClearingDuringACheckWins) {
    const fs::path slow = fs::canonical(copiedToolchain(scratch / "slow"));
    auto store = launch(gatedValidator(slow));

    store->chooseExternalSoftwareHEVC(slow);
    store->clearExternalSoftwareHEVC();
    release();
    ASSERT_TRUE(test::settle(*store));
    EXPECT_EQ(store->externalSoftwareHEVCStatus().kind, Kind::notConfigured);
    EXPECT_FALSE(store->persistedExternalSoftwareHEVC().has_value());
    EXPECT_FALSE(
        test::readSettingsFile(settingsFile()).contains("externalSoftwareHEVCToolchain.v1"));
}

}  // namespace
}  // namespace tessarin::app
