// The fixed facts of talking to OpenRouter: where the service is, and how often and how long a
// failed request is retried.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace tessarin::engine {

struct OpenRouterConfig {
    // The service's base endpoint; request paths ("/api/v1/models") are appended to it.
    static constexpr std::string_view kBaseURL = "https://openrouter.ai";

    struct RetryPolicy {
        int maxAttempts = 3;  // in total, the first included
        double baseDelay = 1.0;
        double maxDelay = 20.0;
        double maxHonouredRetryAfter = 60.0;
    };

    // Where requests go: kBaseURL, or for tests a loopback server.
    struct Endpoint {
        std::string baseURL;
        std::optional<std::string> caFile;  // one more trusted certificate authority
    };

    // kBaseURL, unless TESSARIN_OPENROUTER_BASE_URL names a URL whose host is a loopback address
    // (127.0.0.0/8 or [::1], a port allowed): then that URL, with TESSARIN_OPENROUTER_CA_FILE as
    // an extra trusted authority. Any other value of either variable is ignored with a log line.
    // These variables exist for tests only. `environment` reads a variable (default: getenv).
    [[nodiscard]] static Endpoint endpoint(
        const std::function<std::optional<std::string>(const char*)>& environment = {});
};

// Whether `host` (as a URL writes it, IPv6 in brackets) is a loopback address: 127.0.0.0/8 or ::1.
[[nodiscard]] bool isLoopbackHost(std::string_view host);

}  // namespace tessarin::engine
