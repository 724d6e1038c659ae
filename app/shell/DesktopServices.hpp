// The window's services around the program: the support report (built off the main thread and
// handed back whole), "Check for Updates…" with its setting "Automatically check for updates"
// (off by default; when on, one check at launch), and the command-line tool installer.
#pragma once

#include <QObject>
#include <QString>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "app/support/MainThreadHandoff.hpp"
#include "engine/desktop/CLIInstaller.hpp"
#include "engine/desktop/UpdateCheck.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::app {

class DesktopServices : public QObject {
    Q_OBJECT

public:
    struct Paths {
        std::filesystem::path program;       // the running executable
        std::filesystem::path cliTool;       // this copy's `tessarin`
        std::filesystem::path helperFolder;  // libexec/tessarin
        std::filesystem::path dataHome;
        std::filesystem::path home;
        std::optional<std::filesystem::path> logFile;  // what the report's log section reads
    };
    DesktopServices(std::shared_ptr<engine::SettingsStore> settings, Paths paths,
                    QObject* parent = nullptr);
    ~DesktopServices() override;

    // Builds the report; reportReady follows. "Collecting diagnostics…" meanwhile.
    void buildReport();
    static constexpr const char* kCollecting = "Collecting diagnostics…";
    static constexpr const char* kCopied = "Copied to Clipboard";

    [[nodiscard]] bool automaticUpdateChecks() const;
    void setAutomaticUpdateChecks(bool on);
    // One check when automatic checks are on. Main thread, at launch.
    void launch();
    void checkForUpdates();
    // Replaces the feed's address (tests); absent: updateFeedEndpoint().
    void setUpdateEndpoint(engine::UpdateFeedEndpoint endpoint) { endpoint_ = std::move(endpoint); }

    [[nodiscard]] engine::CLIInstaller cliInstaller() const;
    // Installs for this account (with the ~/.profile lines when ~/.local/bin isn't on PATH) or
    // for all users; cliInstallFinished follows with the sentence to show.
    void installCommandLineTool(bool allUsers);

signals:
    void reportReady(const QString& report);
    // `text` is the result or failure sentence; `url` the new release's page, when known.
    void updateChecked(const QString& text, const QString& url, bool available, bool failed);
    void cliInstallFinished(const QString& text, bool ok);

private slots:
    void deliver();

private:
    std::shared_ptr<engine::SettingsStore> settings_;
    Paths paths_;
    std::optional<engine::UpdateFeedEndpoint> endpoint_;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
