#include "app/shell/DesktopServices.hpp"

#include <cstdlib>

#include "engine/desktop/SupportReport.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::app {

DesktopServices::DesktopServices(std::shared_ptr<engine::SettingsStore> settings, Paths paths,
                                 QObject* parent)
    : QObject(parent),
      settings_(std::move(settings)),
      paths_(std::move(paths)),
      handoff_(std::make_shared<MainThreadHandoff>(
          this, "deliver", engine::Logger("com.tessarin.app", "desktop"))) {}

DesktopServices::~DesktopServices() {
    handoff_->detach();
    (void)handoff_->waitUntilIdle(std::chrono::seconds(25));
}

void DesktopServices::buildReport() {
    handoff_->start([this, settings = settings_, paths = paths_] {
        engine::SupportReportInputs inputs;
        inputs.version = TESSARIN_VERSION;
        inputs.program = paths.program;
        inputs.helperFolder = paths.helperFolder;
        inputs.dataHome = paths.dataHome;
        inputs.settings = settings.get();
        inputs.logFile = paths.logFile;
        inputs.notifications = "org.freedesktop.Notifications over the session bus";
        const QString report = QString::fromStdString(engine::buildSupportReport(inputs));
        return MainThreadHandoff::Completion([this, report] { emit reportReady(report); });
    });
}

bool DesktopServices::automaticUpdateChecks() const {
    return settings_->boolValue(engine::kAutomaticUpdateChecksKey).value_or(false);
}

void DesktopServices::setAutomaticUpdateChecks(bool on) {
    try {
        settings_->setBool(engine::kAutomaticUpdateChecksKey, on);
    } catch (const std::exception&) {
        engine::Logger("com.tessarin.app", "updates").error("event=setting-not-saved");
    }
}

void DesktopServices::launch() {
    if (automaticUpdateChecks()) {
        checkForUpdates();
    }
}

void DesktopServices::checkForUpdates() {
    handoff_->start([this, endpoint = endpoint_.value_or(engine::updateFeedEndpoint())] {
        try {
            const engine::UpdateCheckResult result =
                engine::checkForUpdates(TESSARIN_VERSION, endpoint);
            const QString text = QString::fromStdString(engine::updateResultText(result));
            const QString url = result.newer && result.newer->url
                                    ? QString::fromStdString(*result.newer->url)
                                    : QString();
            const bool available = result.newer.has_value();
            return MainThreadHandoff::Completion([this, text, url, available] {
                emit updateChecked(text, url, available, false);
            });
        } catch (const engine::UpdateCheckError& error) {
            const QString text = QString::fromUtf8(error.what());
            return MainThreadHandoff::Completion(
                [this, text] { emit updateChecked(text, QString(), false, true); });
        }
    });
}

engine::CLIInstaller DesktopServices::cliInstaller() const {
    return engine::CLIInstaller::forHome(paths_.cliTool, paths_.home);
}

void DesktopServices::installCommandLineTool(bool allUsers) {
    handoff_->start([this, installer = cliInstaller(), allUsers] {
        QString text;
        bool ok = true;
        try {
            if (allUsers) {
                installer.installForAllUsers();
                text = QStringLiteral("Installed for all users");
            } else {
                installer.install();
                const char* path = std::getenv("PATH");
                text = QString::fromStdString(engine::cliInstallerStatusText(installer));
                if (!installer.targetOnPath(path == nullptr ? "" : path) &&
                    installer.configureShellPath()) {
                    text += QStringLiteral("\n\n") +
                            QString::fromUtf8(engine::kShellProfileConfigured.data()) +
                            QStringLiteral("\n") +
                            QString::fromUtf8(engine::kShellProfileHint.data());
                }
            }
        } catch (const std::exception& error) {
            text = QString::fromUtf8(error.what());
            ok = false;
        }
        return MainThreadHandoff::Completion(
            [this, text, ok] { emit cliInstallFinished(text, ok); });
    });
}

void DesktopServices::deliver() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

}  // namespace tessarin::app
