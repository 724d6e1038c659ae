// A QCoreApplication for the models' event loop, a private configuration home, and small
// readers of settings files, for the tests of the application layer.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "app/settings/PresetStore.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::test {

// Makes the process's QCoreApplication on first use (on the calling, main, thread).
void ensureCoreApplication();

// Points XDG_CONFIG_HOME at a fresh folder while it lives; restores the old value after.
class ConfigHome {
public:
    ConfigHome();
    ~ConfigHome();
    ConfigHome(const ConfigHome&) = delete;
    ConfigHome& operator=(const ConfigHome&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return folder_.path(); }
    // <home>/tessarin/settings.json and <home>/com.orchardine.tessarin/settings.json.
    [[nodiscard]] std::filesystem::path standardFile() const;
    [[nodiscard]] std::filesystem::path oldSuiteFile() const;

private:
    TempDir folder_;
    std::optional<std::string> previous_;
};

// Writes `object` as a whole settings file (its folder is made).
void writeSettingsFile(const std::filesystem::path& file, const nlohmann::json& object);
// The settings file parsed; a discarded value when it is missing or not JSON.
[[nodiscard]] nlohmann::json readSettingsFile(const std::filesystem::path& file);

[[nodiscard]] std::shared_ptr<engine::SettingsStore> openStore(const std::filesystem::path& file);

// Waits for the store's background checks to end, then delivers their results as the event loop
// would. False when they did not end within 20 seconds.
[[nodiscard]] bool settle(app::PresetStore& store);

}  // namespace tessarin::test
