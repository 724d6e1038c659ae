// The real OpenRouterTransport, over libcurl: HTTPS only, redirects never followed (a redirect
// ends the exchange with the redirect response itself, so an API key never reaches another host),
// request bodies streamed from a RequestBody, responses capped at 8 MiB, no cookies, no cache.
#pragma once

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "engine/transcription/OpenRouterConfig.hpp"
#include "engine/transcription/OpenRouterTransport.hpp"

namespace tessarin::engine {

class CurlOpenRouterTransport final : public OpenRouterTransport {
public:
    static constexpr std::size_t kMaximumResponseBytes = 8'388'608;

    // Sends to `endpoint` (OpenRouterConfig::endpoint() for the real service).
    explicit CurlOpenRouterTransport(OpenRouterConfig::Endpoint endpoint,
                                     std::size_t maximumResponseBytes = kMaximumResponseBytes);

    // A base URL that isn't "https" with a host, without user or password, with no port or 443 (a
    // loopback host may name any port), with an empty path or "/" and neither query nor fragment
    // fails at once with network, before any connection. The time-out is one of inactivity, as a
    // 100 MB upload takes longer than any fixed limit should allow for a stalled one.
    OpenRouterResponse send(const OpenRouterRequest& request,
                            const TranscriptionControl* control) override;

    [[nodiscard]] const OpenRouterConfig::Endpoint& endpoint() const { return endpoint_; }

private:
    OpenRouterConfig::Endpoint endpoint_;
    std::size_t maximumResponseBytes_;
};

// The seconds a `Retry-After` value asks for: a non-negative decimal number, or an HTTP date
// ("Wed, 21 Oct 2015 07:28:00 GMT") taken from `now`. Negative numbers, dates in the past and
// anything else give nothing.
[[nodiscard]] std::optional<double> parseRetryAfter(std::string_view value, std::time_t now);

}  // namespace tessarin::engine
