// `tessarin shares list|mount`: SMB hosts on the local network, and mounting one with gio so
// that its share can be given as --output-dir.
#include <fmt/format.h>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "engine/desktop/RemoteShares.hpp"

namespace tessarin::cli {

namespace {

void emit(const nlohmann::json& event) {
    std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
              << std::endl;
}

int listShares(const SharesRequest& request, Interruption& interruption) {
    std::mutex mutex;
    std::vector<engine::DiscoveredHost> hosts;  // guarded by mutex
    std::optional<std::string> error;           // guarded by mutex
    std::unique_ptr<engine::SMBBrowsing> browser = engine::makeAvahiBrowser();
    browser->start(
        [&](std::vector<engine::DiscoveredHost> list) {
            const std::lock_guard lock(mutex);
            hosts = std::move(list);
        },
        [&](std::string text) {
            const std::lock_guard lock(mutex);
            error = std::move(text);
        });
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(request.seconds);
    while (std::chrono::steady_clock::now() < end && !interruption.interrupted()) {
        {
            const std::lock_guard lock(mutex);
            if (error) {
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    browser->stop();
    if (interruption.interrupted()) {
        request.json ? emit({{"event", "cancelled"}}) : void(std::cerr << "Cancelled.\n");
        return kExitCancelled;
    }
    if (error) {
        request.json ? emit({{"event", "failed"}, {"step", "browse"}, {"text", *error}})
                     : void(std::cerr << "tessarin: " << *error << "\n");
        return kExitFailure;
    }
    if (hosts.empty() && !request.json) {
        std::cerr << engine::kSheetEmpty << "\n";
    }
    for (const engine::DiscoveredHost& host : hosts) {
        const std::optional<std::string> url = engine::smbURLForHost(host.host);
        if (request.json) {
            emit({{"event", "host"},
                  {"name", host.name},
                  {"host", host.host},
                  {"url", url ? nlohmann::json(*url) : nullptr}});
        } else {
            std::cout << fmt::format("{}  {}\n", host.name, url.value_or("(unusable host name)"));
        }
    }
    if (request.json) {
        emit({{"event", "done"}, {"count", hosts.size()}});
    }
    return kExitSuccess;
}

}  // namespace

int runShares(const SharesRequest& request) {
    Interruption interruption;
    if (request.verb == "list") {
        return listShares(request, interruption);
    }
    std::unique_ptr<engine::ShareMounting> mounter = engine::makeGioMounter();
    if (request.json) {
        emit({{"event", "start"}, {"action", "mount"}});
    }
    std::atomic<bool> finished{false};
    std::thread watcher([&] {
        while (!finished && !interruption.interrupted()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (interruption.interrupted()) {
            mounter->cancel();
        }
    });
    int status = kExitSuccess;
    try {
        const std::string url = mounter->mount({request.host, "local", 0, request.host});
        request.json ? emit({{"event", "done"}, {"url", url}}) : void(std::cout << url << "\n");
    } catch (const engine::RemoteShareError& error) {
        if (error.status == -1) {
            request.json ? emit({{"event", "cancelled"}}) : void(std::cerr << "Cancelled.\n");
            status = kExitCancelled;
        } else {
            request.json ? emit({{"event", "failed"}, {"step", "mount"}, {"text", error.message()}})
                         : void(std::cerr << "tessarin: " << error.message() << "\n");
            status = kExitFailure;
        }
    }
    finished = true;
    watcher.join();
    return status;
}

}  // namespace tessarin::cli
