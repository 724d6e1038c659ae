#include "engine/transcription/OpenRouterConfig.hpp"

#include <arpa/inet.h>
#include <curl/curl.h>

#include <cstdlib>
#include <memory>

#include "engine/log/Log.hpp"

namespace tessarin::engine {

namespace {

const Logger& log() {
    static const Logger logger("com.tessarin.transcription", "client");
    return logger;
}

std::optional<std::string> urlHost(const std::string& url) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), curl_url_cleanup);
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    char* host = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK || host == nullptr) {
        return std::nullopt;
    }
    std::string out(host);
    curl_free(host);
    return out;
}

}  // namespace

bool isLoopbackHost(std::string_view host) {
    const std::string text(host);
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
        in6_addr v6{};
        const std::string inner = text.substr(1, text.size() - 2);
        return inet_pton(AF_INET6, inner.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
    }
    return false;
}

OpenRouterConfig::Endpoint OpenRouterConfig::endpoint(
    const std::function<std::optional<std::string>(const char*)>& environment) {
    const auto read = [&](const char* name) -> std::optional<std::string> {
        if (environment) {
            return environment(name);
        }
        const char* value = std::getenv(name);
        return value == nullptr ? std::nullopt : std::optional<std::string>(value);
    };
    Endpoint out{std::string(kBaseURL), std::nullopt};
    const std::optional<std::string> override = read("TESSARIN_OPENROUTER_BASE_URL");
    const std::optional<std::string> caFile = read("TESSARIN_OPENROUTER_CA_FILE");
    const std::optional<std::string> host = override ? urlHost(*override) : std::nullopt;
    if (override && host && isLoopbackHost(*host)) {
        out.baseURL = *override;
        out.caFile = caFile;
        log().notice(logLine({{"event", "base-url-override"}, {"host", *host}}));
        return out;
    }
    if (override) {
        log().notice(
            logLine({{"event", "base-url-override-ignored"}, {"reason", "not-loopback"}}));
    }
    if (caFile) {
        log().notice(logLine({{"event", "ca-file-ignored"}, {"reason", "no-loopback-base-url"}}));
    }
    return out;
}

}  // namespace tessarin::engine
