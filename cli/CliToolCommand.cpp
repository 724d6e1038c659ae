// `tessarin cli-tool status|install|install-all-users`: puts this copy's `tessarin` on PATH.
#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "engine/desktop/CLIInstaller.hpp"
#include "engine/desktop/DesktopPaths.hpp"

namespace tessarin::cli {

namespace {

void emit(const nlohmann::json& event) {
    std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
              << std::endl;
}

std::string statusWord(engine::CLIInstaller::Status status) {
    switch (status) {
        case engine::CLIInstaller::Status::notInstalled: return "not-installed";
        case engine::CLIInstaller::Status::installed: return "installed";
        case engine::CLIInstaller::Status::stale: return "stale";
        case engine::CLIInstaller::Status::blocked: return "blocked";
    }
    return {};
}

}  // namespace

int runCliTool(const CliToolRequest& request) {
    const bool json = request.json;
    auto say = [json](const std::string& event, const std::string& text) {
        json ? emit({{"event", event}, {"text", text}}) : void(std::cerr << text << "\n");
    };
    try {
        const engine::CLIInstaller installer = engine::CLIInstaller::forHome(
            engine::runningProgramFolder() / "tessarin", engine::homeFolder());
        if (json) {
            emit({{"event", "start"}, {"action", request.verb}});
        }
        if (request.verb == "install") {
            installer.install();
            const char* path = std::getenv("PATH");
            if (!installer.targetOnPath(path == nullptr ? "" : path) &&
                installer.configureShellPath()) {
                say("warning", std::string(engine::kShellProfileConfigured) + ". " +
                                   std::string(engine::kShellProfileHint));
            }
        } else if (request.verb == "install-all-users") {
            installer.installForAllUsers();
            say("warning", "Installed for all users");
        }
        const engine::CLIInstaller::Status status = installer.status();
        const std::string text = engine::cliInstallerStatusText(installer);
        if (json) {
            emit({{"event", "done"}, {"status", statusWord(status)}, {"text", text}});
        } else {
            std::cout << text << "\n";
        }
        return kExitSuccess;
    } catch (const engine::CLIInstallError& error) {
        json ? emit({{"event", "failed"}, {"step", error.word()}, {"text", error.what()}})
             : void(std::cerr << "tessarin: " << error.what() << "\n");
        return kExitFailure;
    } catch (const std::exception& error) {
        json ? emit({{"event", "failed"}, {"step", "cli-tool"}, {"text", error.what()}})
             : void(std::cerr << "tessarin: " << error.what() << "\n");
        return kExitFailure;
    }
}

}  // namespace tessarin::cli
