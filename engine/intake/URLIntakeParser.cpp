#include "engine/intake/URLIntakeParser.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <tuple>

namespace tessarin::engine {

namespace {

// Movie and video types by extension, as a desktop's MIME database classes them video/*, with
// the extra containers a link may name.
constexpr std::array<std::string_view, 28> kVideoExtensions{
    "3g2",  "3gp", "asf", "avi",   "divx", "dv",  "f4v",  "flv", "h264", "m2t",
    "m2ts", "m2v", "m4v", "mjpeg", "mkv",  "mov", "mp4",  "mpe", "mpeg", "mpg",
    "mts",  "mxf", "ogv", "qt",    "rm",   "ts",  "webm", "wmv"};

struct QueryItem {
    std::string name;
    std::optional<std::string> value;
};

struct URLComponents {
    std::string scheme;  // lower case
    std::string host;
    std::optional<std::vector<QueryItem>> queryItems;
};

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        uint32_t value = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        }
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            value = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            value = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            value = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (std::size_t j = 1; j < length; ++j) {
            const auto next = static_cast<unsigned char>(text[i + j]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            value = (value << 6) | (next & 0x3F);
        }
        if ((length == 3 && (value < 0x800 || (value >= 0xD800 && value <= 0xDFFF))) ||
            (length == 4 && (value < 0x10000 || value > 0x10FFFF))) {
            return false;
        }
        i += length;
    }
    return true;
}

// Percent-decoding; nothing for a broken escape or a result that isn't UTF-8.
std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) {
            return std::nullopt;
        }
        const int high = hexValue(text[i + 1]);
        const int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    if (!isValidUtf8(out)) {
        return std::nullopt;
    }
    return out;
}

// The parts of an RFC 3986 URL that intake reads. Nothing when the text holds a byte no URL
// may hold (controls, blanks, non-ASCII), a bad scheme, escape or port.
std::optional<URLComponents> components(std::string_view url) {
    constexpr std::string_view kNeverInURL = "\"<>\\^`{|}";
    for (const char c : url) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte >= 0x7F || kNeverInURL.find(c) != std::string_view::npos) {
            return std::nullopt;
        }
    }
    const std::size_t colon = url.find(':');
    if (colon == std::string_view::npos || colon == 0 || !std::isalpha(static_cast<unsigned char>(url[0]))) {
        return std::nullopt;
    }
    URLComponents parts;
    for (const char c : url.substr(0, colon)) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.') {
            return std::nullopt;
        }
        parts.scheme.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    std::string_view rest = url.substr(colon + 1);
    if (const std::size_t hash = rest.find('#'); hash != std::string_view::npos) {
        if (rest.find('#', hash + 1) != std::string_view::npos) {
            return std::nullopt;
        }
        rest = rest.substr(0, hash);
    }
    std::optional<std::string_view> query;
    if (const std::size_t question = rest.find('?'); question != std::string_view::npos) {
        query = rest.substr(question + 1);
        rest = rest.substr(0, question);
    }
    if (rest.starts_with("//")) {
        std::string_view authority = rest.substr(2, rest.find('/', 2) == std::string_view::npos
                                                        ? std::string_view::npos
                                                        : rest.find('/', 2) - 2);
        if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
            authority = authority.substr(at + 1);
        }
        if (const std::size_t portColon = authority.rfind(':');
            portColon != std::string_view::npos && !authority.starts_with('[')) {
            const std::string_view port = authority.substr(portColon + 1);
            if (!std::all_of(port.begin(), port.end(),
                             [](char c) { return std::isdigit(static_cast<unsigned char>(c)); })) {
                return std::nullopt;
            }
            authority = authority.substr(0, portColon);
        }
        std::optional<std::string> host = percentDecode(authority);
        if (!host) {
            return std::nullopt;
        }
        parts.host = std::move(*host);
    }
    if (!percentDecode(rest)) {
        return std::nullopt;
    }
    if (query) {
        std::vector<QueryItem> items;
        std::size_t start = 0;
        while (start <= query->size()) {
            std::size_t end = query->find('&', start);
            if (end == std::string_view::npos) {
                end = query->size();
            }
            const std::string_view piece = query->substr(start, end - start);
            const std::size_t equals = piece.find('=');
            QueryItem item;
            std::optional<std::string> name = percentDecode(piece.substr(0, equals));
            if (!name) {
                return std::nullopt;
            }
            item.name = std::move(*name);
            if (equals != std::string_view::npos) {
                item.value = percentDecode(piece.substr(equals + 1));
                if (!item.value) {
                    return std::nullopt;
                }
            }
            items.push_back(std::move(item));
            start = end + 1;
        }
        parts.queryItems = std::move(items);
    }
    return parts;
}

using FileIdentity = std::tuple<dev_t, ino_t, dev_t, ino_t>;

// The path with its links resolved, or nothing when the kernel can't resolve it (then it can't be
// examined either). No lexical shortcut: "/missing/../tmp" is not "/tmp" to the kernel.
std::optional<std::string> resolvedPath(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                         &std::free);
    if (!resolved) {
        return std::nullopt;
    }
    return std::string(resolved.get());
}

URLIntakeRejectReason reject(URLIntakeRejectReason::Kind kind,
                             std::optional<std::string> value = std::nullopt, int64_t count = 0) {
    return {kind, std::move(value), count};
}

}  // namespace

std::string sanitizedLogValue(std::string_view value) {
    std::string out;
    std::size_t characters = 0;
    std::size_t i = 0;
    while (i < value.size() && characters < 48) {
        const auto byte = static_cast<unsigned char>(value[i]);
        std::size_t length = 1;
        if (byte >= 0xC0) {
            // One "?" for a whole UTF-8 sequence: it is one character.
            while (i + length < value.size() &&
                   (static_cast<unsigned char>(value[i + length]) & 0xC0) == 0x80 && length < 4) {
                ++length;
            }
        }
        const bool plain = byte < 0x80 && (std::isalnum(byte) || byte == '-' || byte == '_' ||
                                           byte == '.');
        out.push_back(plain ? static_cast<char>(byte) : '?');
        ++characters;
        i += length;
    }
    return out;
}

bool hasIntakeVideoType(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) {
        return false;
    }
    std::string extension(name.substr(dot + 1));
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return std::find(kVideoExtensions.begin(), kVideoExtensions.end(), extension) !=
           kVideoExtensions.end();
}

std::string URLIntakeRejectReason::text() const {
    const auto shown = [this] { return value ? sanitizedLogValue(*value) : std::string("<none>"); };
    switch (kind) {
        case Kind::unknownPreset:
            return fmt::format("unknown-preset({})", shown());
        case Kind::fileCountOutOfRange:
            return fmt::format("file-count-out-of-range({})", count);
        case Kind::noValidVideoFiles:
            return fmt::format("no-valid-video-files({} candidate{})", count,
                               count == 1 ? "" : "s");
        case Kind::unknownAction:
            return fmt::format("unknown-action({})", shown());
        case Kind::actionCarriesPreset:
            return fmt::format("action-carries-preset({})", shown());
        case Kind::malformedURL:
            return "malformed-url";
        case Kind::oversizedURL:
            return "oversized-url";
        case Kind::unusableHandoff:
            return "unusable-handoff";
    }
    return "malformed-url";
}

URLIntakeParseResult parseIntakeURL(std::string_view url,
                                    const std::set<std::string>& knownPresetIDs,
                                    const ConsumeToken& consumeToken, double now) {
    using Kind = URLIntakeRejectReason::Kind;
    const std::optional<URLComponents> parts = components(url);
    if (!parts || parts->scheme != "tessarin") {
        return reject(Kind::malformedURL);
    }
    if (parts->host != "convert" || !parts->queryItems || parts->queryItems->empty()) {
        return reject(Kind::malformedURL);
    }
    if (url.size() > kIntakeURLByteLimit) {
        return reject(Kind::oversizedURL);
    }

    const QueryItem* preset = nullptr;
    const QueryItem* action = nullptr;
    const QueryItem* token = nullptr;
    bool hasFileItems = false;
    URLIntakeRequest request;
    for (const QueryItem& item : *parts->queryItems) {
        if (item.name == "preset" && preset == nullptr) {
            preset = &item;
        } else if (item.name == "action" && action == nullptr) {
            action = &item;
        } else if (item.name == "token" && token == nullptr) {
            token = &item;
        } else if (item.name == "file") {
            hasFileItems = true;
            if (item.value) {
                request.candidatePaths.push_back(*item.value);
            }
        }
    }

    if (action != nullptr) {
        if (action->value != "transcribe") {
            return reject(Kind::unknownAction, action->value);
        }
        if (preset != nullptr) {
            return reject(Kind::actionCarriesPreset, std::string("transcribe"));
        }
        request.action = {IntakeActionKind::transcribe, {}};
    } else {
        if (preset == nullptr || !preset->value || !knownPresetIDs.contains(*preset->value)) {
            return reject(Kind::unknownPreset, preset != nullptr ? preset->value : std::nullopt);
        }
        request.action = {IntakeActionKind::convert, *preset->value};
    }
    if (token != nullptr) {
        request.token = token->value;
    }

    if (request.token && !hasFileItems) {
        std::optional<IntakeToken> consumed =
            consumeToken ? consumeToken(*request.token) : std::nullopt;
        const auto usable = [&](const IntakeToken& claim) {
            const auto files = static_cast<int64_t>(claim.handoffFiles.size());
            return files >= 1 && files <= kIntakeMaximumFileCount &&
                   claim.presetID == request.action.presetID &&
                   claim.actionKind == request.action.kind && claim.fileCount == files &&
                   std::fabs(now - claim.createdAt) <= kIntakeTokenLifetimeSeconds &&
                   (claim.filesFingerprint.empty() ||
                    claim.filesFingerprint == fingerprint(claim.handoffFiles));
        };
        if (!consumed || !usable(*consumed)) {
            return reject(Kind::unusableHandoff);
        }
        request.candidatePaths = consumed->handoffFiles;
        request.consumedToken = std::move(consumed);
    }

    const auto candidates = static_cast<int64_t>(request.candidatePaths.size());
    if (candidates < 1 || candidates > kIntakeMaximumFileCount) {
        return reject(Kind::fileCountOutOfRange, std::nullopt, candidates);
    }

    std::set<FileIdentity> seen;
    for (const std::string& candidate : request.candidatePaths) {
        if (!candidate.starts_with('/') || candidate.find('\0') != std::string::npos) {
            continue;
        }
        const std::optional<std::string> resolved = resolvedPath(candidate);
        if (!resolved) {
            continue;
        }
        const std::string& path = *resolved;
        struct stat raw {};
        struct stat target {};
        if (::lstat(path.c_str(), &raw) != 0 || ::stat(path.c_str(), &target) != 0) {
            continue;
        }
        const bool isVideo = S_ISREG(target.st_mode) && hasIntakeVideoType(path);
        if (!isVideo && !S_ISDIR(target.st_mode)) {
            continue;
        }
        if (!seen.insert({raw.st_dev, raw.st_ino, target.st_dev, target.st_ino}).second) {
            continue;
        }
        request.files.push_back(path);
    }
    if (request.files.empty()) {
        return reject(Kind::noValidVideoFiles, std::nullopt, candidates);
    }
    return request;
}

IntakeAuthorization authorize(const URLIntakeRequest& request, const ConsumeToken& consumeToken,
                              double now) {
    if (!request.token) {
        return {false, "no-token"};
    }
    std::optional<IntakeToken> token = request.consumedToken;
    if (!token && consumeToken) {
        token = consumeToken(*request.token);
    }
    if (!token) {
        return {false, "token-unusable"};
    }
    if (token->nonce != *request.token || token->actionKind != request.action.kind ||
        token->presetID != request.action.presetID ||
        token->fileCount != static_cast<int64_t>(request.candidatePaths.size()) ||
        std::fabs(now - token->createdAt) > kIntakeTokenLifetimeSeconds) {
        return {false, "token-mismatch"};
    }
    if (!token->filesFingerprint.empty() &&
        token->filesFingerprint != fingerprint(request.candidatePaths)) {
        return {false, "token-mismatch"};
    }
    return {true, "ok"};
}

}  // namespace tessarin::engine
