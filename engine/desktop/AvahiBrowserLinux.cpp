// Browsing "_smb._tcp" with Avahi's client library on its threaded poll: a browser adds and
// removes services, a resolver per service finds its host name; the list goes out whole, sorted
// by name, on each change.
#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>
#include <avahi-common/thread-watch.h>

#include <algorithm>
#include <mutex>

#include "engine/desktop/RemoteShares.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::engine {

namespace {

const Logger kLog("com.tessarin.app", "remote-shares");

class AvahiBrowser final : public SMBBrowsing {
public:
    ~AvahiBrowser() override { stop(); }

    void start(std::function<void(std::vector<DiscoveredHost>)> onChange,
               std::function<void(std::string)> onError) override {
        stop();
        onChange_ = std::move(onChange);
        onError_ = std::move(onError);
        poll_ = avahi_threaded_poll_new();
        int error = 0;
        if (poll_ != nullptr) {
            client_ = avahi_client_new(avahi_threaded_poll_get(poll_), AVAHI_CLIENT_NO_FAIL,
                                       onClient, this, &error);
        }
        if (client_ == nullptr) {
            kLog.notice(logLine({{"event", "browse-failed"}, {"reason", avahi_strerror(error)}}));
            fail();
            return;
        }
        // The client starts connecting (or waiting for a daemon) on the poll thread.
        if (avahi_threaded_poll_start(poll_) < 0) {
            fail();
        }
    }

    void stop() override {
        if (poll_ != nullptr) {
            avahi_threaded_poll_stop(poll_);
        }
        if (browser_ != nullptr) {
            avahi_service_browser_free(browser_);
            browser_ = nullptr;
        }
        if (client_ != nullptr) {
            avahi_client_free(client_);  // frees the resolvers too
            client_ = nullptr;
        }
        if (poll_ != nullptr) {
            avahi_threaded_poll_free(poll_);
            poll_ = nullptr;
        }
        hosts_.clear();
    }

private:
    void fail() {
        if (onError_) {
            onError_(std::string(kBrowseFailed));
        }
    }

    void publish() {
        std::vector<DiscoveredHost> sorted = hosts_;
        std::sort(sorted.begin(), sorted.end(),
                  [](const DiscoveredHost& a, const DiscoveredHost& b) { return a.name < b.name; });
        if (onChange_) {
            onChange_(std::move(sorted));
        }
    }

    static void onClient(AvahiClient* client, AvahiClientState state, void* user) {
        auto* self = static_cast<AvahiBrowser*>(user);
        if (state == AVAHI_CLIENT_S_RUNNING && self->browser_ == nullptr) {
            self->browser_ = avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                       "_smb._tcp", nullptr,
                                                       static_cast<AvahiLookupFlags>(0), onBrowse,
                                                       self);
            if (self->browser_ == nullptr) {
                self->fail();
            }
        } else if (state == AVAHI_CLIENT_FAILURE || state == AVAHI_CLIENT_CONNECTING) {
            // CONNECTING: no daemon yet (AVAHI_CLIENT_NO_FAIL waits for one); say so once.
            if (!self->reportedWaiting_) {
                self->reportedWaiting_ = true;
                kLog.notice(logLine({{"event", "browse-failed"}, {"reason", "no-daemon"}}));
                self->fail();
            }
        }
    }

    static void onBrowse(AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
                         AvahiBrowserEvent event, const char* name, const char* type,
                         const char* domain, AvahiLookupResultFlags, void* user) {
        auto* self = static_cast<AvahiBrowser*>(user);
        if (event == AVAHI_BROWSER_FAILURE) {
            self->fail();
            return;
        }
        if (name == nullptr || domain == nullptr) {
            return;
        }
        const DiscoveredHost found{name, domain, static_cast<uint32_t>(std::max(interface, 0)), ""};
        auto same = [&](const DiscoveredHost& host) {
            return host.name == found.name && host.domain == found.domain &&
                   host.interfaceIndex == found.interfaceIndex;
        };
        if (event == AVAHI_BROWSER_NEW) {
            if (std::none_of(self->hosts_.begin(), self->hosts_.end(), same) &&
                self->hosts_.size() < 256) {
                self->hosts_.push_back(found);
                avahi_service_resolver_new(self->client_, interface, protocol, name, type, domain,
                                           AVAHI_PROTO_UNSPEC, static_cast<AvahiLookupFlags>(0),
                                           onResolve, self);
                self->publish();
            }
        } else if (event == AVAHI_BROWSER_REMOVE) {
            std::erase_if(self->hosts_, same);
            self->publish();
        }
    }

    static void onResolve(AvahiServiceResolver* resolver, AvahiIfIndex interface, AvahiProtocol,
                          AvahiResolverEvent event, const char* name, const char*,
                          const char* domain, const char* hostName, const AvahiAddress*, uint16_t,
                          AvahiStringList*, AvahiLookupResultFlags, void* user) {
        auto* self = static_cast<AvahiBrowser*>(user);
        if (event == AVAHI_RESOLVER_FOUND && name != nullptr && hostName != nullptr &&
            domain != nullptr) {
            for (DiscoveredHost& host : self->hosts_) {
                if (host.name == name && host.domain == domain &&
                    host.interfaceIndex == static_cast<uint32_t>(std::max(interface, 0))) {
                    host.host = hostName;
                }
            }
            self->publish();
        }
        avahi_service_resolver_free(resolver);
    }

    // Touched on the poll thread only, once start() has started it, and by stop() after the
    // poll thread has stopped.
    AvahiThreadedPoll* poll_ = nullptr;
    AvahiClient* client_ = nullptr;
    AvahiServiceBrowser* browser_ = nullptr;
    std::vector<DiscoveredHost> hosts_;
    bool reportedWaiting_ = false;
    std::function<void(std::vector<DiscoveredHost>)> onChange_;
    std::function<void(std::string)> onError_;
};

}  // namespace

std::unique_ptr<SMBBrowsing> makeAvahiBrowser() {
    return std::make_unique<AvahiBrowser>();
}

}  // namespace tessarin::engine
