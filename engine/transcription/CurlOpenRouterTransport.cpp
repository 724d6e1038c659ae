#include "engine/transcription/CurlOpenRouterTransport.hpp"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>

#include "engine/log/Log.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionError.hpp"

namespace tessarin::engine {

namespace {

using Code = TranscriptionError::Code;

const Logger& log() {
    static const Logger logger("com.tessarin.transcription", "transport");
    return logger;
}

std::string_view trimmedBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

std::optional<int> parseDigits(std::string_view text) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty() ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    return value;
}

// "EEE, dd MMM yyyy HH:mm:ss zzz" with English names, in GMT.
std::optional<std::time_t> parseHTTPDate(std::string_view text) {
    static constexpr std::array<std::string_view, 7> kDays{"Sun", "Mon", "Tue", "Wed",
                                                           "Thu", "Fri", "Sat"};
    static constexpr std::array<std::string_view, 12> kMonths{
        "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    // "Wed, 21 Oct 2015 07:28:00 GMT"
    if (text.size() != 29 || text.substr(3, 2) != ", " || text[7] != ' ' || text[11] != ' ' ||
        text[16] != ' ' || text[19] != ':' || text[22] != ':' || text[25] != ' ') {
        return std::nullopt;
    }
    const std::string_view zone = text.substr(26);
    if (std::find(kDays.begin(), kDays.end(), text.substr(0, 3)) == kDays.end() ||
        (zone != "GMT" && zone != "UTC")) {
        return std::nullopt;
    }
    const auto month = std::find(kMonths.begin(), kMonths.end(), text.substr(8, 3));
    const auto day = parseDigits(text.substr(5, 2));
    const auto year = parseDigits(text.substr(12, 4));
    const auto hour = parseDigits(text.substr(17, 2));
    const auto minute = parseDigits(text.substr(20, 2));
    const auto second = parseDigits(text.substr(23, 2));
    if (month == kMonths.end() || !day || !year || !hour || !minute || !second || *day < 1 ||
        *day > 31 || *hour > 23 || *minute > 59 || *second > 60) {
        return std::nullopt;
    }
    std::tm fields{};
    fields.tm_year = *year - 1900;
    fields.tm_mon = static_cast<int>(month - kMonths.begin());
    fields.tm_mday = *day;
    fields.tm_hour = *hour;
    fields.tm_min = *minute;
    fields.tm_sec = *second;
    return timegm(&fields);
}

std::optional<double> parseSeconds(std::string_view text) {
    // Digits with at most one full stop among them; no sign, no exponent.
    if (text.empty() || text.front() == '.' ||
        std::count(text.begin(), text.end(), '.') > 1 ||
        !std::all_of(text.begin(), text.end(),
                     [](char c) { return (c >= '0' && c <= '9') || c == '.'; })) {
        return std::nullopt;
    }
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    void operator()(char* text) const { curl_free(text); }
};
template <typename T>
using CurlPointer = std::unique_ptr<T, CurlDeleter>;

std::string urlPart(CURLU* url, CURLUPart part) {
    char* raw = nullptr;
    if (curl_url_get(url, part, &raw, 0) != CURLUE_OK || raw == nullptr) {
        return {};
    }
    const CurlPointer<char> owned(raw);
    return std::string(raw);
}

// The base URL without its trailing "/", or nothing when it breaks a rule of the service's
// address.
std::optional<std::string> checkedBase(const std::string& base) {
    const CurlPointer<CURLU> url(curl_url());
    if (!url || curl_url_set(url.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    const std::string host = urlPart(url.get(), CURLUPART_HOST);
    const std::string port = urlPart(url.get(), CURLUPART_PORT);
    const std::string path = urlPart(url.get(), CURLUPART_PATH);
    if (!equalsIgnoringCase(urlPart(url.get(), CURLUPART_SCHEME), "https") || host.empty() ||
        !urlPart(url.get(), CURLUPART_USER).empty() ||
        !urlPart(url.get(), CURLUPART_PASSWORD).empty() ||
        !(port.empty() || port == "443" || isLoopbackHost(host)) ||
        !(path.empty() || path == "/") || !urlPart(url.get(), CURLUPART_QUERY).empty() ||
        !urlPart(url.get(), CURLUPART_FRAGMENT).empty()) {
        return std::nullopt;
    }
    std::string out = base;
    while (!out.empty() && out.back() == '/') {
        out.pop_back();
    }
    return out;
}

// What the callbacks of one transfer share.
struct Exchange {
    const TranscriptionControl* control;
    std::size_t maximumBytes;
    std::optional<RequestBody::Reader> reader;
    OpenRouterResponse response;
    std::optional<std::string> retryAfterText;
    bool tooLarge = false;
    std::optional<TranscriptionError> failure;  // thrown inside a callback
};

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* context) {
    auto& exchange = *static_cast<Exchange*>(context);
    const std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
        // A new response (after an interim one): its headers replace what came before.
        exchange.retryAfterText.reset();
        exchange.response.generationID.reset();
        return line.size();
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) {
        return line.size();
    }
    const std::string_view name = trimmedBlanks(line.substr(0, colon));
    const std::string_view value = trimmedBlanks(line.substr(colon + 1));
    if (equalsIgnoringCase(name, "Retry-After")) {
        exchange.retryAfterText = std::string(value);
    } else if (equalsIgnoringCase(name, "X-Generation-Id")) {
        exchange.response.generationID = std::string(value);
    } else if (equalsIgnoringCase(name, "Content-Length")) {
        uint64_t length = 0;
        const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), length);
        if (error == std::errc() && end == value.data() + value.size() && !value.empty() &&
            length > exchange.maximumBytes) {
            exchange.tooLarge = true;
            return 0;  // refused before a byte of the body is read
        }
    }
    return line.size();
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* context) {
    auto& exchange = *static_cast<Exchange*>(context);
    const std::size_t length = size * count;
    if (length > exchange.maximumBytes - exchange.response.body.size()) {
        exchange.tooLarge = true;
        return 0;
    }
    exchange.response.body.append(data, length);
    return length;
}

std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* context) {
    auto& exchange = *static_cast<Exchange*>(context);
    try {
        return exchange.reader->read(buffer, size * count);
    } catch (const TranscriptionError& error) {
        exchange.failure = error;
        return CURL_READFUNC_ABORT;
    }
}

int onProgress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto& exchange = *static_cast<Exchange*>(context);
    return exchange.control != nullptr && exchange.control->isCancelled() ? 1 : 0;
}

std::string escaped(CURL* handle, const std::string& text) {
    const CurlPointer<char> out(
        curl_easy_escape(handle, text.c_str(), static_cast<int>(text.size())));
    if (!out) {
        throw TranscriptionError(Code::badResponse);
    }
    return std::string(out.get());
}

}  // namespace

std::optional<double> parseRetryAfter(std::string_view value, std::time_t now) {
    const std::string_view text = trimmedBlanks(value);
    if (const auto seconds = parseSeconds(text)) {
        return seconds;
    }
    if (!text.empty() && text.front() == '-') {
        return std::nullopt;
    }
    const auto date = parseHTTPDate(text);
    if (!date || *date <= now) {
        return std::nullopt;
    }
    return static_cast<double>(*date - now);
}

CurlOpenRouterTransport::CurlOpenRouterTransport(OpenRouterConfig::Endpoint endpoint,
                                                 std::size_t maximumResponseBytes)
    : endpoint_(std::move(endpoint)), maximumResponseBytes_(maximumResponseBytes) {
    static std::once_flag initialised;
    std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

OpenRouterResponse CurlOpenRouterTransport::send(const OpenRouterRequest& request,
                                                 const TranscriptionControl* control) {
    const std::optional<std::string> base = checkedBase(endpoint_.baseURL);
    if (!base) {
        log().error(logLine({{"event", "request-refused"}, {"reason", "base-url"}}));
        throw TranscriptionError(Code::network);
    }
    if (control != nullptr && control->isCancelled()) {
        throw TranscriptionError(Code::cancelled);
    }
    const CurlPointer<CURL> handle(curl_easy_init());
    if (!handle) {
        throw TranscriptionError(Code::network);
    }
    CURL* curl = handle.get();

    std::string url = *base + request.path;
    if (!request.query.empty()) {
        char separator = '?';
        for (const auto& [name, value] : request.query) {
            url += separator + escaped(curl, name) + '=' + escaped(curl, value);
            separator = '&';
        }
    }
    {
        const CurlPointer<CURLU> formed(curl_url());
        if (!formed || curl_url_set(formed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
            throw TranscriptionError(Code::badResponse);
        }
    }

    curl_slist* headers = curl_slist_append(nullptr, "Accept: application/json");
    const CurlPointer<curl_slist> headerList(headers);
    // No "Expect: 100-continue" wait before a large body.
    headers = curl_slist_append(headers, "Expect:");
    if (request.contentType) {
        headers = curl_slist_append(headers, ("Content-Type: " + *request.contentType).c_str());
    }
    if (request.apiKey) {
        headers = curl_slist_append(headers, ("Authorization: Bearer " + *request.apiKey).c_str());
    }
    if (headers == nullptr) {
        throw TranscriptionError(Code::network);
    }

    Exchange exchange{control, maximumResponseBytes_, std::nullopt, {}, std::nullopt, false,
                      std::nullopt};
    exchange.response.body.reserve(std::min<std::size_t>(maximumResponseBytes_, 65'536));

    const double timeout = std::clamp(request.timeout, 1.0, 86'400.0);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout * 1000));
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(std::ceil(timeout)));
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &exchange);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &exchange);
    if (endpoint_.caFile) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, endpoint_.caFile->c_str());
    }
    if (request.method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        if (request.body) {
            exchange.reader.emplace(request.body->reader(control));
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(request.body->size()));
            curl_easy_setopt(curl, CURLOPT_READFUNCTION, onRead);
            curl_easy_setopt(curl, CURLOPT_READDATA, &exchange);
        } else {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, "");
        }
    } else {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    }

    const CURLcode result = curl_easy_perform(curl);
    if (exchange.failure) {
        throw *exchange.failure;
    }
    if (control != nullptr && control->isCancelled()) {
        throw TranscriptionError(Code::cancelled);
    }
    if (exchange.tooLarge) {
        log().error(logLine({{"event", "response-refused"}, {"reason", "too-large"}}));
        throw TranscriptionError(Code::badResponse);
    }
    if (result == CURLE_WEIRD_SERVER_REPLY || result == CURLE_UNSUPPORTED_PROTOCOL) {
        throw TranscriptionError(Code::badResponse);
    }
    if (result != CURLE_OK) {
        log().error(KeyValues().add("event", "request-failed").add("curl", static_cast<int>(result)).str());
        throw TranscriptionError(Code::network);
    }
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (status < 100) {
        throw TranscriptionError(Code::badResponse);
    }
    exchange.response.statusCode = status;
    if (exchange.retryAfterText) {
        exchange.response.retryAfter = parseRetryAfter(*exchange.retryAfterText, std::time(nullptr));
    }
    return std::move(exchange.response);
}

}  // namespace tessarin::engine
