#include "tests/app/support/AppTestSupport.hpp"

#include <QCoreApplication>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace tessarin::test {

void ensureCoreApplication() {
    if (QCoreApplication::instance() != nullptr) {
        return;
    }
    static int argc = 1;
    static char name[] = "tessarin-app-settings-test";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* application = new QCoreApplication(argc, argv);
    (void)application;
}

ConfigHome::ConfigHome() {
    if (const char* value = std::getenv("XDG_CONFIG_HOME")) {
        previous_ = value;
    }
    ::setenv("XDG_CONFIG_HOME", folder_.path().c_str(), 1);
}

ConfigHome::~ConfigHome() {
    if (previous_) {
        ::setenv("XDG_CONFIG_HOME", previous_->c_str(), 1);
    } else {
        ::unsetenv("XDG_CONFIG_HOME");
    }
}

std::filesystem::path ConfigHome::standardFile() const {
    return path() / "tessarin" / "settings.json";
}

std::filesystem::path ConfigHome::oldSuiteFile() const {
    return path() / "com.orchardine.tessarin" / "settings.json";
}

void writeSettingsFile(const std::filesystem::path& file, const nlohmann::json& object) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary | std::ios::trunc);
    stream << object.dump(2);
}

nlohmann::json readSettingsFile(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::stringstream text;
    text << stream.rdbuf();
    return nlohmann::json::parse(text.str(), nullptr, /*allow_exceptions=*/false);
}

std::shared_ptr<engine::SettingsStore> openStore(const std::filesystem::path& file) {
    return std::make_shared<engine::SettingsStore>(file);
}

bool settle(app::PresetStore& store) {
    if (!store.waitForBackgroundWork(std::chrono::seconds(20))) {
        return false;
    }
    QCoreApplication::sendPostedEvents();
    return true;
}

}  // namespace tessarin::test
