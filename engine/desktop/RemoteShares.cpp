#include "engine/desktop/RemoteShares.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <mutex>

namespace tessarin::engine {

std::optional<std::string> smbURLForHost(std::string_view host) {
    if (host.ends_with('.')) {
        host.remove_suffix(1);
    }
    constexpr std::string_view kAllowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-.";
    if (host.empty() || host.find_first_not_of(kAllowed) != std::string_view::npos) {
        return std::nullopt;
    }
    std::string lowered(host);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (!lowered.ends_with(".local") || host.front() == '.' ||
        host.find("..") != std::string_view::npos) {
        return std::nullopt;
    }
    return fmt::format("smb://{}/", host);
}

std::string RemoteShareError::message() const {
    switch (kind) {
        case Kind::resolveFailed:
            return "Couldn’t find that computer on the network. Check it’s awake and file "
                   "sharing is on.";
        case Kind::mountFailed:
            if (status == 13 || status == 80) {
                return "Sign-in was declined. Check the account and password.";
            }
            if (status == 65) {
                return "That computer isn’t reachable. Check it’s awake and file sharing is on.";
            }
            return fmt::format("Couldn’t connect to that computer (error {}).", status);
        case Kind::other:
            return "Couldn’t connect to that computer.";
    }
    return {};
}

int mountStatusFromGio(int exitCode, std::string_view message) {
    std::string lowered(message);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* refused : {"permission denied", "password", "logon failure",
                                "access denied", "authentication"}) {
        if (lowered.find(refused) != std::string::npos) {
            return 13;
        }
    }
    for (const char* unreachable : {"no route to host", "host is down", "timed out",
                                    "connection refused", "network is unreachable",
                                    "name or service not known"}) {
        if (lowered.find(unreachable) != std::string::npos) {
            return 65;
        }
    }
    return exitCode;
}

namespace {

class GioMounter final : public ShareMounting {
public:
    explicit GioMounter(std::filesystem::path gio) : gio_(std::move(gio)) {}

    std::string mount(const DiscoveredHost& host) override {
        const std::optional<std::string> url = smbURLForHost(host.host);
        if (!url) {
            throw RemoteShareError{RemoteShareError::Kind::resolveFailed, 0};
        }
        auto runner = std::make_shared<ProcessRunner>();
        {
            const std::lock_guard lock(mutex_);
            if (cancelRequested_) {
                throw RemoteShareError{RemoteShareError::Kind::other, -1};
            }
            active_ = runner;
        }
        ProcessResult result;
        try {
            result = runner->run(gio_, {"mount", *url}, true, true, 120.0);
        } catch (const std::exception&) {
            result.exitCode = -1;
        }
        const std::lock_guard lock(mutex_);
        active_.reset();
        if (result.wasCancelled && !result.timedOut) {
            throw RemoteShareError{RemoteShareError::Kind::other, -1};
        }
        if (result.exitCode == 0) {
            return *url;
        }
        // An already mounted share is as good as a new mount.
        const std::string output = result.stdoutData.value_or("");
        if (output.find("already mounted") != std::string::npos) {
            return *url;
        }
        throw RemoteShareError{RemoteShareError::Kind::mountFailed,
                               result.timedOut ? 65 : mountStatusFromGio(result.exitCode, output)};
    }

    void cancel() override {
        std::shared_ptr<ProcessRunner> runner;
        {
            const std::lock_guard lock(mutex_);
            cancelRequested_ = true;
            runner = active_;
        }
        if (runner) {
            runner->cancel(ProcessRunner::kUserCancelGrace);
        }
    }

private:
    std::filesystem::path gio_;
    std::mutex mutex_;
    std::shared_ptr<ProcessRunner> active_;  // guarded by mutex_
    bool cancelRequested_ = false;           // guarded by mutex_
};

}  // namespace

std::unique_ptr<ShareMounting> makeGioMounter(std::filesystem::path gio) {
    return std::make_unique<GioMounter>(std::move(gio));
}

}  // namespace tessarin::engine
