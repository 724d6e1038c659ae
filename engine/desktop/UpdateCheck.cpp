#include "engine/desktop/UpdateCheck.hpp"

#include <curl/curl.h>
#include <fmt/format.h>

#include <cstdlib>
#include <memory>

#include "engine/log/Log.hpp"
#include "engine/transcription/OpenRouterConfig.hpp"

namespace tessarin::engine {

namespace {

const Logger kLog("com.tessarin.app", "updates");
constexpr long kTimeoutSeconds = 20;

struct Transfer {
    std::string body;
    bool overflowed = false;
    const std::function<bool()>* isCancelled = nullptr;
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const size_t bytes = size * count;
    if (transfer->body.size() + bytes > kMaxReleaseFeedBytes) {
        transfer->overflowed = true;
        return 0;
    }
    transfer->body.append(data, bytes);
    return bytes;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* transfer = static_cast<Transfer*>(user);
    return transfer->isCancelled != nullptr && *transfer->isCancelled && (*transfer->isCancelled)()
               ? 1
               : 0;
}

std::optional<std::string> hostOf(const std::string& url) {
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), curl_url_cleanup);
    char* host = nullptr;
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
        curl_url_get(handle.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK || host == nullptr) {
        return std::nullopt;
    }
    std::string text(host);
    curl_free(host);
    return text;
}

}  // namespace

UpdateFeedEndpoint updateFeedEndpoint() {
    UpdateFeedEndpoint endpoint{std::string(kReleaseFeedURL), std::nullopt};
    const char* url = std::getenv("TESSARIN_UPDATE_FEED_URL");
    if (url == nullptr) {
        return endpoint;
    }
    const std::string override(url);
    const std::optional<std::string> host = hostOf(override);
    if (!override.starts_with("https://") || !host || !isLoopbackHost(*host)) {
        kLog.notice(logLine({{"event", "feed-url-override-ignored"}, {"reason", "not-loopback"}}));
        return endpoint;
    }
    endpoint.url = override;
    if (const char* ca = std::getenv("TESSARIN_UPDATE_CA_FILE")) {
        endpoint.caFile = ca;
    }
    return endpoint;
}

UpdateCheckResult checkForUpdates(std::string_view currentVersion,
                                  const UpdateFeedEndpoint& endpoint,
                                  const std::function<bool()>& isCancelled) {
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) {
        throw UpdateCheckError("Couldn't check for updates: the update server couldn't be reached.");
    }
    Transfer transfer;
    transfer.isCancelled = &isCancelled;
    CURL* handle = curl.get();
    curl_easy_setopt(handle, CURLOPT_URL, endpoint.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, kTimeoutSeconds);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kTimeoutSeconds);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &transfer);
    curl_easy_setopt(handle, CURLOPT_USERAGENT,
                     fmt::format("Tessarin/{}", currentVersion).c_str());
    if (endpoint.caFile) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, endpoint.caFile->c_str());
    }
    const CURLcode code = curl_easy_perform(handle);
    if (code == CURLE_ABORTED_BY_CALLBACK) {
        throw UpdateCheckError("Update check cancelled.");
    }
    if (code == CURLE_WRITE_ERROR && transfer.overflowed) {
        kLog.notice(logLine({{"event", "check-failed"}, {"reason", "oversized"}}));
        throw UpdateCheckError("Couldn't check for updates: the release list couldn't be read.");
    }
    if (code != CURLE_OK) {
        kLog.notice(logLine({{"event", "check-failed"}, {"reason", curl_easy_strerror(code)}}));
        throw UpdateCheckError("Couldn't check for updates: the update server couldn't be reached.");
    }
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
        kLog.notice(logLine({{"event", "check-failed"}, {"status", std::to_string(status)}}));
        throw UpdateCheckError(fmt::format(
            "Couldn't check for updates: the update server answered with an error (HTTP {}).",
            status));
    }
    try {
        UpdateCheckResult result{std::string(currentVersion),
                                 newestRelease(parseReleaseFeed(transfer.body), currentVersion)};
        kLog.notice(logLine({{"event", "checked"},
                             {"newer", result.newer ? result.newer->version : "none"}}));
        return result;
    } catch (const ReleaseFeedError& error) {
        kLog.notice(logLine({{"event", "check-failed"}, {"reason", error.what()}}));
        throw UpdateCheckError("Couldn't check for updates: the release list couldn't be read.");
    }
}

std::string updateResultText(const UpdateCheckResult& result) {
    if (result.newer) {
        return fmt::format("Tessarin {} is available (you have {}).", result.newer->version,
                           result.currentVersion);
    }
    return fmt::format("Tessarin {} is the newest version.", result.currentVersion);
}

}  // namespace tessarin::engine
